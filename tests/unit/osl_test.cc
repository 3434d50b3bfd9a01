// The OSL semaphore: a wait that only SemUp ends, whatever signals arrive.
#include "utils/osl.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
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
  EXPECT_EQ(OSL_SemDown(nullptr) + OSL_SemUp(nullptr), -2);  // a lock never made
  sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
