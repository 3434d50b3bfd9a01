// The GetInitialMap handler called in-process for what a client cannot
// cause: a name area that runs into the bytes after it.
#include <gtest/gtest.h>

#include "client/kxclient.h"
#include "sp/handlers.h"
#include "spmsgs.h"
#include "utils/ksxmem.h"

namespace kestrix::test {
namespace {

constexpr uint8_t kComm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

// A name area without a zero unit: nothing past it is read or rewritten.
TEST(MapHandlersTest, UnterminatedNameAreaStaysInside) {
  client::Bytes names = client::MakeGetInitialMapRequest("/m", "");
  names.resize(names.size() + 32);
  for (size_t at = 118; at < names.size(); at += 2) names[at] = '\\';
  auto* reply = reinterpret_cast<GetInitialMapReply*>(
      SP_LanGetInitialMap(reinterpret_cast<LanHeader*>(names.data()), kComm));
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_NO_LIBRARY);
  ksxmem_free(reply);
  for (size_t at = sizeof(GetInitialMapMsg); at < names.size(); at += 2)
    EXPECT_EQ(names[at], '\\') << "byte " << at << " past the request was rewritten";
}

}  // namespace
}  // namespace kestrix::test
