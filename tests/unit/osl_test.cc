#include "utils/osl.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "gtest/gtest.h"
#include "support/test_util.h"
#include "utils/ksxmem.h"

namespace {

using kestrix::test::CountOf;
using kestrix::test::LogCapture;

TEST(OslSemTest, CreateTakesTrackedStorage) {
  const int32_t before = g_kmemstat;
  void* sem = OSL_SemCreate(1);
  ASSERT_NE(sem, nullptr);
  char name[5];
  EXPECT_STREQ(ksxmem_gettag(sem, name), "SEMC");
  EXPECT_GE(OSL_SemSize(), 1);
  EXPECT_GT(g_kmemstat, before);
  EXPECT_EQ(OSL_SemIsTaken(sem), 0);
  OSL_SemDestroy(sem);
  EXPECT_EQ(g_kmemstat, before);
}

TEST(OslSemTest, SecondDownWaitsForUp) {
  void* sem = OSL_SemCreate(1);
  ASSERT_NE(sem, nullptr);
  ASSERT_EQ(OSL_SemDown(sem), 0);  // first take does not block
  EXPECT_EQ(OSL_SemIsTaken(sem), 0);

  std::atomic<bool> started{false};
  std::atomic<bool> acquired{false};
  std::atomic<int> result{99};
  std::thread waiter([&] {
    started = true;
    result = OSL_SemDown(sem);
    acquired = true;
    OSL_SemUp(sem);
  });
  while (!started) std::this_thread::yield();
  EXPECT_FALSE(acquired.load());  // the lock is still ours
  EXPECT_EQ(OSL_SemUp(sem), 0);
  waiter.join();
  EXPECT_TRUE(acquired.load());
  EXPECT_EQ(result.load(), 0);
  OSL_SemDestroy(sem);
}

std::atomic<int> g_signals{0};
void CountSignal(int) { ++g_signals; }

TEST(OslSemTest, SignalDoesNotEndTheWait) {
  struct sigaction action = {};
  action.sa_handler = CountSignal;  // no SA_RESTART: the wait sees EINTR
  sigemptyset(&action.sa_mask);
  struct sigaction previous;
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

  void* sem = OSL_SemCreate(1);
  ASSERT_EQ(OSL_SemDown(sem), 0);
  std::atomic<bool> started{false};
  std::atomic<bool> acquired{false};
  std::atomic<int> result{99};
  std::thread waiter([&] {
    started = true;
    result = OSL_SemDown(sem);
    acquired = true;
  });
  while (!started) std::this_thread::yield();
  // Deliver several signals so that at least some land inside the wait.
  for (int i = 0; i < 20; ++i) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    usleep(2000);
  }
  while (g_signals.load() == 0) std::this_thread::yield();
  EXPECT_FALSE(acquired.load());
  OSL_SemUp(sem);
  waiter.join();
  EXPECT_EQ(result.load(), 0);
  OSL_SemUp(sem);
  OSL_SemDestroy(sem);
  sigaction(SIGUSR1, &previous, nullptr);
}

TEST(OslSemTest, CreationFailures) {
  LogCapture log(2);
  EXPECT_EQ(OSL_SemCreateM(1, nullptr), -1);
  EXPECT_EQ(CountOf(log.Text(), "Error OSL_SemCreateM failed to create semaphore. ["), 1);
  EXPECT_EQ(CountOf(log.Text(), "]\n"), 1);

  // No storage from the allocator: both lines, null, nothing held.
  void* warm = OSL_SemCreate(1);  // sets up the allocator and its lock
  const int32_t before = g_kmemstat;
  log.Clear();
  kestrix::FailGetmem(1);
  EXPECT_EQ(OSL_SemCreate(1), nullptr);
  kestrix::FailGetmem(0, 0);
  EXPECT_EQ(CountOf(log.Text(), "Error sol_ksxmem malloc failed size:"), 1);
  EXPECT_EQ(CountOf(log.Text(), " tag:SEMC\n"), 1);
  EXPECT_EQ(CountOf(log.Text(), "Error OSL_SemCreateM failed to create semaphore. ["), 1);
  EXPECT_EQ(g_kmemstat, before);
  OSL_SemDestroy(warm);
}

TEST(OslProcessTest, SleepWithNothingToWaitReturns) {
  // A negative value must not turn into a huge unsigned sleep.
  OSL_SleepMS(-5);
  OSL_SleepMS(INT32_MIN);
  OSL_SleepMS(0);
  OSL_SleepMS(1);
  SUCCEED();
}

uint32_t FixedClock() { return 4242000u; }

TEST(OslProcessTest, MillisecondClock) {
  kestrix::SetClockForTesting(FixedClock);
  EXPECT_EQ(OSL_MSeconds(), 4242000u);
  kestrix::SetClockForTesting(nullptr);

  // Whole seconds times 1000, wrapping in 32 bits.
  const time_t before = time(nullptr);
  const uint32_t first = OSL_MSeconds();
  const uint32_t second = OSL_MSeconds();
  const time_t after = time(nullptr);
  const uint32_t low = static_cast<uint32_t>(before) * 1000u;
  const uint32_t high = static_cast<uint32_t>(after) * 1000u;
  EXPECT_TRUE(first == low || first == high) << first;
  EXPECT_TRUE(second == low || second == high) << second;
  EXPECT_EQ((second - first) % 1000u, 0u);
}

TEST(OslProcessTest, CreatedThreadRunsWithItsArgument) {
  static std::atomic<void*> seen{nullptr};
  void* sem = OSL_SemCreate(1);
  OSL_SemDown(sem);
  auto start = [](void* argument) -> void* {
    seen = argument;
    OSL_SemUp(argument);
    return nullptr;
  };
  EXPECT_EQ(OSL_CreateThread(start, sem), 0);
  OSL_SemDown(sem);  // released by the new thread
  EXPECT_EQ(seen.load(), sem);
  OSL_SemUp(sem);
  OSL_SemDestroy(sem);
}

void* g_released = nullptr;
int32_t g_releasedSize = 0;
void RecordRelease(void* p, int32_t size) {
  g_released = p;
  g_releasedSize = size;
}

TEST(OslProcessTest, RawMemoryAndFailureInjection) {
  kestrix::FailGetmem(2, 2);
  void* calls[5];
  for (void*& c : calls) c = OSL_getmem(32);
  kestrix::FailGetmem(0, 0);
  EXPECT_NE(calls[0], nullptr);
  EXPECT_EQ(calls[1], nullptr);
  EXPECT_EQ(calls[2], nullptr);
  EXPECT_NE(calls[3], nullptr);
  EXPECT_NE(calls[4], nullptr);
  void* afterOff = OSL_getmem(32);
  EXPECT_NE(afterOff, nullptr);

  kestrix::SetFreememObserverForTesting(RecordRelease);
  OSL_freemem(calls[0], 12345);  // the size is passed on, not used
  EXPECT_EQ(g_released, calls[0]);
  EXPECT_EQ(g_releasedSize, 12345);
  kestrix::SetFreememObserverForTesting(nullptr);
  OSL_freemem(calls[3], 0);
  OSL_freemem(calls[4], -1);
  OSL_freemem(afterOff, 32);
}

}  // namespace
