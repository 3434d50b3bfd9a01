// The LAN server seen from the wire: header errors, byte order, duplicate
// detection and the transport's handling of odd datagrams.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::HeaderOf;
using client::MakeRequest;

class LanServerE2E : public PluginDaemonTest {};

TEST_F(LanServerE2E, BadHeadersAreAnsweredAtTheLanLevel) {
  Start({"-l", "4"});
  Bytes shortOne = MakeRequest(3, 47, 0, "id-47");  // reserved bytes come back unchanged
  shortOne[40] = 0xAB;
  shortOne[47] = 0xCD;
  HeaderOf(shortOne)->revision = 77;
  EXPECT_EQ(Ask(shortOne), ExpectedLanReply(shortOne, 6));
  for (int32_t code : {0, 99, -1, INT32_MIN, INT32_MAX}) {
    const Bytes request = MakeRequest(code, 48, 0, "code");
    EXPECT_EQ(Ask(request), ExpectedLanReply(request, 8)) << code;
  }
  // The other byte order (marker 1 or anything else) is converted once and
  // answered in the daemon's order.
  for (uint32_t marker : {1u, 2u}) {
    Bytes request = MakeRequest(6, 48, 0, "swapped"), hostOrder = request;
    HeaderOf(hostOrder)->pathSeparator = u'/';
    HeaderOf(hostOrder)->revision = 0x01020304;
    request = hostOrder;
    client::SwapHeader(request);
    client::Write<uint32_t>(request, 0, marker == 1 ? 0x01000000u : marker);
    EXPECT_EQ(Ask(request), ExpectedLanReply(hostOrder, 8)) << marker;
  }
  Bytes big = MakeRequest(6, 2000, 0, "big");
  HeaderOf(big)->length = 4000;
  EXPECT_EQ(HeaderOf(Ask(big))->result, 8);
  EXPECT_TRUE(daemon_.WaitForLog("LANSERVER: header length 4000;receive length mismatch 2000\n"));
  // Ten bytes: the length lies past them and reads as 0, not as the 4000 left before.
  Bytes tiny = MakeRequest(6, 48, 0, "");
  tiny.resize(10);
  const Bytes reply = Ask(tiny);
  EXPECT_EQ(std::tuple(reply.size(), HeaderOf(reply)->result, HeaderOf(reply)->functionCode),
            std::tuple(48u, 6, 0));
  EXPECT_TRUE(daemon_.WaitForLog(
      "LANSERVER: invalid message length, min allowed message length 48 length received 0\n"));
  // An empty datagram is logged and not answered; a reply would be sent by the time of the line.
  ASSERT_TRUE(endpoint_->Send(Bytes{}));
  EXPECT_TRUE(daemon_.WaitForLog("DGRAM: failed recvfrom:0\n"));
  EXPECT_FALSE(endpoint_->Receive(300).has_value());
}

// Only copies with flag bit 0 are looked up, and none with -m 0.
TEST_F(LanServerE2E, TrackedCopiesAreAnsweredFromTheTrackerUnlessItIsOff) {
  for (const char* bound : {"100", "0"}) {
    daemon_.Stop();
    std::remove(daemon_.logPath().c_str());
    Start({"-l", "4", "-m", bound});
    for (uint32_t flags : {1u, 0u}) {
      const Bytes request = MakeRequest(6, 48, flags, "dup" + std::to_string(flags));
      Ask(request), Ask(request);
    }
    EXPECT_EQ(CountOf(daemon_.Log(), "LAN_HandleDuplicate: Found duplicate message. id:"),
              bound[0] == '0' ? 0 : 1);
    EXPECT_EQ(CountOf(daemon_.Log(), "duplicate detection is DISABLED.\n"), bound[0] == '0');
  }
}

}  // namespace
}  // namespace kestrix::test
