// Start-up failures of the daemon core that no client can provoke.
#include "unixmdc/kestrixd.h"

#include <gtest/gtest.h>

#include "support/daemon_process.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

// The allocations of DgramServer, in order: the LAN server's record, the
// tracker lock, the dispatcher lock, the lease list lock. Each one missing
// ends start-up with status 1 and a line that names it.
TEST(KestrixdDeathTest, StartupWithoutItsRecordOrALockEndsWithStatus1) {
  TempDir noLibraries;
  setenv("KESTRIX_LIBDIR", noLibraries.path().c_str(), 1);
  const std::string locks = "cannot create the service provider's locks or its lease purge thread";
  for (auto [failing, line] : {std::pair<int, std::string>{1, "no memory for the LAN server"},
                               {2, "cannot create the tracker lock"}, {3, locks}, {4, locks}}) {
    LogCapture log(2);
    EXPECT_EXIT((FailGetmem(failing), DgramServer(FreeLoopbackPort())),
                ::testing::ExitedWithCode(1), "");
    EXPECT_TRUE(log.Contains("Error kestrixd: " + line + ".\n")) << failing << ": " << log.Text();
  }
}

}  // namespace
}  // namespace kestrix::test
