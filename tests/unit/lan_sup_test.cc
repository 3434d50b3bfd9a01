// The header print for plug-ins; the converter and the dump are exercised by
// the LAN server's end-to-end tests and the message dumps.
#include "utils/lan_sup.h"

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace kestrix {
namespace {

TEST(LanSupTest, PrintWritesTheHeaderAtPrintLevel) {
  test::LogCapture log(1);
  LanHeader h{};
  h.functionCode = -2;
  h.messageID[0] = 0x12, h.messageID[1] = 0xA0;
  LANSUP_PrintLanHeader(&h);
  EXPECT_EQ(log.Lines().at(0), "Print Header information for message");
  EXPECT_TRUE(log.Contains("Print functionCode -2\n"));
  EXPECT_TRUE(log.Contains("Print messageID 12 A\n"));  // trailing zero digits trimmed
}

}  // namespace
}  // namespace kestrix
