// LAN server dispatch and the duplicate tracker, driven in process.
#include "utils/lanserver.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix {
namespace {

const uint8_t kHostA[16] = {127, 0, 0, 1};
const uint8_t kHostB[16] = {10, 1, 200, 7};

int g_calls = 0;
LanServerInfo* g_server = nullptr;
LanHeader* g_nested = nullptr;  // reply of a copy sent while the handler runs

LanHeader* CountingHandler(LanHeader* request, const uint8_t*) {
  ++g_calls;
  LanHeader* reply = BuildReply(request, 0);
  reply->revision = g_calls;  // tells the replies of different runs apart
  return reply;
}

LanHeader* NullHandler(LanHeader*, const uint8_t*) {
  ++g_calls;
  return nullptr;
}

// Sends a copy of its own request into the server while it is handling it.
LanHeader* ReentrantHandler(LanHeader* request, const uint8_t* comm) {
  ++g_calls;
  LanHeader copy = *request;
  g_nested = LAN_ProcessMessage(&copy, 48, g_server, comm);
  return BuildReply(request, 0);
}

class LanServerTest : public ::testing::Test {
 protected:
  void Init(int bound) {
    g_MaxDuplicateMessages = bound;
    g_calls = 0;
    g_nested = nullptr;
    numDupsDropped = 0;
    numDupsRepliedTo = 0;
    LAN_InitServer(&g_server);
    ASSERT_NE(g_server, nullptr);
  }
  static LanHeader Request(const std::string& id, uint32_t flags = LAN_FLAG_TRACK,
                           int code = 9) {
    LanHeader h{};
    h.byteOrder = 1;
    h.functionCode = code;
    h.length = 48;
    h.flags = flags;
    std::memcpy(h.messageID, id.data(), id.size());
    return h;
  }
  LanHeader* Process(LanHeader request, const uint8_t* comm = kHostA) {
    return LAN_ProcessMessage(&request, 48, g_server, comm);
  }
  int Entries() {
    int n = 0;
    for (TrackerEntry* e = g_server->tracker.next; e != &g_server->tracker; e = e->next) ++n;
    return n;
  }
};

TEST_F(LanServerTest, RegistrationBoundsAndReplacement) {
  Init(100);
  EXPECT_EQ(LAN_RegisterMessageHandler(g_server, 100, CountingHandler), 1);
  EXPECT_EQ(LAN_RegisterMessageHandler(g_server, -1, CountingHandler), 1);
  EXPECT_EQ(LAN_RegisterMessageHandler(g_server, 9, NullHandler), 0);
  EXPECT_EQ(LAN_RegisterMessageHandler(g_server, 9, CountingHandler), 0);
  LanHeader* reply = Process(Request("r", 0));
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, 0);
  EXPECT_EQ(reply->functionCode, -9);
  EXPECT_EQ(g_calls, 1);
  ksxmem_free(reply);
  for (int32_t code : {INT32_MIN, INT32_MAX, -1, 100}) {
    reply = Process(Request("x", 0, code));
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->result, LAN_RESULT_NO_HANDLER);
    EXPECT_EQ(reply->functionCode, code == INT32_MIN ? INT32_MIN : -code);
    ksxmem_free(reply);
  }
}

TEST_F(LanServerTest, AnsweredCopyGetsStoredReplyAndCountsIt) {
  Init(100);
  LAN_RegisterMessageHandler(g_server, 9, CountingHandler);
  LanHeader* first = Process(Request("same"));
  LanHeader* second = Process(Request("same"));
  ASSERT_TRUE(first && second);
  EXPECT_EQ(g_calls, 1);
  EXPECT_EQ(std::memcmp(first, second, 48), 0);
  EXPECT_EQ(numDupsRepliedTo, 1);
  // Another sender with the same ID is a different request.
  LanHeader* other = Process(Request("same"), kHostB);
  EXPECT_EQ(g_calls, 2);
  EXPECT_EQ(other->revision, 2);
  for (LanHeader* r : {first, second, other}) ksxmem_free(r);
}

