// Conversion errors of client text: one line per text, whatever its length.
#include <stdlib.h>

#include <gtest/gtest.h>

#include "client/kxclient.h"
#include "sp/handlers.h"
#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/log.h"

namespace kestrix::test {
namespace {

// A share name of 1023 lone high surrogates once made GetVolume write 2,048
// Error lines at the default level.
TEST(ConversionErrorsTest, BrokenUnitsOfOneTextCostOneLine) {
  LogCapture log(KSX_ERROR);
  setenv("KESTRIX_SMBPATH", "/nonexistent/smb.conf", 1);
  client::Bytes request = client::MakeGetVolumeRequest("");
  for (size_t i = 0; i < 1023; ++i) client::Write<uint16_t>(request, 180 + 2 * i, 0xD800);
  ksxmem_free(SP_LanGetVolume(reinterpret_cast<LanHeader*>(request.data()), nullptr));
  // The two conversion lines, the missing smb.conf, the share not found.
  EXPECT_EQ(CountOf("\n" + log.Text(), "\nError "), 4);
  EXPECT_TRUE(log.Contains("Error utf16array_to_utf8asciz: 1022 invalid surrogates in one text, "
                           "the first d800 , d800 \n"));
}

}  // namespace
}  // namespace kestrix::test
