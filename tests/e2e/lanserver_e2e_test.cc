// The LAN server seen from the wire: header errors, byte order, duplicate
// detection and the transport's handling of odd datagrams.
#include <gtest/gtest.h>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::Endpoint;
using client::HeaderOf;
using client::MakeRequest;

class LanServerE2E : public ::testing::Test {
 protected:
  void StartDaemon(std::vector<std::string> args = {"-l", "4"}) {
    ASSERT_TRUE(daemon_.Start(args)) << daemon_.Log();
    endpoint_ = std::make_unique<Endpoint>("127.0.0.1", daemon_.port());
    ASSERT_TRUE(endpoint_->ok());
  }
  Bytes Ask(const Bytes& request) {
    auto reply = endpoint_->Transact(request);
    EXPECT_TRUE(reply.has_value()) << "no reply";
    return reply.value_or(Bytes{});
  }

  DaemonProcess daemon_;
  std::unique_ptr<Endpoint> endpoint_;
};

TEST_F(LanServerE2E, LengthBelowHeaderGetsResult6) {
  StartDaemon();
  Bytes request = MakeRequest(3, 47, 0, "id-47");
  HeaderOf(request)->revision = 77;
  request[40] = 0xAB;  // reserved bytes come back unchanged
  request[47] = 0xCD;
  Bytes reply = Ask(request);
  EXPECT_EQ(reply, ExpectedLanReply(request, 6));
  EXPECT_EQ(HeaderOf(reply)->functionCode, -3);
  EXPECT_TRUE(daemon_.WaitForLog(
      "LANSERVER: invalid message length, min allowed message length 48 length received 47\n"));
}

TEST_F(LanServerE2E, CodesWithoutHandlerGetResult8) {
  StartDaemon();
  for (int code : {0, 6, 99, 100, -1, 12345}) {
    Bytes request = MakeRequest(code, 48, 0, "code" + std::to_string(code));
    Bytes reply = Ask(request);
    EXPECT_EQ(reply, ExpectedLanReply(request, 8)) << "code " << code;
  }
}

TEST_F(LanServerE2E, OtherByteOrderIsConvertedOnceAndAnsweredInDaemonOrder) {
  StartDaemon();
  Bytes request = MakeRequest(6, 48, 0, "swapped");
  HeaderOf(request)->revision = 0x01020304;
  HeaderOf(request)->pathSeparator = u'/';
  HeaderOf(request)->result = 0x55;
  for (int i : {40, 41, 44, 45, 46, 47}) request[i] = static_cast<uint8_t>(i);
  Bytes hostOrder = request;
  client::SwapHeader(request);
  ASSERT_EQ(request[3], 1);  // marker written big-endian

  Bytes reply = Ask(request);
  EXPECT_EQ(reply, ExpectedLanReply(hostOrder, 8));
}

TEST_F(LanServerE2E, MarkerOtherThanOneAlsoTriggersConversion) {
  StartDaemon();
  Bytes request = MakeRequest(6, 48, 0, "marker2");
  Bytes hostOrder = request;
  client::SwapHeader(request);
  client::Write<uint32_t>(request, 0, 2);  // neither 1 nor 1 swapped
  Bytes reply = Ask(request);
  EXPECT_EQ(reply, ExpectedLanReply(hostOrder, 8));
}

TEST_F(LanServerE2E, LengthAboveReceivedIsWarnedAndProcessed) {
  StartDaemon();
  Bytes request = MakeRequest(6, 100, 0, "long");
  HeaderOf(request)->length = 500;
  Bytes reply = Ask(request);
  EXPECT_EQ(HeaderOf(reply)->result, 8);
  EXPECT_TRUE(daemon_.WaitForLog("LANSERVER: header length 500;receive length mismatch 100\n"));
}

