// The OS layer's process services: sleeps, the millisecond clock, threads,
// the environment and the raw memory under the tracking allocator, with
// the hooks tests use to fake the clock and failing memory.
#ifndef KESTRIX_UTILS_OSL_UNIX_USER_H_
#define KESTRIX_UTILS_OSL_UNIX_USER_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

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

#endif  // KESTRIX_UTILS_OSL_UNIX_USER_H_
