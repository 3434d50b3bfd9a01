// Tests of the OSL layer: a semaphore wait that only SemUp ends, and the clock hook.
#include "utils/osl.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "gtest/gtest.h"

namespace {

std::atomic<int> g_signals{0};
void CountSignal(int) { ++g_signals; }

TEST(OslSemTest, SecondDownWaitsForUpThroughSignals) {
  struct sigaction action = {}, previous;
  action.sa_handler = CountSignal;  // no SA_RESTART: the wait sees EINTR
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

  void* sem = OSL_SemCreate(1);
  ASSERT_EQ(OSL_SemDown(sem), 0);  // the first take does not block
  std::atomic<bool> acquired{false};
  std::atomic<int> result{99};
  std::thread waiter([&] {
    result = OSL_SemDown(sem);
    acquired = true;
  });
  for (int i = 0; i < 20; ++i) {  // several, so that some land inside the wait
    pthread_kill(waiter.native_handle(), SIGUSR1);
    usleep(2000);
  }
  while (g_signals.load() == 0 && !acquired.load()) std::this_thread::yield();
  EXPECT_FALSE(acquired.load());
  EXPECT_EQ(OSL_SemUp(sem), 0);
  waiter.join();
  EXPECT_EQ(result.load(), 0);
  OSL_SemUp(sem);
  OSL_SemDestroy(sem);
  sigaction(SIGUSR1, &previous, nullptr);
}

uint32_t FixedClock() { return 4242000u; }

TEST(OslProcessTest, ClockHookAndWholeSecondsOtherwise) {
  kestrix::SetClockForTesting(FixedClock);
  EXPECT_EQ(OSL_MSeconds(), 4242000u);
  kestrix::SetClockForTesting(nullptr);
  using Wall = std::chrono::system_clock;  // the fine wall clock; time() may lag it by a tick
  const uint32_t before = static_cast<uint32_t>(Wall::to_time_t(Wall::now())) * 1000u;
  const uint32_t now = OSL_MSeconds();  // whole seconds, wrapping
  const uint32_t after = static_cast<uint32_t>(Wall::to_time_t(Wall::now())) * 1000u;
  EXPECT_TRUE(now == before || now == after) << now;
}

}  // namespace
