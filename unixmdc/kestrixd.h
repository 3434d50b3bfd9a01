// The daemon's main line: options, start-up order, and the glue between
// the UDP listeners and the LAN server.
#ifndef KESTRIX_UNIXMDC_KESTRIXD_H_
#define KESTRIX_UNIXMDC_KESTRIXD_H_

#include <stdint.h>

#ifdef __cplusplus
#include <string>
#endif

#include "utils/dgram.h"
#include "utils/lanserver.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { KESTRIXD_LOG_NAME_SIZE = 100 };

extern int g_ListenerThreads;
extern int g_LocalLogLevel;
extern char g_LocalLogName[KESTRIXD_LOG_NAME_SIZE];
extern int g_use_dgramServer_MessageHandler_sem;
extern void* g_kestrixdsem;
extern LanServerInfo* info;

void Usage(const char* programName);
void startup(void) __attribute__((noreturn));
void DgramServer(uint16_t port);
void DgramServer_MessageHandler(void* data, int length, DgramAddress* sender, void* server);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

// Outcome of reading the command line.
struct Options {
  bool ok = true;         // false: print the usage text and exit 1
  int foregroundCount = 0;
  bool logNameGiven = false;
};

// Sets the defaults, then reads the options into the process-wide settings.
Options ParseOptions(int argc, char** argv);

// The LAN server, the service provider and the handler of each function
// code, everything the daemon serves with except the socket. Ends the
// process when a lock or the lease purge thread cannot be created.
void SetUpServer();

// The admin socket at adminSocket (none when empty) and the metrics endpoint
// at metrics (none when empty), once the UDP socket is bound. A socket that
// cannot be made is logged and left out; metrics that cannot be served end
// the process with status 1.
void StartOperatorInterfaces(const std::string& adminSocket, const std::string& metrics);

// What SIGUSR1 asks for: the lease list and duplicate counters through
// SP_LanDumpInfo, then one Print line with the counts of leases and tracker
// entries and the allocator's total.
void DumpDaemonState();

}  // namespace kestrix

// Whole program: options, log, fork, start-up. Returns only on a usage error.
int KestrixdMain(int argc, char** argv);
#endif

#endif  // KESTRIX_UNIXMDC_KESTRIXD_H_