TEST_F(LanServerE2E, ShortDatagramNeverReadsAnEarlierOnesBytes) {
  StartDaemon();
  Bytes big = MakeRequest(6, 2000, 0, "big");
  for (size_t i = 48; i < big.size(); ++i) big[i] = 0x7F;
  Ask(big);
  // Ten bytes: marker and revision only. The length field lies past what was
  // received and must read as zero, not as the 2000 left by the last request.
  Bytes shortOne = MakeRequest(6, 48, 0, "");
  shortOne.resize(10);
  Bytes reply = Ask(shortOne);
  ASSERT_EQ(reply.size(), 48u);
  EXPECT_EQ(HeaderOf(reply)->result, 6);
  EXPECT_EQ(HeaderOf(reply)->functionCode, 0);
}

TEST_F(LanServerE2E, EmptyDatagramIsLoggedAndNotAnswered) {
  StartDaemon();
  ASSERT_TRUE(endpoint_->Send(Bytes{}));
  EXPECT_FALSE(endpoint_->Receive(300).has_value());
  EXPECT_TRUE(daemon_.WaitForLog("DGRAM: failed recvfrom:0\n"));
}

TEST_F(LanServerE2E, RepliesGoBackToEachSendersPort) {
  StartDaemon();
  Endpoint second("127.0.0.1", daemon_.port());
  ASSERT_NE(second.localPort(), endpoint_->localPort());
  ASSERT_TRUE(endpoint_->Send(MakeRequest(6, 48, 0, "first")));
  ASSERT_TRUE(second.Send(MakeRequest(6, 48, 0, "second")));
  auto a = endpoint_->Receive(2000);
  auto b = second.Receive(2000);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(HeaderOf(*a)->messageID), 5), "first");
  EXPECT_EQ(std::string(reinterpret_cast<char*>(HeaderOf(*b)->messageID), 6), "second");
}

TEST_F(LanServerE2E, TrackedDuplicateGetsTheStoredReplyWithoutRunningAgain) {
  StartDaemon();
  Bytes request = MakeRequest(6, 48, 1, "dup-1");
  Bytes first = Ask(request);
  Bytes second = Ask(request);
  EXPECT_EQ(first, second);
  EXPECT_TRUE(daemon_.WaitForLog("LAN_HandleDuplicate: Found duplicate message. id:"));
  std::string log = daemon_.Log();
  EXPECT_EQ(CountOf(log, "LAN_HandleDuplicate: Found duplicate message."), 1);

  // Without bit 0 every copy is handled anew.
  Bytes untracked = MakeRequest(6, 48, 0, "dup-2");
  Ask(untracked);
  Ask(untracked);
  EXPECT_EQ(CountOf(daemon_.Log(), "LAN_HandleDuplicate: Found duplicate message."), 1);
}

TEST_F(LanServerE2E, TrackerBoundOfThreeKeepsTheNewestAnswers) {
  StartDaemon({"-l", "4", "-m", "3"});
  for (const char* id : {"A", "B", "C", "D"}) Ask(MakeRequest(6, 48, 1, id));
  // Storing D's answer made four: A and B were purged, leaving two.
  EXPECT_EQ(CountOf(daemon_.Log(), "purging tracker\n"), 2);

  Ask(MakeRequest(6, 48, 1, "C"));
  EXPECT_EQ(CountOf(daemon_.Log(), "Found duplicate message. id:43"), 1);
  Ask(MakeRequest(6, 48, 1, "A"));
  EXPECT_EQ(CountOf(daemon_.Log(), "Found duplicate message. id:41"), 0);
}

TEST_F(LanServerE2E, TrackingOffLetsEveryCopyThrough) {
  StartDaemon({"-l", "4", "-m", "0"});
  EXPECT_TRUE(daemon_.WaitForLog("Tracking messages for duplicate detection is DISABLED.\n"));
  Bytes request = MakeRequest(6, 48, 1, "off");
  EXPECT_EQ(Ask(request), Ask(request));
  EXPECT_EQ(CountOf(daemon_.Log(), "Found duplicate"), 0);
}

}  // namespace
}  // namespace kestrix::test
