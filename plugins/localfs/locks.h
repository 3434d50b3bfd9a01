// Locked maps: the files the library keeps open while a client holds their
// map, so that their blocks cannot be freed and reused under the client even
// when the file is deleted meanwhile, each with the kernel lease (leases.h)
// that makes local changes of the file wait. Keyed by file cookie; safe to
// use from several threads. A caller holds a shared reference while it works
// on the descriptor, so an unlock on another thread never closes it under
// the caller.
#ifndef KESTRIX_PLUGINS_LOCALFS_LOCKS_H_
#define KESTRIX_PLUGINS_LOCALFS_LOCKS_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "plugins/localfs/cookies.h"
#include "plugins/localfs/lfs_util.h"

namespace localfs {

struct LockedFile {
  UniqueFd fd;
  bool writable = false;  // opened for writing: its sizes can be changed
  int writeError = 0;     // why a file mapped for writing could not be opened so
  int leaseType = 0;      // F_RDLCK or F_WRLCK
  // A local process waits to change the file: its maps are refused until
  // the last of them ends and the lease is let go.
  std::atomic<bool> withdrawn{false};
};
using OpenFile = std::shared_ptr<LockedFile>;

class LockTable {
 public:
  // The locked file of a cookie; null when none is.
  OpenFile Find(const uint8_t* fileCookie);
  // Locks a file under the cookie; when another thread was first, keeps that
  // one and returns it.
  OpenFile Insert(const uint8_t* fileCookie, OpenFile file);
  // Unlocks the cookie's file; returns it (null when none was locked) so that
  // the caller can still use it before the last reference closes it.
  OpenFile Remove(const uint8_t* fileCookie);
  // Every locked file, for the lease watcher.
  std::vector<OpenFile> All();
  // Held while a file is opened and leased for its first lock, so that two
  // first locks of one file do not refuse each other's lease.
  std::mutex& FirstLockMutex() { return firstLock_; }

 private:
  using Key = std::array<uint8_t, kCookieSize>;
  static Key MakeKey(const uint8_t* cookie);

  std::mutex mutex_, firstLock_;
  std::map<Key, OpenFile> files_;
};

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_LOCKS_H_
