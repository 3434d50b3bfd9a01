// Leases in process, for what the end-to-end tests cannot arrange: library
// maxima, key wrap, no memory, the unlock's library, the indexes against a
// walk of the list, the purge at the exact millisecond across a clock wrap.
#include "sp/lease.h"
#include "sp/lease_expiry.h"
#include "sp/sp_state.h"

#include <gtest/gtest.h>
#include <string.h>

#include <array>

#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace {

// kFake's FS_GetMaxLeases answers result, read, write; kNoSlot has none;
// kNoCookie is kFake asked without a cookie. Intention 1 reads, 0 writes.
enum Lib { kNone, kFake, kNoSlot, kNoCookie };
struct Row {
  FSLONG asked;
  FSULONG intention;
  Lib lib;
  FSLONG result = 0, read = 0, write = 0, lease;
};
const Row* g_row = nullptr;
FSLONG FakeGetMaxLeases(const uint8_t*, FSLONG* readMax, FSLONG* writeMax) {
  *readMax = g_row->read;
  *writeMax = g_row->write;
  return g_row->result;
}

TEST(CalcLeaseTest, LibraryMaximaCapTheDefaultLeases) {
  FsLibrary lib{}, noSlot{};
  lib.FS_GetMaxLeases = FakeGetMaxLeases;
  FsLibrary* const libs[] = {nullptr, &lib, &noSlot, &lib};
  const uint8_t vol[FS_COOKIE_SIZE] = {};
  // Maxima of 0 mean the defaults; 3600000 s overflows 32 bits as ms and is capped at a day,
  // as is any lease without a maximum, even one asked for with a negative length.
  const Row rows[] = {
      {.asked = 0, .intention = 1, .lib = kNone, .lease = 5000},
      {.asked = 0, .intention = 0, .lib = kNone, .lease = 3600000},
      {.asked = 20000, .intention = 1, .lib = kFake, .read = 10, .write = 1000, .lease = 10000},
      {.asked = 0, .intention = 0, .lib = kFake, .lease = 3600000},
      {.asked = 100000000, .intention = 0, .lib = kFake, .lease = 86400000},
      {.asked = -5, .intention = 1, .lib = kNone, .lease = 86400000},
      {.asked = 20000, .intention = 1, .lib = kFake, .result = 3, .read = 1, .write = 1,
       .lease = 20000},
      {.asked = 99999, .intention = 1, .lib = kNoSlot, .read = 1, .write = 1, .lease = 99999},
      {.asked = 99999, .intention = 1, .lib = kNoCookie, .read = 1, .write = 1, .lease = 99999},
      // 5000000 s wraps to a positive count of milliseconds.
      {.asked = 800000000, .intention = 1, .lib = kFake, .read = 5000000, .write = 1,
       .lease = 705032704}};
  for (const Row& r : rows) {
    g_row = &r;
    const uint8_t* const cookie = r.lib == kNoCookie ? nullptr : vol;
    EXPECT_EQ(r.lease, CalcLease(r.asked, r.intention, libs[r.lib], cookie)) << &r - rows;
  }
}

using Cookie = std::array<uint8_t, FS_COOKIE_SIZE>;
uint32_t g_now = 1000;

// FS_UnlockMap of fake library N records N and the file cookie's first byte.
std::vector<std::pair<int, int>> g_unlocks;
template <int N>
FSLONG Unlock(const uint8_t*, const uint8_t* f) {
  g_unlocks.emplace_back(N, f[0]);
  return 0;
}

class LeaseListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kestrix::SetClockForTesting([] { return g_now; });
    g_now = 1000;
    g_unlocks.clear();
    kestrix::InitLeaseList();
    globalKey = 0;  // the cases count keys from 0
    libA_.FS_UnlockMap = Unlock<0>;
    libB_.FS_UnlockMap = Unlock<1>;
  }
  void TearDown() override { kestrix::SetClockForTesting(nullptr); }

  // Adds a lease on file f (volume 9) for request m of sender c; expects the given result.
  FSULONG Add(uint8_t f, uint8_t c = 1, uint8_t m = 1, FsLibrary* lib = nullptr,
              FSULONG duration = 5000, int result = 0) {
    const Cookie vol{9}, file{f};
    const uint8_t msg[LAN_MSGID_SIZE] = {m}, comm[LAN_COMMCOOKIE_SIZE] = {c};
    const FSUNI name[] = {'/', 'm', 0};
    FSULONG key = 0xdeadbeef;
    EXPECT_EQ(result, AddLeaseToList(vol.data(), file.data(), msg, comm, 1, duration, &key,
                                     lib ? lib : &libA_, name));
    return key;
  }
  static int ListLength() {
    int n = 0;
    for (LeaseEntry* e = leaseListHeadGlb.next; e != &leaseListHeadGlb; e = e->next, ++n)
      EXPECT_EQ(e, e->next->prev);
    return n;
  }

  kestrix::test::LogCapture log_{12};
  FsLibrary libA_{}, libB_{};
};

