// Start-up failures of the daemon core that no client can provoke.
#include "unixmdc/kestrixd.h"

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "utils/osl.h"

namespace kestrix {
namespace {

TEST(KestrixdDeathTest, NoMemoryForTheLanServerEndsWithStatus1) {
  test::LogCapture log(2);
  EXPECT_EXIT(
      {
        FailGetmem(1);
        DgramServer(1);
      },
      ::testing::ExitedWithCode(1), "");
  EXPECT_TRUE(log.Contains("Error kestrixd: no memory for the LAN server.\n"));
}

}  // namespace
}  // namespace kestrix
