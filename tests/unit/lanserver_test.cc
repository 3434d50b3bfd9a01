// LAN server, tracker and listeners driven in process, for what the wire
// cannot arrange; failed allocations are in allocation_failures_test.cc.
#include "utils/lanserver.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <bit>
#include <cstring>
#include <string>
#include <vector>

#include "client/kxclient.h"
#include "support/daemon_process.h"
#include "support/test_util.h"
#include "support/wire_buffer.h"
#include "utils/dgram.h"
#include "utils/lan_sup.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix {
namespace {

const uint8_t kHostA[16] = {127, 0, 0, 1}, kHostB[16] = {10, 1, 200, 7};
int g_calls = 0;
LanServerInfo* g_server = nullptr;
LanHeader* g_nested = nullptr;  // reply of a copy sent while the handler runs

LanHeader* Counting(LanHeader* request, const uint8_t*) {
  LanHeader* reply = BuildReply(request, 0);
  reply->revision = ++g_calls;  // tells the replies of different runs apart
  return reply;
}
LanHeader* Lost(LanHeader*, const uint8_t*) {
  ++g_calls;
  return nullptr;
}
LanHeader* Reentrant(LanHeader* request, const uint8_t* comm) {
  LanHeader copy = *request;
  g_nested = LAN_ProcessMessage(&copy, 48, g_server, comm);
  return Counting(request, comm);
}

class LanServerTest : public ::testing::Test {
 protected:
  void Init(int bound, MessageHandler handler) {
    g_MaxDuplicateMessages = bound;
    g_calls = 0;
    numDupsRepliedTo = 0;
    numDupsDropped = 0;
    LAN_InitServer(&g_server);
    ASSERT_NE(g_server, nullptr);
    LAN_RegisterMessageHandler(g_server, 9, handler);
  }
  // The reply's revision (the handler run that made it), 0 for no reply.
  static int Run(const std::string& id, const uint8_t* comm = kHostA) {
    LanHeader h{};
    h.byteOrder = 1;
    h.functionCode = 9;
    h.length = 48;
    h.flags = LAN_FLAG_TRACK;
    std::memcpy(h.messageID, id.data(), id.size());
    LanHeader* reply = LAN_ProcessMessage(&h, 48, g_server, comm);
    const int revision = reply == nullptr ? 0 : reply->revision;
    ksxmem_free(reply);
    return revision;
  }
};

TEST_F(LanServerTest, CopiesGetTheStoredReplyOrAreDroppedWhileInProcess) {
  Init(100, Reentrant);
  test::LogCapture log(4);
  EXPECT_EQ(Run("same"), 1);
  EXPECT_EQ(g_nested, nullptr);  // the copy sent while it ran was dropped
  EXPECT_EQ(Run("same"), 1);     // the stored reply
  EXPECT_EQ(Run("same", kHostB), 2);  // another sender's request with the same ID
  EXPECT_EQ(std::pair(numDupsDropped, numDupsRepliedTo), std::pair(2, 1));
  EXPECT_TRUE(log.Contains("SP Dropping duplicate message.\n"));
}

TEST_F(LanServerTest, ALostReplyLeavesItsEntryInProcessAndThePurgeKeepsIt) {
  Init(1, Lost);
  EXPECT_EQ(Run("lost") + Run("lost"), 0);
  EXPECT_EQ(g_calls, 1);
  LAN_RegisterMessageHandler(g_server, 9, Counting);
  for (const char* id : {"a", "b", "c"}) Run(id);
  // b's answer made two: a and b were purged, c stays beside "lost".
  EXPECT_EQ(g_server->numReplies, 1u);
  EXPECT_EQ(std::memcmp(g_server->tracker.next->headerCopy->messageID, "lost", 4), 0);
  EXPECT_EQ(g_server->tracker.next->next->next, &g_server->tracker);
}

TEST_F(LanServerTest, PurgeLeavesOneFewerThanTheBound) {
  Init(100, Counting);
  for (int i = 0; i <= 100; ++i) Run("m" + std::to_string(i));
  EXPECT_EQ(g_server->numReplies, 99u);
  EXPECT_EQ(Run("m2"), 3);    // still stored
  EXPECT_EQ(Run("m0"), 102);  // purged: handled again
}

std::atomic<int> g_inside{0}, g_most{0}, g_handled{0};
void SlowCallback(void*, int, DgramAddress*, void*) {
  const int now = ++g_inside;
  for (int most = g_most; now > most && !g_most.compare_exchange_weak(most, now);) {}
  usleep(100000);
  --g_inside, ++g_handled;
}

// With the receive lock the callbacks of four threads never overlap and
// every datagram is still handled; without it they run side by side.
TEST(ListenerTest, TheReceiveLockSerialisesCallbacksWithoutLosingDatagrams) {
  void* lock = OSL_SemCreate(1);
  for (bool locked : {true, false}) {
    g_most = 0;
    g_handled = 0;
    SetReceiveLock(locked ? lock : nullptr);
    const uint16_t port = client::FreeLoopbackPort();
    ASSERT_EQ(DGRAM_BindListener(port, SlowCallback, nullptr, 4), 0);
    client::Endpoint sender("127.0.0.1", port);
    for (int i = 0; i < 6; ++i) ASSERT_TRUE(sender.Send(client::Bytes(48, 1)));
    for (int i = 0; i < 100 && g_handled < 6; ++i) usleep(50000);
    EXPECT_EQ(g_handled, 6);
    EXPECT_EQ(g_most == 1, locked) << g_most;
  }
}

// Each integer of a header written in the other byte order turns; the
// marker, the message ID and the reserved bytes stay as they came.
TEST(LanSupTest, TransTurnsTheOtherByteOrder) {
  if (std::endian::native != std::endian::little) GTEST_SKIP() << "little-endian host only";
  const test::Puts header = {{0, "=00000001 00000003 =00112233445566778899AABBCCDDEEFF FFFFFFFE "
                                 "00000030 00000001 00000008 =ABCD 002F =01020304"}};
  test::Buffer b = test::Fields(LAN_HEADER_SIZE, header, false);
  LANSUP_TransLanHeader(b.As<LanHeader>());
  EXPECT_EQ(b.words, test::Fields(LAN_HEADER_SIZE, header, true).words);
}

TEST(LanSupTest, PrintWritesTheHeaderAtPrintLevel) {
  test::LogCapture log(1);
  LanHeader h{};
  h.functionCode = -2;
  h.length = 0xFFFFFFFF;
  h.messageID[0] = 0x12;
  h.messageID[1] = 0xA0;
  h.revision = 3;
  h.result = 8;
  LANSUP_PrintLanHeader(&h);
  const std::vector<std::string> want = {
      "Print Header information for message", "Print functionCode -2", "Print length -1",
      "Print messageID 12 A",  // trailing zero digits trimmed
      "Print revision 3", "Print result 8"};
  EXPECT_EQ(log.Lines(), want);
}

}  // namespace
}  // namespace kestrix