TEST_F(LeaseListTest, ARepeatedRequestRenewsItsOwnLease) {
  EXPECT_EQ(0u, Add(1));
  EXPECT_EQ(0u, Add(1, 1, 1, &libB_, 8000));  // the same request renews its own lease
  EXPECT_EQ(1u, Add(1, 2, 1));                // another sender
  EXPECT_EQ(2u, Add(1, 1, 2));                // another request
  EXPECT_EQ(ListLength(), 3);
  LeaseEntry copy{};
  ASSERT_EQ(0, GetLeaseCopy(0, &copy));
  EXPECT_EQ(copy.library, &libA_) << "the renewal kept the first library";
  EXPECT_EQ(copy.duration, 8000u);
  EXPECT_TRUE(log_.Contains("Debug1 Re-using key 0x0\n"));
  g_now = 4000;  // a renewal with the same duration still restarts the lease
  EXPECT_EQ(0, ChangeLeaseEntry(0, 8000));
  ASSERT_EQ(0, GetLeaseCopy(0, &copy));
  EXPECT_EQ(copy.creationTime, 4000u);
}

TEST_F(LeaseListTest, KeysWrapToZeroAfterTheLargest) {
  globalKey = 4294967295u;
  EXPECT_EQ(4294967295u, Add(3));
  EXPECT_EQ(0u, globalKey);
}

TEST_F(LeaseListTest, ANegativeDurationIsLoggedAsAnError) {
  EXPECT_EQ(0u, Add(3, 1, 1, nullptr, static_cast<FSULONG>(-30000)));
  EXPECT_TRUE(log_.Contains("Error Lease value is less than zero -30000\n"));
}

TEST_F(LeaseListTest, ALeaseRefusedForWantOfMemoryTakesNoKey) {
  EXPECT_EQ(0u, Add(1));
  const int32_t held = g_kmemstat;
  kestrix::FailGetmem(1);
  EXPECT_EQ(0xdeadbeefu, Add(4, 1, 1, nullptr, 5000, -1));
  kestrix::FailGetmem(0, 0);
  EXPECT_TRUE(log_.Contains("Error Out of memory in AddToLeaseList\n"));
  EXPECT_EQ(globalKey, 1u) << "the refused lease took a key";
  EXPECT_EQ(ListLength(), 1);
  EXPECT_EQ(g_kmemstat, held);
}

TEST_F(LeaseListTest, LastLeaseOnFileUnlocksWithCallersLibrary) {
  const int32_t start = g_kmemstat;
  ASSERT_EQ(0u, Add(5, 1));
  ASSERT_EQ(1u, Add(5, 2));
  Cookie vol{}, file{};
  EXPECT_EQ(0, RemoveLeaseFromList(0, vol.data(), file.data(), &libB_, "SP_LANClose"));
  EXPECT_EQ(vol, Cookie{9});
  EXPECT_EQ(file, Cookie{5});
  EXPECT_TRUE(g_unlocks.empty()) << "another lease still holds the file";
  // Key 0 is unknown now: nothing is found, written, unlocked or logged.
  log_.Clear();
  struct { Cookie vol, file; LeaseEntry copy; } out, before;
  memset(&out, 0xEE, sizeof out);
  memset(&before, 0xEE, sizeof before);
  EXPECT_EQ(408, RemoveLeaseFromList(0, out.vol.data(), out.file.data(), &libB_, "SP_LANClose"));
  EXPECT_EQ(407, GetLeaseCopy(0, &out.copy));
  EXPECT_EQ(407, GetCookiesFromList(0, out.vol.data(), out.file.data()));
  EXPECT_EQ(-1, ChangeLeaseEntry(0, 100));
  EXPECT_EQ(0, memcmp(&before, &out, sizeof out));
  EXPECT_EQ("", log_.Text());
  // The last lease on the file unlocks it, once, through the caller's library.
  EXPECT_EQ(0, RemoveLeaseFromList(1, vol.data(), file.data(), &libB_, "GetInitialMap"));
  EXPECT_EQ((std::vector{std::pair(1, 5)}), g_unlocks);
  EXPECT_EQ(ListLength(), 0);
  EXPECT_EQ(g_kmemstat, start);
}

