// Locked maps: the files the library keeps open while a client holds their
// map, so that their blocks cannot be freed and reused under the client even
// when the file is deleted meanwhile. Keyed by file cookie; safe to use from
// several threads. A caller holds a shared reference while it works on the
// descriptor, so an unlock on another thread never closes it under the
// caller.
#ifndef KESTRIX_PLUGINS_LOCALFS_LOCKS_H_
#define KESTRIX_PLUGINS_LOCALFS_LOCKS_H_

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "plugins/localfs/cookies.h"
#include "plugins/localfs/lfs_util.h"

namespace localfs {

using OpenFile = std::shared_ptr<const UniqueFd>;

class LockTable {
 public:
  // Locks fd under the cookie; when another thread was first, keeps that
  // one (fd is closed) and returns it.
  OpenFile Insert(const uint8_t* fileCookie, UniqueFd fd);
  // Unlocks the cookie's file; returns it (null when none was locked) so that
  // the caller can still use it before the last reference closes it.
  OpenFile Remove(const uint8_t* fileCookie);

 private:
  using Key = std::array<uint8_t, kCookieSize>;
  static Key MakeKey(const uint8_t* cookie);

  std::mutex mutex_;
  std::map<Key, OpenFile> files_;
};

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_LOCKS_H_
