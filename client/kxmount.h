// kestrix-mount's file system: a share seen through FUSE. Names (lookup,
// attributes, directories, links, renames, extended attributes) pass
// through to the directory where this host sees the share's names; file
// data moves only through RemoteFile, straight between this host and the
// shared disk, under one lease per open file.
#ifndef KESTRIX_CLIENT_KXMOUNT_H_
#define KESTRIX_CLIENT_KXMOUNT_H_

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>

#include "client/kxfile.h"
#include "client/kxreadahead.h"
#include "client/kxwritebehind.h"

namespace kestrix::client {

// Lines of the mount's log: standard error in the foreground, else the
// system log. Verbose lines only with -v.
void MountLog(bool verbose, const char* format, ...) __attribute__((format(printf, 2, 3)));
void SetMountLog(bool foreground, bool verbose);

struct MountConfig {
  std::string share;
  std::string names;      // the names directory, canonical
  FileOptions file;       // daemon, disks and lease for every RemoteFile
  double entryTimeout = 1.0;
};

// One file open on this host, whatever the number of its handles: the
// RemoteFile and its lease. Read and Write hold `swap` shared; replacing
// the RemoteFile (a read lease given back for a write lease) holds it alone.
struct OpenFile {
  std::shared_mutex swap;
  std::unique_ptr<RemoteFile> remote;
  std::atomic<bool> write{false};
  int handles = 0;                 // guarded by the inode's openLock
  std::mutex append;               // one O_APPEND write at a time
  std::atomic<bool> dirty{false};  // written since the last sync
  uint64_t generation = 0;         // counts RemoteFiles swapped in; guarded by swap
  // Its RemoteFile gave up on an unreachable daemon, or gave its read lease
  // back for a write lease that was refused: the next use opens the file
  // anew (guarded by swap).
  bool givenUp = false;
  std::string path;                // share-relative, for the log; guarded by swap
  ChangeCount changes;             // writes and size changes by this host
  // Writes answered before they reach the disk; every other use of the
  // file's data waits for them first.
  std::unique_ptr<WriteBehind> behind;

  // The size this host sees: what the lease knows, and the queued writes.
  int64_t Size() {
    const int64_t queued = behind->QueuedEnd();
    std::shared_lock s(swap);
    return std::max(remote->Size(), queued);
  }
};

// A file or directory of the names directory the kernel knows: an O_PATH
// handle on it, so renames and unlinks by anyone leave it valid.
struct Inode {
  int fd = -1;
  dev_t dev = 0;
  ino_t ino = 0;
  uint64_t lookups = 0;  // guarded by the table's lock
  std::mutex openLock;   // opening, upgrading and closing of `file`
  std::mutex fileLock;   // short: reading or replacing the pointer
  std::shared_ptr<OpenFile> file;
  // Unlinked while open here: the hidden name it keeps until its last
  // release, in the directory of hiddenDir (guarded by openLock).
  int hiddenDir = -1;
  std::string hiddenName;

  std::shared_ptr<OpenFile> Open() {
    std::lock_guard l(fileLock);
    return file;
  }
};

// An open handle of the kernel's (a file descriptor of a program), with a
// read-ahead when it is open for reading. A read holds the read-ahead until
// its pieces are let go, which may be after the kernel released the handle.
struct Handle {
  Inode* inode = nullptr;
  std::shared_ptr<OpenFile> file;
  int flags = 0;
  std::shared_ptr<ReadAhead> ahead;
};

class Mount {
 public:
  explicit Mount(MountConfig config);
  ~Mount();
  bool ok() const { return root_.fd >= 0; }
  const MountConfig& config() const { return config_; }
  // Every operation: the names road and the data road.
  static const fuse_lowlevel_ops& Operations();
  // Closes the lease of every file still open (a shutdown without releases).
  int CloseAll();

  Inode& Get(fuse_ino_t ino) {
    return ino == FUSE_ROOT_ID ? root_ : *reinterpret_cast<Inode*>(static_cast<uintptr_t>(ino));
  }
  // The entry of name in parent, counted as one lookup: 0 or an errno value.
  int Lookup(fuse_ino_t parent, const char* name, fuse_entry_param* entry);
  void Forget(fuse_ino_t ino, uint64_t n);
  // The file's attributes, with the size an open file has on this host.
  int Stat(Inode& inode, struct stat* st);
  // Before name in parent goes away (unlink, or a rename over it): when it
  // is the last name of a file open here, the file is renamed to a hidden
  // name instead, because the daemon maps no unlinked file. 0 or an errno.
  int HideIfOpen(fuse_ino_t parent, const char* name, bool* hidden);
  static bool IsHiddenName(const char* name);
  // "/proc/self/fd/N" of the inode's handle, for calls without an fd form.
  static std::string ProcPath(const Inode& inode);
  // Where the file lies now, relative to the share; "" when it has no name.
  std::string SharePath(const Inode& inode);

  // The inode's OpenFile with one more handle, opened (or upgraded to the
  // write intention) as needed: nullptr with *err an errno value.
  std::shared_ptr<OpenFile> Acquire(Inode& inode, bool write, int* err);
  // One handle fewer; the last one closes the lease. 0 or an errno value.
  int Release(Inode& inode);
  // Data on the disk, the size with the daemon and the time with the names.
  int Sync(Inode& inode, OpenFile& file);
  // A new size through the daemon, opening the file for it when needed.
  int Truncate(Inode& inode, int64_t size);
  // After a lost lease RemoteFile opens the file again by the name it was
  // opened with; a file renamed since is opened here by its new name and
  // swapped in, and so is a file whose RemoteFile gave up. True when the
  // caller should try again: a RemoteFile newer than `seen` (the
  // generation it used) now serves the file.
  bool Relocate(Inode& inode, OpenFile& file, uint64_t seen);

 private:
  MountConfig config_;
  Inode root_;
  std::mutex tableLock_;
  std::map<std::pair<dev_t, ino_t>, std::unique_ptr<Inode>> table_;
};

// The operations of each road, filled into ops.
void AddNameOperations(fuse_lowlevel_ops& ops);
void AddDataOperations(fuse_lowlevel_ops& ops);
inline Mount& MountOf(fuse_req_t req) { return *static_cast<Mount*>(fuse_req_userdata(req)); }

// The errno value that fits a failed RemoteFile call, logged with its text.
int DataError(OpenFile& file, const char* what, int64_t offset, ssize_t result);

// op(RemoteFile&) under the file's shared lock; once more when it failed
// with ESTALE because the file was renamed while its lease was lost. A
// RemoteFile that gave up on the daemon is replaced before the call, or the
// call fails with EIO at once while the daemon still does not answer.
template <typename Op>
auto OnRemote(Mount& m, Inode& inode, OpenFile& file, Op op) {
  for (int attempt = 0;; ++attempt) {
    uint64_t generation;
    bool givenUp;
    decltype(op(*file.remote)) result = -EIO;
    {
      std::shared_lock s(file.swap);
      generation = file.generation;
      givenUp = file.givenUp;
      if (!givenUp) result = op(*file.remote);
    }
    if (givenUp) {
      if (attempt > 0 || !m.Relocate(inode, file, generation)) return result;
      continue;
    }
    if (result == -ESTALE && attempt == 0 && m.Relocate(inode, file, generation)) continue;
    if (result == -EIO) {
      std::unique_lock s(file.swap);
      if (file.generation == generation && file.remote->stats().noReply) file.givenUp = true;
    }
    return result;
  }
}

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXMOUNT_H_
