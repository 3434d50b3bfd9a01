// The data road of kestrix-mount: open, create, read, write, truncate,
// flush, fsync and release, all through one RemoteFile per open file on
// this host, shared by every handle on it. A file open for reading that is
// opened again for writing gives its read lease back, then gets a write
// lease. Handles use direct I/O, so the kernel keeps no page cache of
// file data and every read and write reaches the disk through the lease.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "client/kxmount.h"

namespace kestrix::client {

int DataError(OpenFile& file, const char* what, int64_t offset, ssize_t result) {
  const int err = result < 0 && result > -4096 ? static_cast<int>(-result) : EIO;
  std::shared_lock s(file.swap);
  MountLog(false, "%s %s at byte %lld: %s (%s)", what, file.path.c_str(), static_cast<long long>(offset),
           file.remote->error().c_str(), strerror(err));
  return err;
}

std::shared_ptr<OpenFile> Mount::Acquire(Inode& inode, bool write, int* err) {
  std::lock_guard o(inode.openLock);
  std::shared_ptr<OpenFile> file = inode.Open();
  if (file && (file->write || !write)) {
    ++file->handles;
    return file;
  }
  const std::string path = SharePath(inode);
  if (path.empty()) {
    *err = ENOENT;  // unlinked meanwhile: the daemon cannot name it
    return nullptr;
  }
  FileOptions options = config_.file;
  options.write = write;
  std::string error;
  int errnum = EIO;
  if (file) {
    // The server maps a file for one intention at a time: the read lease
    // goes back before the write lease is asked for. Readers of the file
    // wait on `swap` meanwhile, so none reads without a lease.
    std::unique_lock s(file->swap);
    if (file->remote->Close() != 0)
      MountLog(false, "closing the read lease of %s: %s", path.c_str(), file->remote->error().c_str());
    std::unique_ptr<RemoteFile> remote = RemoteFile::Open(config_.share, path, options, &error, &errnum);
    ++file->generation;
    if (!remote) {
      // Its readers go on under a read lease taken anew at their next call.
      file->givenUp = true;
      MountLog(false, "open %s for writing: %s", path.c_str(), error.c_str());
      *err = errnum > 0 ? errnum : EIO;
      return nullptr;
    }
    MountLog(true, "opened %s for writing, size %lld", path.c_str(), static_cast<long long>(remote->Size()));
    file->remote = std::move(remote);
    file->write = true;
    file->path = path;
    file->givenUp = false;
    ++file->handles;
    return file;
  }
  std::unique_ptr<RemoteFile> remote = RemoteFile::Open(config_.share, path, options, &error, &errnum);
  if (!remote) {
    MountLog(false, "open %s%s: %s", path.c_str(), write ? " for writing" : "", error.c_str());
    *err = errnum > 0 ? errnum : EIO;
    return nullptr;
  }
  MountLog(true, "opened %s for %s, size %lld", path.c_str(), write ? "writing" : "reading",
           static_cast<long long>(remote->Size()));
  file = std::make_shared<OpenFile>();
  // Queued writes go through the same road as the program's own.
  file->behind = std::make_unique<WriteBehind>(
      file->changes, [this, &inode, f = file.get()](int64_t at, const uint8_t* buf, size_t n) {
        const ssize_t put = OnRemote(*this, inode, *f, [&](RemoteFile& r) { return r.Write(at, buf, n); });
        if (put < 0) DataError(*f, "writing", at, put);
        return put;
      });
  file->remote = std::move(remote);
  file->write = write;
  file->path = path;
  {
    std::lock_guard l(inode.fileLock);
    inode.file = file;
  }
  ++file->handles;
  return file;
}

int Mount::Sync(Inode& inode, OpenFile& file) {
  if (!file.write) return 0;
  file.behind->Wait();
  if (const int failed = file.behind->Failed(); failed != 0) return -failed;  // logged when it failed
  const int result = OnRemote(*this, inode, file, [](RemoteFile& r) { return r.Sync(); });
  if (result != 0) return DataError(file, "syncing", 0, result);
  // The bytes changed on the disk only: the modification time is set
  // through the names, as a local write would have set it.
  if (file.dirty.exchange(false)) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    utimensat(AT_FDCWD, ProcPath(inode).c_str(), times, 0);
  }
  return 0;
}

