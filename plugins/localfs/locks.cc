// The table of locked maps; see locks.h.
#include "plugins/localfs/locks.h"

#include <cstring>

namespace localfs {

LockTable::Key LockTable::MakeKey(const uint8_t* cookie) {
  Key key;
  memcpy(key.data(), cookie, key.size());
  return key;
}

OpenFile LockTable::Insert(const uint8_t* fileCookie, UniqueFd fd) {
  auto file = std::make_shared<const UniqueFd>(std::move(fd));
  std::lock_guard<std::mutex> guard(mutex_);
  return files_.try_emplace(MakeKey(fileCookie), std::move(file)).first->second;
}

OpenFile LockTable::Remove(const uint8_t* fileCookie) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = files_.find(MakeKey(fileCookie));
  if (it == files_.end()) return nullptr;
  OpenFile file = std::move(it->second);
  files_.erase(it);
  return file;
}

}  // namespace localfs