// After the keys wrap, a key still held is passed over, so no two leases
// share one; every lease is found by its key once the indexes have grown
// past their first size, and every byte they took is given back at the end.
TEST_F(LeaseListTest, WrappedKeysSkipHeldOnesAcrossIndexGrowth) {
  const int32_t idle = g_kmemstat;
  ASSERT_EQ(0u, Add(1));
  globalKey = 0;
  ASSERT_EQ(1u, Add(2));
  for (uint8_t m = 1; m <= 200; ++m) Add(3, 2, m);  // 200 leases on one file, keys 2 to 201
  // The same request again renews its own lease among the 200.
  EXPECT_EQ(101u, Add(3, 2, 100));
  Cookie vol{}, file{};
  for (FSULONG key = 0; key <= 201; ++key)
    EXPECT_EQ(0, RemoveLeaseFromList(key, vol.data(), file.data(), &libA_, "SP_LANClose"));
  EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 1}, {0, 2}, {0, 3}}), g_unlocks);
  EXPECT_EQ(ListLength(), 0);
  EXPECT_EQ(g_kmemstat, idle);
}

bool Holds(FSULONG key) { LeaseEntry copy; return GetLeaseCopy(key, &copy) == 0; }

TEST_F(LeaseListTest, LeasesEndAfterDurationPlusGraceAcrossAClockWrap) {
  Add(8, 1, 1, nullptr, 900000);  // key 0 outlives the test
  FSMDCSP_DumpKeyList();
  EXPECT_TRUE(log_.Contains("Debug1 Key List Start\nDebug1   key: 0x0\nDebug1   volcookie:09\n"
                            "Debug1   filecookie:08\nDebug1 \nDebug1 Key List End\n"));
  const int32_t start = g_kmemstat;
  // Keys 1 to 3; 2 and 3 share a file.
  for (auto [file, sender] : {std::pair{1, 1}, {7, 1}, {7, 2}}) Add(file, sender);
  // 1001 ms before the clock wraps: 37000 ms old at 35999, but counted one short.
  g_now = 0xFFFFFC17u;
  Add(2, 1, 1, nullptr, 7000);  // key 4
  const uint8_t noLib[FS_COOKIE_SIZE] = {3};  // key 5: no library to unlock with
  FSULONG key5;
  EXPECT_EQ(0, AddLeaseToList(noLib, noLib, noLib, noLib, 1, 5000, &key5, nullptr, nullptr));
  g_now = 1000 + 5000 + 29999;
  EXPECT_EQ(0, PurgeLeaseList());
  for (FSULONG key = 1; key <= 4; ++key) EXPECT_TRUE(Holds(key)) << key;
  EXPECT_TRUE(g_unlocks.empty());
  g_now = 1000 + 5000 + 30000;
  EXPECT_EQ(0, PurgeLeaseList());
  EXPECT_TRUE(Holds(0)) << "key 0 outlives the test";
  for (FSULONG key = 1; key <= 5; ++key) EXPECT_FALSE(Holds(key)) << key;
  EXPECT_EQ(start, g_kmemstat);
  EXPECT_EQ(g_unlocks, (std::vector<std::pair<int, int>>{{0, 2}, {0, 7}, {0, 1}})) << "per file";
  EXPECT_FALSE(log_.Contains("purging expired lease 0x3\n"));  // met first, leaves it to key 2
  EXPECT_TRUE(
      log_.Contains("Debug1 Purged lease  key:0x1, intention:1  duration:5000 creation:1000 "
                    "time:36000\nDebug1 purging expired lease 0x1\n"));
}

}  // namespace
