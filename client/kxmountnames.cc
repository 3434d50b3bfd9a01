// The names road of kestrix-mount: the inode table and every operation on
// names, attributes and directories, passed through to the names directory
// with the *at() calls on O_PATH handles. Nothing here reads or writes a
// file's data; a size change goes to the data road (Mount::Truncate).
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "client/kxmount.h"

namespace kestrix::client {

Mount::Mount(MountConfig config) : config_(std::move(config)) {
  root_.fd = open(config_.names.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  root_.lookups = 1;
}

Mount::~Mount() {
  for (auto& [key, inode] : table_) close(inode->fd);
  if (root_.fd >= 0) close(root_.fd);
}

std::string Mount::ProcPath(const Inode& inode) { return "/proc/self/fd/" + std::to_string(inode.fd); }

std::string Mount::SharePath(const Inode& inode) {
  char link[PATH_MAX];
  ssize_t n = readlink(ProcPath(inode).c_str(), link, sizeof link - 1);
  if (n <= 0) return "";
  const std::string path(link, static_cast<size_t>(n)), root = config_.names + "/";
  // An unlinked file reads "... (deleted)" and lies under no name.
  if (path.compare(0, root.size(), root) != 0 || path.ends_with(" (deleted)")) return "";
  return path.substr(root.size());
}

int Mount::Stat(Inode& inode, struct stat* st) {
  if (fstatat(inode.fd, "", st, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (std::shared_ptr<OpenFile> f = inode.Open()) st->st_size = f->Size();
  return 0;
}

int Mount::Lookup(fuse_ino_t parent, const char* name, fuse_entry_param* entry) {
  *entry = {};
  int fd = openat(Get(parent).fd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat st;
  if (fstatat(fd, "", &st, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
    int err = errno;
    close(fd);
    return err;
  }
  Inode* inode;
  {
    std::lock_guard l(tableLock_);
    std::unique_ptr<Inode>& slot = table_[{st.st_dev, st.st_ino}];
    if (slot) {
      close(fd);
    } else {
      slot = std::make_unique<Inode>();
      slot->fd = fd, slot->dev = st.st_dev, slot->ino = st.st_ino;
    }
    inode = slot.get();
    ++inode->lookups;
  }
  if (std::shared_ptr<OpenFile> f = inode->Open()) st.st_size = f->Size();
  entry->ino = reinterpret_cast<uintptr_t>(inode);
  entry->attr = st;
  entry->entry_timeout = config_.entryTimeout;
  entry->attr_timeout = 0;  // sizes of open files change with every write
  return 0;
}

void Mount::Forget(fuse_ino_t ino, uint64_t n) {
  if (ino == FUSE_ROOT_ID) return;
  Inode& inode = Get(ino);
  std::lock_guard l(tableLock_);
  if ((inode.lookups -= std::min(n, inode.lookups)) > 0) return;
  close(inode.fd);
  table_.erase({inode.dev, inode.ino});
}

bool Mount::IsHiddenName(const char* name) { return strncmp(name, ".kestrix-hidden-", 16) == 0; }

int Mount::HideIfOpen(fuse_ino_t parent, const char* name, bool* hidden) {
  *hidden = false;
  const int dirfd = Get(parent).fd;
  struct stat st;
  if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : errno;
  if (!S_ISREG(st.st_mode) || st.st_nlink != 1) return 0;
  Inode* inode;
  {
    std::lock_guard l(tableLock_);
    auto it = table_.find({st.st_dev, st.st_ino});
    if (it == table_.end()) return 0;
    inode = it->second.get();
  }
  std::lock_guard o(inode->openLock);
  if (!inode->Open() || inode->hiddenDir >= 0) return 0;
  const std::string hiddenName = ".kestrix-hidden-" + std::to_string(st.st_ino);
  if (renameat(dirfd, name, dirfd, hiddenName.c_str()) != 0) return errno;
  inode->hiddenDir = fcntl(dirfd, F_DUPFD_CLOEXEC, 0);
  inode->hiddenName = hiddenName;
  *hidden = true;
  return 0;
}

namespace {

void ReplyEntry(fuse_req_t req, fuse_ino_t parent, const char* name) {
  fuse_entry_param e;
  int err = MountOf(req).Lookup(parent, name, &e);
  if (err) fuse_reply_err(req, err);
  else fuse_reply_entry(req, &e);
}

void ReplyAttr(fuse_req_t req, Inode& inode) {
  struct stat st;
  int err = MountOf(req).Stat(inode, &st);
  if (err) fuse_reply_err(req, err);
  else fuse_reply_attr(req, &st, 0);
}

// A name made by this process (as root) belongs to the program that asked.
int OwnToCaller(fuse_req_t req, int dirfd, const char* name) {
  const fuse_ctx* c = fuse_req_ctx(req);
  return fchownat(dirfd, name, c->uid, c->gid, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

// Replies with the new entry after a call that made name in parent.
void ReplyMade(fuse_req_t req, fuse_ino_t parent, const char* name, int made) {
  const int dirfd = MountOf(req).Get(parent).fd;
  int err = made != 0 ? errno : OwnToCaller(req, dirfd, name);
  if (err) fuse_reply_err(req, err);
  else ReplyEntry(req, parent, name);
}

int Errno(int status) { return status == 0 ? 0 : errno; }

void Lookup(fuse_req_t req, fuse_ino_t parent, const char* name) { ReplyEntry(req, parent, name); }

void Forget(fuse_req_t req, fuse_ino_t ino, uint64_t n) {
  MountOf(req).Forget(ino, n);
  fuse_reply_none(req);
}

void ForgetMulti(fuse_req_t req, size_t count, fuse_forget_data* forgets) {
  for (size_t i = 0; i < count; ++i) MountOf(req).Forget(forgets[i].ino, forgets[i].nlookup);
  fuse_reply_none(req);
}

void GetAttr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) { ReplyAttr(req, MountOf(req).Get(ino)); }

void SetAttr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int set, fuse_file_info*) {
  Mount& m = MountOf(req);
  Inode& inode = m.Get(ino);
  const std::string proc = Mount::ProcPath(inode);
  int err = 0;
  if (set & FUSE_SET_ATTR_MODE) err = Errno(chmod(proc.c_str(), attr->st_mode));
  if (!err && (set & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID))) {
    uid_t uid = set & FUSE_SET_ATTR_UID ? attr->st_uid : static_cast<uid_t>(-1);
    gid_t gid = set & FUSE_SET_ATTR_GID ? attr->st_gid : static_cast<gid_t>(-1);
    err = Errno(fchownat(inode.fd, "", uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW));
  }
  if (!err && (set & FUSE_SET_ATTR_SIZE)) err = m.Truncate(inode, attr->st_size);
  if (!err && (set & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME))) {
    struct timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_OMIT}};
    if (set & FUSE_SET_ATTR_ATIME) times[0] = set & FUSE_SET_ATTR_ATIME_NOW ? timespec{0, UTIME_NOW} : attr->st_atim;
    if (set & FUSE_SET_ATTR_MTIME) times[1] = set & FUSE_SET_ATTR_MTIME_NOW ? timespec{0, UTIME_NOW} : attr->st_mtim;
    err = Errno(utimensat(AT_FDCWD, proc.c_str(), times, 0));
  }
  if (err) fuse_reply_err(req, err);
  else ReplyAttr(req, inode);
}

void ReadLink(fuse_req_t req, fuse_ino_t ino) {
  char target[PATH_MAX + 1];
  ssize_t n = readlinkat(MountOf(req).Get(ino).fd, "", target, PATH_MAX);
  if (n < 0) return (void)fuse_reply_err(req, errno);
  target[n] = '\0';
  fuse_reply_readlink(req, target);
}

void MakeNode(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, dev_t rdev) {
  ReplyMade(req, parent, name, mknodat(MountOf(req).Get(parent).fd, name, mode, rdev));
}

void MakeDir(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode) {
  ReplyMade(req, parent, name, mkdirat(MountOf(req).Get(parent).fd, name, mode));
}

void SymLink(fuse_req_t req, const char* target, fuse_ino_t parent, const char* name) {
  ReplyMade(req, parent, name, symlinkat(target, MountOf(req).Get(parent).fd, name));
}

void Link(fuse_req_t req, fuse_ino_t ino, fuse_ino_t parent, const char* name) {
  Mount& m = MountOf(req);
  if (linkat(AT_FDCWD, Mount::ProcPath(m.Get(ino)).c_str(), m.Get(parent).fd, name, AT_SYMLINK_FOLLOW) != 0)
    return (void)fuse_reply_err(req, errno);
  ReplyEntry(req, parent, name);
}

void Unlink(fuse_req_t req, fuse_ino_t parent, const char* name) {
  Mount& m = MountOf(req);
  bool hidden;
  int err = m.HideIfOpen(parent, name, &hidden);
  fuse_reply_err(req, err || hidden ? err : Errno(unlinkat(m.Get(parent).fd, name, 0)));
}

void RemoveDir(fuse_req_t req, fuse_ino_t parent, const char* name) {
  fuse_reply_err(req, Errno(unlinkat(MountOf(req).Get(parent).fd, name, AT_REMOVEDIR)));
}

void Rename(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
            unsigned int flags) {
  Mount& m = MountOf(req);
  bool hidden = false;
  int err = flags & (RENAME_NOREPLACE | RENAME_EXCHANGE) ? 0 : m.HideIfOpen(newParent, newName, &hidden);
  if (!err) err = Errno(renameat2(m.Get(parent).fd, name, m.Get(newParent).fd, newName, flags));
  fuse_reply_err(req, err);
}

void StatFs(fuse_req_t req, fuse_ino_t ino) {
  struct statvfs st;
  if (fstatvfs(MountOf(req).Get(ino).fd, &st) != 0) return (void)fuse_reply_err(req, errno);
  fuse_reply_statfs(req, &st);
}

// Extended attributes by the handle's /proc path: O_PATH handles have no
// f*xattr calls of their own.
void SetXattr(fuse_req_t req, fuse_ino_t ino, const char* name, const char* value, size_t size, int flags) {
  const std::string proc = Mount::ProcPath(MountOf(req).Get(ino));
  fuse_reply_err(req, Errno(setxattr(proc.c_str(), name, value, size, flags)));
}

// The size asked for when size is 0, else the value (ERANGE when larger).
void ReplyXattr(fuse_req_t req, size_t size, const std::function<ssize_t(char*, size_t)>& get) {
  std::vector<char> value(size);
  ssize_t n = get(size ? value.data() : nullptr, size);
  if (n < 0) fuse_reply_err(req, errno);
  else if (size == 0) fuse_reply_xattr(req, static_cast<size_t>(n));
  else fuse_reply_buf(req, value.data(), static_cast<size_t>(n));
}

void GetXattr(fuse_req_t req, fuse_ino_t ino, const char* name, size_t size) {
  const std::string proc = Mount::ProcPath(MountOf(req).Get(ino));
  ReplyXattr(req, size, [&](char* buf, size_t n) { return getxattr(proc.c_str(), name, buf, n); });
}

void ListXattr(fuse_req_t req, fuse_ino_t ino, size_t size) {
  const std::string proc = Mount::ProcPath(MountOf(req).Get(ino));
  ReplyXattr(req, size, [&](char* buf, size_t n) { return listxattr(proc.c_str(), buf, n); });
}

void RemoveXattr(fuse_req_t req, fuse_ino_t ino, const char* name) {
  fuse_reply_err(req, Errno(removexattr(Mount::ProcPath(MountOf(req).Get(ino)).c_str(), name)));
}

// An open directory of the names directory, read with its own stream.
struct DirHandle {
  DIR* dir = nullptr;
  off_t offset = 0;
  std::mutex lock;
};

void OpenDir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  int fd = openat(MountOf(req).Get(ino).fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* dir = fd < 0 ? nullptr : fdopendir(fd);
  if (!dir) {
    int err = errno;
    if (fd >= 0) close(fd);
    return (void)fuse_reply_err(req, err);
  }
  fi->fh = reinterpret_cast<uintptr_t>(new DirHandle{dir, 0, {}});
  fuse_reply_open(req, fi);
}

void ReadDir(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info* fi) {
  auto* d = reinterpret_cast<DirHandle*>(static_cast<uintptr_t>(fi->fh));
  std::vector<char> buf(size);
  size_t used = 0;
  int err = 0;
  {
    std::lock_guard l(d->lock);
    if (offset != d->offset) {
      seekdir(d->dir, offset);
      d->offset = offset;
    }
    for (;;) {
      errno = 0;
      struct dirent* e = readdir(d->dir);
      if (!e) {
        if (errno && used == 0) err = errno;
        break;
      }
      if (Mount::IsHiddenName(e->d_name)) {
        d->offset = telldir(d->dir);
        continue;
      }
      struct stat st = {};
      st.st_ino = e->d_ino;
      st.st_mode = static_cast<mode_t>(DTTOIF(e->d_type));
      const off_t next = telldir(d->dir);
      size_t n = fuse_add_direntry(req, buf.data() + used, size - used, e->d_name, &st, next);
      if (n > size - used) {
        seekdir(d->dir, d->offset);  // no room: this entry comes first next time
        break;
      }
      used += n;
      d->offset = next;
    }
  }
  // Answered only once the handle is let go: the answer lets the program
  // close the directory, and the release may free the handle at once.
  if (err != 0) return (void)fuse_reply_err(req, err);
  fuse_reply_buf(req, buf.data(), used);
}

void ReleaseDir(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  auto* d = reinterpret_cast<DirHandle*>(static_cast<uintptr_t>(fi->fh));
  closedir(d->dir);
  delete d;
  fuse_reply_err(req, 0);
}

void SyncDir(fuse_req_t req, fuse_ino_t, int, fuse_file_info* fi) {
  auto* d = reinterpret_cast<DirHandle*>(static_cast<uintptr_t>(fi->fh));
  fuse_reply_err(req, Errno(fsync(dirfd(d->dir))));
}

}  // namespace

void AddNameOperations(fuse_lowlevel_ops& ops) {
  ops.lookup = Lookup;
  ops.forget = Forget;
  ops.forget_multi = ForgetMulti;
  ops.getattr = GetAttr;
  ops.setattr = SetAttr;
  ops.readlink = ReadLink;
  ops.mknod = MakeNode;
  ops.mkdir = MakeDir;
  ops.symlink = SymLink;
  ops.link = Link;
  ops.unlink = Unlink;
  ops.rmdir = RemoveDir;
  ops.rename = Rename;
  ops.statfs = StatFs;
  ops.setxattr = SetXattr;
  ops.getxattr = GetXattr;
  ops.listxattr = ListXattr;
  ops.removexattr = RemoveXattr;
  ops.opendir = OpenDir;
  ops.readdir = ReadDir;
  ops.releasedir = ReleaseDir;
  ops.fsyncdir = SyncDir;
}

}  // namespace kestrix::client