int Mount::Release(Inode& inode) {
  std::lock_guard o(inode.openLock);
  std::shared_ptr<OpenFile> file = inode.Open();
  if (!file || --file->handles > 0) return 0;
  file->behind->Wait();
  int err = file->dirty ? Sync(inode, *file) : -file->behind->Failed();
  {
    std::lock_guard l(inode.fileLock);
    inode.file.reset();
  }
  std::unique_lock s(file->swap);
  const int closed = file->remote->Close();
  const FileStats st = file->remote->stats();
  if (closed != 0) {
    MountLog(false, "closing %s: %s", file->path.c_str(), file->remote->error().c_str());
    if (!err) err = closed < 0 ? -closed : EIO;
  }
  MountLog(true, "closed %s: size %lld, %lld bytes on the disk, %d renewals, %d reopens", file->path.c_str(),
           static_cast<long long>(file->remote->Size()), static_cast<long long>(st.dataBytes), st.renewals,
           st.reopens);
  if (inode.hiddenDir >= 0) {  // unlinked while open: the lease is gone, now the name
    unlinkat(inode.hiddenDir, inode.hiddenName.c_str(), 0);
    close(inode.hiddenDir);
    inode.hiddenDir = -1;
  }
  return err;
}

int Mount::Truncate(Inode& inode, int64_t size) {
  int err = 0;
  std::shared_ptr<OpenFile> file = Acquire(inode, true, &err);
  if (!file) return err;
  int result;
  file->behind->Wait();
  {
    ChangeCount::Guard change(file->changes);
    result = OnRemote(*this, inode, *file, [&](RemoteFile& r) { return r.Truncate(size); });
  }
  if (result != 0) err = DataError(*file, "setting the size of", size, result);
  else file->dirty = true;
  const int released = Release(inode);
  return err ? err : released;
}

bool Mount::Relocate(Inode& inode, OpenFile& file, uint64_t seen) {
  const std::string path = SharePath(inode);
  std::unique_ptr<RemoteFile> old;
  {
    std::unique_lock s(file.swap);
    if (file.generation != seen) return true;  // another thread got there first
    if (path.empty() || (path == file.path && !file.givenUp)) return false;
    FileOptions options = config_.file;
    options.write = file.write;
    std::string error;
    std::unique_ptr<RemoteFile> remote = RemoteFile::Open(config_.share, path, options, &error);
    // The size is what this host wrote, whatever the daemon kept of it (an
    // allocation run ahead, or a size it was never told).
    if (remote && file.write && file.remote->Size() != remote->Size() &&
        remote->Truncate(file.remote->Size()) != 0) {
      error = remote->error();
      remote.reset();
    }
    if (!remote) {
      MountLog(false, "opening %s again as %s: %s", file.path.c_str(), path.c_str(), error.c_str());
      return false;
    }
    MountLog(false, "%s opened again%s%s", file.path.c_str(), path == file.path ? "" : " as ",
             path == file.path ? " after the daemon came back" : path.c_str());
    old = std::exchange(file.remote, std::move(remote));
    file.path = path;
    file.givenUp = false;
    ++file.generation;
  }
  return true;  // the old RemoteFile goes here, its lease already gone
}

int Mount::CloseAll() {
  int closed = 0;
  std::lock_guard l(tableLock_);
  for (auto& [key, inode] : table_) {
    {
      std::lock_guard o(inode->openLock);
      std::shared_ptr<OpenFile> file = inode->Open();
      if (!file) continue;
      file->handles = 1;  // whatever the kernel still holds: this is the last
    }
    Release(*inode);
    ++closed;
  }
  return closed;
}