TEST_F(LanServerTest, CopyArrivingWhileInProcessIsDropped) {
  Init(100);
  LAN_RegisterMessageHandler(g_server, 9, ReentrantHandler);
  test::LogCapture log(4);
  LanHeader* reply = Process(Request("busy"));
  EXPECT_NE(reply, nullptr);
  EXPECT_EQ(g_nested, nullptr);
  EXPECT_EQ(g_calls, 1);
  EXPECT_EQ(numDupsDropped, 1);
  EXPECT_TRUE(log.Contains("SP Dropping duplicate message.\n"));
  ksxmem_free(reply);
}

TEST_F(LanServerTest, NullReplyLeavesTheEntryInProcessForGood) {
  Init(1);
  LAN_RegisterMessageHandler(g_server, 9, NullHandler);
  EXPECT_EQ(Process(Request("lost")), nullptr);
  EXPECT_EQ(Process(Request("lost")), nullptr);
  EXPECT_EQ(g_calls, 1);
  EXPECT_EQ(numDupsDropped, 1);
  // Answered entries beyond the bound are purged; the one in process stays.
  LAN_RegisterMessageHandler(g_server, 9, CountingHandler);
  for (const char* id : {"a", "b", "c"}) ksxmem_free(Process(Request(id)));
  // b's answer made two: a and b were purged, c stays beside "lost".
  EXPECT_EQ(g_server->numReplies, 1u);
  EXPECT_EQ(Entries(), 2);
  EXPECT_EQ(std::memcmp(g_server->tracker.next->headerCopy->messageID, "lost", 4), 0);
  EXPECT_EQ(g_server->tracker.next->replyCopy, nullptr);
}

TEST_F(LanServerTest, PurgeLeavesOneFewerThanTheBound) {
  Init(100);
  LAN_RegisterMessageHandler(g_server, 9, CountingHandler);
  for (int i = 0; i < 100; ++i) ksxmem_free(Process(Request("m" + std::to_string(i))));
  EXPECT_EQ(g_server->numReplies, 100u);
  ksxmem_free(Process(Request("m100")));
  EXPECT_EQ(g_server->numReplies, 99u);
  // The two oldest went: a copy of m0 runs the handler again, m2 does not.
  int before = g_calls;
  ksxmem_free(Process(Request("m2")));
  EXPECT_EQ(g_calls, before);
  ksxmem_free(Process(Request("m0")));
  EXPECT_EQ(g_calls, before + 1);
}

TEST_F(LanServerTest, NoMemoryForCopiesDegradesSafely) {
  Init(100);
  LAN_RegisterMessageHandler(g_server, 9, CountingHandler);
  int32_t start = g_kmemstat;
  // Entry and header copy succeed, the reply succeeds, its stored copy fails:
  // the entry stays in process, so a later copy is dropped.
  FailGetmem(4);
  LanHeader* reply = Process(Request("nocopy"));
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(g_server->numReplies, 0u);
  EXPECT_EQ(Process(Request("nocopy")), nullptr);
  ksxmem_free(reply);

  // A stored reply whose copy for the duplicate cannot be made: dropped.
  LanHeader* answered = Process(Request("stored"));
  ksxmem_free(answered);
  FailGetmem(1);
  EXPECT_EQ(Process(Request("stored")), nullptr);
  EXPECT_EQ(numDupsDropped, 2);
  EXPECT_GT(g_kmemstat, start);  // the tracker holds its entries

  // Without memory for a header error reply nothing is sent or dispatched.
  LanHeader bad = Request("short");
  bad.length = 47;
  FailGetmem(1);
  EXPECT_EQ(Process(bad), nullptr);
  EXPECT_EQ(g_calls, 2);
}

}  // namespace
}  // namespace kestrix
