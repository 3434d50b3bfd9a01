// Start-up failures of the daemon core that no client can provoke.
#include "unixmdc/kestrixd.h"

#include <gtest/gtest.h>

#include "support/daemon_process.h"
#include "support/test_util.h"
#include "utils/osl.h"

namespace kestrix {
namespace {

// The allocations of DgramServer, in order: the LAN server's record, the
// tracker lock, the dispatcher lock, the lease list lock. Each one missing
// ends start-up with status 1 and a line that names it.
TEST(KestrixdDeathTest, StartupWithoutItsRecordOrALockEndsWithStatus1) {
  test::TempDir noLibraries;
  setenv("KESTRIX_LIBDIR", noLibraries.path().c_str(), 1);
  const struct {
    int failingAllocation;
    const char* line;
  } cases[] = {
      {1, "Error kestrixd: no memory for the LAN server.\n"},
      {2, "Error kestrixd: cannot create the tracker lock.\n"},
      {3, "Error kestrixd: cannot create the service provider's locks or its lease purge thread.\n"},
      {4, "Error kestrixd: cannot create the service provider's locks or its lease purge thread.\n"},
  };
  for (const auto& c : cases) {
    test::LogCapture log(2);
    EXPECT_EXIT(
        {
          FailGetmem(c.failingAllocation);
          DgramServer(test::FreeUdpPort());
        },
        ::testing::ExitedWithCode(1), "");
    EXPECT_TRUE(log.Contains(c.line)) << c.failingAllocation << ": " << log.Text();
  }
}

}  // namespace
}  // namespace kestrix
