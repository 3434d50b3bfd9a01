// Process entry of kestrixd.
#include "unixmdc/kestrixd.h"

#ifdef KESTRIX_COVERAGE
#include <signal.h>
#include <unistd.h>

extern "C" void __gcov_dump(void);

// Coverage builds only: the daemon has no orderly shutdown, so a SIGTERM
// writes the coverage counters before the process ends.
static void DumpCoverageAndExit(int) {
  __gcov_dump();
  _exit(0);
}
#endif

int main(int argc, char** argv) {
#ifdef KESTRIX_COVERAGE
  signal(SIGTERM, DumpCoverageAndExit);
#endif
  return KestrixdMain(argc, argv);
}
