// Unlocks under way, one mark per file, and the waiting for them.
#include "sp/unlock_order.h"

#include <condition_variable>
#include <cstring>

#include "fstypes.h"
#include "sp/lease.h"
#include "sp/sp_state.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace {

// Every listener thread and the purge thread remove at most one lease at a
// time, so there are never more unlocks under way than threads.
constexpr int kMarks = 128;

struct Mark {
  bool used;
  uint8_t fileCookie[FS_COOKIE_SIZE];
};
Mark s_marks[kMarks];  // guarded by spState.leaseLock, like the count of those used
int s_used = 0;

// spState.leaseLock as a lock that a condition variable can release and retake.
struct ListLock {
  void lock() { OSL_SemDown(kestrix::spState.leaseLock); }
  void unlock() { OSL_SemUp(kestrix::spState.leaseLock); }
};
std::condition_variable_any s_unlocked;

Mark* Find(const uint8_t* fileCookie) {
  if (s_used == 0) return nullptr;  // the common case: no unlock under way
  for (Mark& m : s_marks)
    if (m.used && std::memcmp(m.fileCookie, fileCookie, FS_COOKIE_SIZE) == 0) return &m;
  return nullptr;
}

}  // namespace

namespace kestrix {

bool BeginUnlock(const uint8_t* fileCookie) {
  for (Mark& m : s_marks) {
    if (m.used) continue;
    m.used = true;
    ++s_used;
    std::memcpy(m.fileCookie, fileCookie, FS_COOKIE_SIZE);
    return true;
  }
  return false;
}

void EndUnlock(const uint8_t* fileCookie) {
  {
    SemGuard guard(kestrix::spState.leaseLock);
    if (Mark* m = Find(fileCookie)) {
      m->used = false;
      --s_used;
    }
  }
  s_unlocked.notify_all();
}

void WaitForUnlock(const uint8_t* fileCookie) {
  if (Find(fileCookie) == nullptr) return;
  OSL_Log(KSX_SP, "Lease waits for the unlock of its file\n");
  ListLock lock;
  s_unlocked.wait(lock, [fileCookie] { return Find(fileCookie) == nullptr; });
}

}  // namespace kestrix