namespace {

Handle& HandleOf(fuse_file_info* fi) { return *reinterpret_cast<Handle*>(static_cast<uintptr_t>(fi->fh)); }

// A handle on inode for the open flags, the lease taken or shared.
int OpenHandle(Mount& m, Inode& inode, fuse_file_info* fi) {
  const bool write = (fi->flags & O_ACCMODE) != O_RDONLY;
  int err = 0;
  std::shared_ptr<OpenFile> file = m.Acquire(inode, write, &err);
  if (!file) return err;
  if (fi->flags & O_TRUNC) {
    file->behind->Wait();
    ChangeCount::Guard change(file->changes);
    const int result = OnRemote(m, inode, *file, [](RemoteFile& r) { return r.Truncate(0); });
    if (result != 0) {
      err = DataError(*file, "emptying", 0, result);
      m.Release(inode);
      return err;
    }
    file->dirty = true;
  }
  auto* h = new Handle{&inode, std::move(file), fi->flags, nullptr};
  if ((fi->flags & O_ACCMODE) != O_WRONLY) {
    // A window is read under the lease like any other read; when the
    // RemoteFile gave up, the program's own read finds out why.
    h->ahead = std::make_shared<ReadAhead>(h->file->changes, [f = h->file](int64_t at, uint8_t* buf, size_t n) {
      std::shared_lock s(f->swap);
      return f->givenUp ? ssize_t{-EIO} : f->remote->Read(at, buf, n);
    });
  }
  fi->fh = reinterpret_cast<uintptr_t>(h);
  fi->direct_io = 1;  // no page cache: data only through the lease
  fi->keep_cache = 0;
  return 0;
}

void Open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  Mount& m = MountOf(req);
  int err = OpenHandle(m, m.Get(ino), fi);
  if (err) return (void)fuse_reply_err(req, err);
  if (fuse_reply_open(req, fi) == -ENOENT) {  // the program was interrupted: no release follows
    m.Release(m.Get(ino));
    delete &HandleOf(fi);
  }
}

// The name is made through the names directory, empty; its data only ever
// goes through the lease.
void Create(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* fi) {
  Mount& m = MountOf(req);
  const int dirfd = m.Get(parent).fd;
  int fd = openat(dirfd, name, O_CREAT | O_RDONLY | O_CLOEXEC | (fi->flags & O_EXCL), mode);
  if (fd < 0) return (void)fuse_reply_err(req, errno);
  close(fd);
  const fuse_ctx* c = fuse_req_ctx(req);
  fuse_entry_param e;
  int err = fchownat(dirfd, name, c->uid, c->gid, AT_SYMLINK_NOFOLLOW) != 0 ? errno : m.Lookup(parent, name, &e);
  if (err) return (void)fuse_reply_err(req, err);
  Inode& inode = m.Get(e.ino);
  if ((err = OpenHandle(m, inode, fi)) != 0) {
    m.Forget(e.ino, 1);
    return (void)fuse_reply_err(req, err);
  }
  m.Stat(inode, &e.attr);
  if (fuse_reply_create(req, &e, fi) == -ENOENT) {
    m.Release(inode);
    delete &HandleOf(fi);
  }
}

// One buffer per worker thread and direction, aligned for direct I/O (so
// RemoteFile moves it without a bounce copy) and kept for the next request.
char* AlignedBuffer(size_t size, bool forWrite) {
  struct Buffer {
    std::unique_ptr<char, decltype(&free)> data{nullptr, free};
    size_t capacity = 0;
  };
  thread_local Buffer buffers[2];
  Buffer& b = buffers[forWrite ? 1 : 0];
  if (size > b.capacity) {
    b.capacity = (size + 4095) & ~size_t{4095};
    b.data.reset(static_cast<char*>(aligned_alloc(4096, b.capacity)));
    if (!b.data) b.capacity = 0;
  }
  return b.data.get();
}

// A read is answered from the handle's read-ahead when it holds the range,
// else straight from the disk; either way the reply is the one copy.
void Read(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info* fi) {
  Handle& h = HandleOf(fi);  // may be gone once the reply is sent
  OpenFile& file = *h.file;
  const std::shared_ptr<ReadAhead> ahead = h.ahead;
  file.behind->Wait();  // a program reads what it wrote
  ReadAhead::Pieces pieces;
  ssize_t n = ahead ? ahead->Serve(offset, size, &pieces) : -1;
  if (n >= 0) {
    fuse_reply_iov(req, pieces.iov, pieces.count);
  } else if (char* buf = AlignedBuffer(size, false); !buf) {
    fuse_reply_err(req, ENOMEM);
  } else {
    n = OnRemote(MountOf(req), *h.inode, file, [&](RemoteFile& r) { return r.Read(offset, buf, size); });
    if (n < 0) fuse_reply_err(req, DataError(file, "reading", offset, n));
    else fuse_reply_buf(req, buf, static_cast<size_t>(n));
  }
  if (ahead) ahead->Done(pieces, offset, n > 0 ? static_cast<size_t>(n) : 0);
}

