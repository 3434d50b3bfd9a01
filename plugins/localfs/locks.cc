// The table of locked maps; see locks.h.
#include "plugins/localfs/locks.h"

#include <cstring>

namespace localfs {

LockTable::Key LockTable::MakeKey(const uint8_t* cookie) {
  Key key;
  memcpy(key.data(), cookie, key.size());
  return key;
}

OpenFile LockTable::Find(const uint8_t* fileCookie) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = files_.find(MakeKey(fileCookie));
  return it == files_.end() ? nullptr : it->second;
}

OpenFile LockTable::Insert(const uint8_t* fileCookie, OpenFile file) {
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

std::vector<OpenFile> LockTable::All() {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<OpenFile> all;
  all.reserve(files_.size());
  for (const auto& [key, file] : files_) all.push_back(file);
  return all;
}

}  // namespace localfs
