// The GetVolume handler called in-process for what a client cannot cause:
// a path area that runs into the bytes after it.
#include <string.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "sp/fsmdcsp.h"
#include "sp/handlers.h"
#include "spmsgs.h"
#include "utils/ksxmem.h"

namespace kestrix::test {
namespace {

constexpr uint8_t kComm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

TEST(GetVolumeTest, PathWithoutTerminatorStaysInsideItsArea) {
  InitDispatchList();
  // The request sits in a larger receive buffer whose next units are backslashes too.
  std::vector<FSUNI> buffer(sizeof(GetVolumeMsg) / 2 + 16, '\\');
  buffer.back() = 0;
  auto* msg = reinterpret_cast<GetVolumeMsg*>(buffer.data());
  memset(msg, 0, offsetof(GetVolumeMsg, path));
  msg->header.byteOrder = LAN_BYTEORDER_MARK;
  auto* reply = reinterpret_cast<GetVolumeReply*>(SP_LanGetVolume(&msg->header, kComm));
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_NO_LIBRARY);
  ksxmem_free(reply);
  EXPECT_EQ(std::count(buffer.begin() + sizeof(GetVolumeMsg) / 2, buffer.end() - 1, '\\'), 15);
}

}  // namespace
}  // namespace kestrix::test