// The request's data arrives in a pipe (spliced from the kernel) or in
// libfuse's buffer; either way it is copied once, into an aligned buffer:
// one of the file's write-behind buffers, answered at once, or for writes
// that must be on the disk (or at the end) before they return, one of this
// thread's, written after the queued ones.
void WriteBuf(fuse_req_t req, fuse_ino_t, fuse_bufvec* in, off_t offset, fuse_file_info* fi) {
  Handle& h = HandleOf(fi);
  OpenFile& file = *h.file;
  WriteBehind& behind = *file.behind;
  const size_t size = fuse_buf_size(in);
  if (const int failed = behind.Failed(); failed != 0) return (void)fuse_reply_err(req, -failed);
  fuse_bufvec out = FUSE_BUFVEC_INIT(size);
  const int queued = h.flags & (O_APPEND | O_DSYNC) ? -1 : behind.Take(size);
  if (queued >= 0) {
    out.buf[0].mem = behind.Data(queued);
    const ssize_t got = fuse_buf_copy(&out, in, FUSE_BUF_NO_SPLICE);
    if (got < 0) {
      behind.Give(queued);
      return (void)fuse_reply_err(req, static_cast<int>(-got));
    }
    behind.Queue(queued, offset, static_cast<size_t>(got));
    file.dirty = true;
    return (void)fuse_reply_write(req, static_cast<size_t>(got));
  }
  char* buf = AlignedBuffer(size, true);
  if (!buf) return (void)fuse_reply_err(req, ENOMEM);
  out.buf[0].mem = buf;
  const ssize_t got = fuse_buf_copy(&out, in, FUSE_BUF_NO_SPLICE);
  if (got < 0) return (void)fuse_reply_err(req, static_cast<int>(-got));
  behind.Wait();
  ChangeCount::Guard change(file.changes);
  const ssize_t n = OnRemote(MountOf(req), *h.inode, file, [&](RemoteFile& r) {
    if (!(h.flags & O_APPEND)) return r.Write(offset, buf, static_cast<size_t>(got));
    // The kernel's idea of the end may be old; the lease's is not.
    std::lock_guard a(file.append);
    offset = r.Size();
    return r.Write(offset, buf, static_cast<size_t>(got));
  });
  if (n < 0) return (void)fuse_reply_err(req, DataError(file, "writing", offset, n));
  file.dirty = true;
  fuse_reply_write(req, static_cast<size_t>(n));
}

// Every close(2) of a written handle: the data on the disk and the size
// with the daemon before the program goes on, so the file server shows
// both as soon as close returns.
void Flush(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  Handle& h = HandleOf(fi);
  fuse_reply_err(req, h.file->dirty ? MountOf(req).Sync(*h.inode, *h.file) : 0);
}

void FSync(fuse_req_t req, fuse_ino_t, int, fuse_file_info* fi) {
  Handle& h = HandleOf(fi);
  fuse_reply_err(req, MountOf(req).Sync(*h.inode, *h.file));
}

void Release(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  Handle* h = &HandleOf(fi);
  if (h->ahead) h->ahead->Stop();  // no window is read after the lease is closed
  int err = MountOf(req).Release(*h->inode);
  delete h;
  fuse_reply_err(req, err);
}

// Mode 0 only: the file grows to cover the range, which then reads as
// zeros; the daemon allocates as the size asks.
void Allocate(fuse_req_t req, fuse_ino_t, int mode, off_t offset, off_t length, fuse_file_info* fi) {
  if (mode != 0) return (void)fuse_reply_err(req, EOPNOTSUPP);
  Handle& h = HandleOf(fi);
  OpenFile& file = *h.file;
  file.behind->Wait();
  ChangeCount::Guard change(file.changes);
  const int result = OnRemote(MountOf(req), *h.inode, file, [&](RemoteFile& r) {
    return offset + length > r.Size() ? r.Truncate(offset + length) : 0;
  });
  fuse_reply_err(req, result == 0 ? 0 : DataError(file, "allocating", offset + length, result));
}

}  // namespace

void AddDataOperations(fuse_lowlevel_ops& ops) {
  ops.open = Open;
  ops.create = Create;
  ops.read = Read;
  ops.write_buf = WriteBuf;
  ops.flush = Flush;
  ops.fsync = FSync;
  ops.release = Release;
  ops.fallocate = Allocate;
}

}  // namespace kestrix::client
