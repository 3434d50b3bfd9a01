// The daemon's main line: options into the process-wide settings, the log,
// the fork into the background, then the LAN server, the service provider
// and the UDP listeners set up one after the other; and the glue between a
// received datagram, the LAN server and the reply it produces.
#include "unixmdc/kestrixd.h"

#include <getopt.h>
#include <pthread.h>
#include <sys/resource.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "sp/dump_info.h"
#include "sp/fsmdcsp.h"
#include "sp/handlers.h"
#include "sp/lease.h"
#include "unixmdc/admin_socket.h"
#include "utils/config.h"
#include "unixmdc/library_timing.h"
#include "unixmdc/loadlib.h"
#include "unixmdc/metrics.h"
#include "utils/ksxmem.h"
#include "utils/kxstats.h"
#include "utils/log.h"
#include "utils/osl.h"

extern "C" {

int g_ListenerThreads = 10;
int g_LocalLogLevel = 2;
char g_LocalLogName[KESTRIXD_LOG_NAME_SIZE] = "";
int g_use_dgramServer_MessageHandler_sem = 1;
void* g_kestrixdsem = nullptr;
LanServerInfo* info = nullptr;

void Usage(const char* programName) {
  fprintf(stderr,
          "Usage: %s [-d] [-l(value)] [-t(value)]\n"
          "-d:noFork (For use with the debugger)\n"
          "-l:loglevel (0-11 defauilt 2)\n"
          "-m:Set the maximum duplicate messages handled. Set to 0 to disable tracker. "
          "(default 100)\n"
          "-s:Use a semaphore around message handler (1 or 0  default 1)\n"
          "-t:listener threads(1-99 default=10)\n",
          programName);
}

// A lock or thread that start-up could not create ends the daemon: a
// missing lock would silently turn every guard of it into a no-op, and
// without the purge thread no lease would ever expire.
static void RequireForStartup(bool created, const char* what) {
  if (created) return;
  OSL_Log(KSX_ERROR, "kestrixd: cannot create %s.\n", what);
  exit(1);
}

// Every file a library holds locked keeps a descriptor open, so the soft
// limit is raised to the hard one: a daemon that runs out of descriptors
// answers every client with an error that blames the mount.
static void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  if (before == limit.rlim_max) return;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    OSL_Log(KSX_ERROR, "kestrixd: cannot raise the open file limit from %llu\n",
            static_cast<unsigned long long>(before));
    return;
  }
  OSL_Log(KSX_SP, "kestrixd: open file limit raised from %llu to %llu\n",
          static_cast<unsigned long long>(before), static_cast<unsigned long long>(limit.rlim_max));
}

// Set when the listener threads hold g_kestrixdsem for the callback.
static bool s_listenerHoldsSem = false;

void DgramServer_MessageHandler(void* data, int length, DgramAddress* sender, void* server) {
  OSL_Log(KSX_SP, "LANSERVER: received data\n");
  uint8_t commCookie[LAN_COMMCOOKIE_SIZE];
  memset(commCookie, 0, sizeof commCookie);
  memcpy(commCookie, &sender->address.sin_addr.s_addr, 4);

  const bool takeSem = g_use_dgramServer_MessageHandler_sem == 1 && !s_listenerHoldsSem;
  if (takeSem) OSL_SemDown(g_kestrixdsem);
  LanHeader* reply =
      LAN_ProcessMessage(data, length, static_cast<LanServerInfo*>(server), commCookie);
  if (reply != nullptr) {
    DGRAM_SendReply(sender, reply, static_cast<int>(reply->length));
    ksxmem_free(reply);
  }
  if (takeSem) OSL_SemUp(g_kestrixdsem);
}

void DgramServer(uint16_t port) {
  kestrix::SetUpServer();
  // With the semaphore on, the listener threads take it before they receive
  // rather than after, so that only its holder waits on the socket.
  if (g_use_dgramServer_MessageHandler_sem == 1) {
    kestrix::SetReceiveLock(g_kestrixdsem);
    s_listenerHoldsSem = true;
  }
  int rc = DGRAM_BindListener(port, DgramServer_MessageHandler, info, g_ListenerThreads);
  if (rc != 0) {
    OSL_Log(KSX_ERROR, "DGRAM_BindListener failed %d.  May be another kestrixd running.\n", rc);
    exit(1);
  }
  OSL_Log(KSX_SP, "kestrixd: setup message handlers.\n");
}

}  // extern "C"

namespace kestrix {

void SetUpServer() {
  LAN_InitServer(&info);
  if (info == nullptr) {
    // Nothing can be served without the LAN server's record.
    OSL_Log(KSX_ERROR, "kestrixd: no memory for the LAN server.\n");
    exit(1);
  }
  RequireForStartup(info->trackerLock != nullptr, "the tracker lock");
  info->addressCompare = DGRAM_CompareAddresses;
  FSMDCSP_Init(FSMDCSP_LoadNextLibrary);
  RequireForStartup(kestrix::ServiceProviderReady(),
                    "the service provider's locks or its lease purge thread");
  if (kestrix::stats::Enabled()) kestrix::TimeLibraryCalls();
  kestrix::RegisterHandlers(info);
}

}  // namespace kestrix

