// Kernel leases on locked files and the thread that answers their breaks;
// see leases.h.
//
// The lease signal is a real-time signal nobody else handles. Its handler
// only wakes the watcher, so it is harmless in whichever thread it runs;
// each lease directs it at the watcher thread, which alone unblocks it. The
// watcher also looks at every lease once a second, so a lost wake-up delays
// a withdrawal by a second at most.
#include "plugins/localfs/leases.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <mutex>
#include <thread>

#include "plugins/localfs/lfs_util.h"
#include "utils/log.h"

namespace localfs {

namespace {

constexpr int kScanMilliseconds = 1000;
constexpr int kFirstSignalOffset = 8;  // above the real-time signals others tend to take

std::atomic<int> g_signal{0};
std::atomic<pid_t> g_watcher{0};
int g_wake = -1;

void OnLeaseSignal(int) {
  const int saved = errno;
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t n = write(g_wake, &one, sizeof one);
  errno = saved;
}

// A real-time signal whose disposition is still the default.
int FreeSignal() {
  for (int s = SIGRTMIN + kFirstSignalOffset; s <= SIGRTMAX; ++s) {
    struct sigaction old = {};
    if (sigaction(s, nullptr, &old) == 0 && (old.sa_flags & SA_SIGINFO) == 0 &&
        old.sa_handler == SIG_DFL)
      return s;
  }
  return 0;
}

// Marks withdrawn every locked file whose lease the kernel is breaking (or
// has taken away): it then reports a lease other than the one taken.
void Scan(LockTable* table) {
  for (const OpenFile& file : table->All()) {
    if (file->withdrawn.load() || fcntl(file->fd.get(), F_GETLEASE) == file->leaseType) continue;
    file->withdrawn = true;
    // A server-side program opening a file clients use is ordinary work
    // (a reader right after a client's close, a backup), not a fault.
    OSL_Log(KSX_INFO,
            "localfs: a local process waits to change %s; its maps are refused until they end\n",
            Escaped(PathOf(file->fd.get())).c_str());
  }
}

void Watch(LockTable* table, int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  g_watcher = gettid();
  for (;;) {
    struct pollfd wake = {g_wake, POLLIN, 0};
    poll(&wake, 1, kScanMilliseconds);
    uint64_t count = 0;
    [[maybe_unused]] ssize_t n = read(g_wake, &count, sizeof count);
    Scan(table);
  }
}

}  // namespace

bool StartLeaseWatcher(LockTable* table) {
  static std::once_flag once;
  std::call_once(once, [table] {
    g_wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    const int signal = FreeSignal();
    struct sigaction action = {};
    action.sa_handler = OnLeaseSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (g_wake < 0 || signal == 0 || sigaction(signal, &action, nullptr) != 0) {
      OSL_Log(KSX_ERROR, "localfs: no signal for file leases; every map is refused\n");
      return;
    }
    try {
      std::thread(Watch, table, signal).detach();
    } catch (const std::system_error&) {
      OSL_Log(KSX_ERROR, "localfs: no thread to watch file leases; every map is refused\n");
      return;
    }
    while (g_watcher.load() == 0) std::this_thread::yield();
    g_signal = signal;
  });
  return g_signal.load() != 0;
}

int TakeLease(int fd, int type) {
  const int signal = g_signal.load();
  if (signal == 0) return -ENOLCK;
  if (fcntl(fd, F_SETSIG, signal) != 0 || fcntl(fd, F_SETLEASE, type) != 0) return -errno;
  // Taking the lease made the whole process the signal's target.
  struct f_owner_ex owner = {F_OWNER_TID, g_watcher.load()};
  fcntl(fd, F_SETOWN_EX, &owner);
  return 0;
}

void ReleaseLease(int fd) { fcntl(fd, F_SETLEASE, F_UNLCK); }

int LeaseBreakSeconds() {
  int seconds = -1;
  std::ifstream("/proc/sys/fs/lease-break-time") >> seconds;
  return seconds;
}

}  // namespace localfs
