// Process services of the operating-system layer: sleeping, the
// millisecond clock, threads, the environment and raw memory for the
// tracking allocator, with the hooks the tests use to steer them.
#include <pthread.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>

#include "utils/osl_unix_user.h"

namespace {

std::atomic<uint32_t (*)(void)> s_clock{nullptr};
std::atomic<void (*)(void*, int32_t)> s_freememObserver{nullptr};

// Failure injection for OSL_getmem: calls numbered from the last
// FailGetmem; those in [s_failFirst, s_failEnd) return null.
std::atomic<bool> s_failArmed{false};
std::atomic<int64_t> s_getmemCalls{0};
std::atomic<int64_t> s_failFirst{0};
std::atomic<int64_t> s_failEnd{0};

bool ShouldFailGetmem() {
  if (!s_failArmed.load(std::memory_order_acquire)) return false;
  const int64_t call = s_getmemCalls.fetch_add(1) + 1;
  return call >= s_failFirst.load() && call < s_failEnd.load();
}

}  // namespace

extern "C" {

void OSL_SleepMS(int32_t milliseconds) {
  if (milliseconds <= 0) return;
  usleep(static_cast<useconds_t>(static_cast<uint32_t>(milliseconds) * 1000u));
}

uint32_t OSL_MSeconds(void) {
  if (uint32_t (*clock)(void) = s_clock.load()) return clock();
  struct timeval now;
  int result = gettimeofday(&now, nullptr);
  if (result != 0) return static_cast<uint32_t>(result);
  // Whole seconds only, wrapping in 32 bits: differences are multiples of 1000.
  return static_cast<uint32_t>(now.tv_sec) * 1000u;
}

int32_t OSL_CreateThread(void* (*start)(void*), void* argument) {
  pthread_t thread;
  return pthread_create(&thread, nullptr, start, argument);
}

char* OSL_GetEnv(const char* name) { return getenv(name); }

void* OSL_getmem(uint32_t size) {
  if (ShouldFailGetmem()) return nullptr;
  return malloc(size);
}

void OSL_freemem(void* p, int32_t size) {
  if (void (*observer)(void*, int32_t) = s_freememObserver.load()) observer(p, size);
  free(p);
}

int32_t OSL_GetProcessId(void) { return static_cast<int32_t>(getpid()); }

}  // extern "C"

namespace kestrix {

void FailGetmem(int nth, int count) {
  s_failArmed.store(false, std::memory_order_release);
  if (nth <= 0 || count <= 0) return;
  s_getmemCalls.store(0);
  s_failFirst.store(nth);
  s_failEnd.store(static_cast<int64_t>(nth) + count);
  s_failArmed.store(true, std::memory_order_release);
}

void SetClockForTesting(uint32_t (*clock)(void)) { s_clock.store(clock); }

void SetFreememObserverForTesting(void (*observer)(void* p, int32_t size)) { s_freememObserver.store(observer); }

}  // namespace kestrix