extern "C" {

void startup(void) {
  OSL_Log(KSX_SP, "kestrixd startup() activated\n");
  // SIGUSR1 asks for a state dump; SIGHUP is taken and ignored, since there
  // is nothing to reload. Both are blocked before any thread starts, so
  // every thread inherits the mask and only this one takes them, by sigwait.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  g_kestrixdsem = OSL_SemCreate(1);
  RequireForStartup(g_kestrixdsem != nullptr, "the message semaphore");
  const std::string adminSocket = kestrix::AdminSocketPath();
  const std::string metrics = kestrix::MetricsAddress();
  // Requests are timed only when the admin socket or the metrics can show it.
  kestrix::stats::Enable(!adminSocket.empty() || !metrics.empty());
  DgramServer(kestrix::ServicePort());
  kestrix::StartOperatorInterfaces(adminSocket, metrics);
  OSL_Log(KSX_PRINT, "kestrixd started. Threads:%d Sem:%s Tracker:%d\n", g_ListenerThreads,
          g_use_dgramServer_MessageHandler_sem != 0 ? "TRUE" : "FALSE", g_MaxDuplicateMessages);
  // The socket is bound and the libraries are loaded: tell systemd, when it
  // started us with Type=notify (without NOTIFY_SOCKET this does nothing).
  sd_notify(0, "READY=1");
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGUSR1) kestrix::DumpDaemonState();
    if (signal == SIGHUP) OSL_Log(KSX_PRINT, "kestrixd: SIGHUP ignored, nothing to reload.\n");
  }
}

}  // extern "C"

namespace kestrix {

void StartOperatorInterfaces(const std::string& adminSocket, const std::string& metrics) {
  std::string why;
  if (adminSocket.empty()) {
    // Turned off: nothing to make and nothing to say.
  } else if (StartAdminSocket(adminSocket, &why)) {
    OSL_Log(KSX_PRINT, "kestrixd: admin socket %s\n", LogSafe(adminSocket.c_str()).c_str());
  } else {
    // The daemon serves its clients all the same; only the operator's view is missing.
    OSL_Log(KSX_ERROR, "kestrixd: no admin socket %s: %s\n", LogSafe(adminSocket.c_str()).c_str(),
            why.c_str());
  }
  if (metrics.empty()) return;
  if (!StartMetricsEndpoint(metrics, &why)) {
    // Asked for and not there: as for a taken UDP port, the daemon does not run half-seen.
    OSL_Log(KSX_ERROR, "kestrixd: cannot serve metrics on %s: %s\n",
            LogSafe(metrics.c_str()).c_str(), LogSafe(why.c_str()).c_str());
    exit(1);
  }
  OSL_Log(KSX_PRINT, "kestrixd: metrics on http://%s/metrics\n", LogSafe(metrics.c_str()).c_str());
}

void DumpDaemonState() {
  // The lease list and the duplicate counters, as the debugging handler
  // writes them; the reply it makes is not sent anywhere.
  LanHeader header{};
  header.byteOrder = LAN_BYTEORDER_MARK;
  header.length = LAN_HEADER_SIZE;
  const uint8_t nobody[LAN_COMMCOOKIE_SIZE] = {};
  ksxmem_free(SP_LanDumpInfo(&header, nobody));
  FSULONG answered = 0, inProcess = 0;
  if (info != nullptr) TrackerCounts(info, &answered, &inProcess);
  uint32_t total = 0, zero = 0;
  ksxmem_stats(&total, &zero);
  OSL_Log(KSX_PRINT,
          "State: leases %d, tracker %u answered %u in process (bound %d), allocator total %u\n",
          LeaseCount(), answered, inProcess, g_MaxDuplicateMessages, total);
}

Options ParseOptions(int argc, char** argv) {
  Options options;
  g_ListenerThreads = 10;
  g_LocalLogLevel = 2;
  g_LocalLogName[0] = '\0';
  g_use_dgramServer_MessageHandler_sem = 1;
  g_MaxDuplicateMessages = 100;

  optind = 0;  // a fresh scan, also when called more than once in a process
  int c;
  // With '+' getopt ends at the first non-option word and leaves the order
  // of argv alone.
  while ((c = getopt(argc, argv, "+dl:s:t:m:f:?")) != -1) {
    switch (c) {
      case 'd':
        ++options.foregroundCount;
        break;
      case 'l': {
        int level = atoi(optarg);
        if (level >= 0 && level <= 11) g_LocalLogLevel = level;
        break;
      }
      case 'm': {
        int bound = atoi(optarg);
        g_MaxDuplicateMessages = bound < 0 ? 0 : (bound > 2000 ? 2000 : bound);
        break;
      }
      case 's': {
        int sem = atoi(optarg);
        g_use_dgramServer_MessageHandler_sem = (sem == 0 || sem == 1) ? sem : 1;
        break;
      }
      case 't': {
        int threads = atoi(optarg);
        if (threads >= 100) g_ListenerThreads = 99;
        else if (threads >= 1) g_ListenerThreads = threads;
        break;
      }
      case 'f':
        // A name that does not fit is refused rather than cut to another file.
        if (strlen(optarg) >= KESTRIXD_LOG_NAME_SIZE) {
          options.ok = false;
          return options;
        }
        strcpy(g_LocalLogName, optarg);
        options.logNameGiven = true;
        break;
      default:
        options.ok = false;
        return options;
    }
  }
  return options;
}

}  // namespace kestrix

int KestrixdMain(int argc, char** argv) {
  kestrix::Options options = kestrix::ParseOptions(argc, argv);
  if (!options.ok) {
    Usage(argv[0]);
    exit(1);
  }
  OSL_SetLog(&g_LocalLogLevel, options.logNameGiven ? g_LocalLogName : nullptr, "kestrixd");
  OSL_Log(KSX_PRINT, "Kestrix mdc daemon logging started.\n");
  if (options.foregroundCount == 0) {
    pid_t pid = fork();
    if (pid != 0) exit(0);  // the parent, or no child at all
  }
  RaiseDescriptorLimit();
  startup();
}
