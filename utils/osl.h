// Operating-system layer: semaphores, sleeps, the millisecond clock,
// threads, environment and raw memory for the tracking allocator.
#ifndef KESTRIX_UTILS_OSL_H_
#define KESTRIX_UTILS_OSL_H_

#include "utils/plugin_api.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Semaphores (utils/osl_sem.cc). A handle points at a platform semaphore;
// every semaphore starts with the count 1 and serves as a lock.
int32_t OSL_SemSize(void);
void* OSL_SemCreate(int32_t scope);
int32_t OSL_SemCreateM(int32_t scope, void* storage);
int32_t OSL_SemDown(void* sem);
int32_t OSL_SemDownInterruptible(void* sem);
int32_t OSL_SemUp(void* sem);
int32_t OSL_SemIsTaken(void* sem);
void OSL_SemDestroyM(void* sem);
KESTRIX_FOR_PLUGINS void OSL_SemDestroy(void* sem);

// Process services (utils/osl_unix_user.cc).
void OSL_SleepMS(int32_t milliseconds);
uint32_t OSL_MSeconds(void);
int32_t OSL_CreateThread(void* (*start)(void*), void* argument);
char* OSL_GetEnv(const char* name);
void* OSL_getmem(uint32_t size);
void OSL_freemem(void* p, int32_t size);
int32_t OSL_GetProcessId(void);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

// Holds an OSL semaphore for the lifetime of the guard.
class SemGuard {
 public:
  explicit SemGuard(void* sem) : sem_(sem) { OSL_SemDown(sem_); }
  ~SemGuard() { OSL_SemUp(sem_); }
  SemGuard(const SemGuard&) = delete;
  SemGuard& operator=(const SemGuard&) = delete;

 private:
  void* sem_;
};

// Test hooks. None is active unless a test sets it.
// Makes the nth OSL_getmem call from now (1 = the next) and the count-1
// calls after it return null; FailGetmem(0, 0) switches failures off.
void FailGetmem(int nth, int count = 1);
// Replaces the wall clock behind OSL_MSeconds; null restores it.
void SetClockForTesting(uint32_t (*clock)(void));
// Called with the pointer and size just before OSL_freemem releases memory.
void SetFreememObserverForTesting(void (*observer)(void* p, int32_t size));

}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_OSL_H_
