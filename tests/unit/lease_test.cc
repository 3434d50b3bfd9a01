// Tests of the lease list: keys, renewal, re-sent requests, memory failure, removal, unknown keys.
#include "sp/lease.h"

#include <gtest/gtest.h>
#include <string.h>

#include <array>
#include <tuple>

#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace {

using Cookie = std::array<uint8_t, FS_COOKIE_SIZE>;
Cookie ToCookie(const uint8_t* b) { Cookie c; memcpy(c.data(), b, c.size()); return c; }
uint32_t g_now = 1000;

// FS_UnlockMap of fake library N records N and the volume and file cookies it was given.
std::vector<std::tuple<int, Cookie, Cookie>> g_unlocks;
template <int N>
FSLONG Unlock(const uint8_t* v, const uint8_t* f) {
  g_unlocks.emplace_back(N, ToCookie(v), ToCookie(f));
  return 0;
}

class LeaseListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kestrix::SetClockForTesting([] { return g_now; });
    kestrix::InitLeaseList();
    libA_.FS_UnlockMap = Unlock<0>;
    libB_.FS_UnlockMap = Unlock<1>;
  }
  void TearDown() override { kestrix::SetClockForTesting(nullptr); }

  // Adds a lease on file f for request m of sender c; expects the given result.
  FSULONG Add(uint8_t f, uint8_t c = 1, uint8_t m = 1, FsLibrary* lib = nullptr, FSULONG intent = 1,
              FSULONG duration = 5000, uint8_t v = 9, int result = 0) {
    const Cookie vol{v}, file{f};
    const uint8_t msg[LAN_MSGID_SIZE] = {m}, comm[LAN_COMMCOOKIE_SIZE] = {c};
    const FSUNI name[] = {'/', 'm', '/', 'a', 0};
    FSULONG key = 0xdeadbeef;
    EXPECT_EQ(result, AddLeaseToList(vol.data(), file.data(), msg, comm, intent, duration, &key,
                                     lib ? lib : &libA_, name));
    return key;
  }
  static auto Fields(FSULONG key) {
    LeaseEntry c{};
    EXPECT_EQ(0, GetLeaseCopy(key, &c));
    return std::make_tuple(c.library, ToCookie(c.volumeCookie), ToCookie(c.fileCookie), c.intention,
                           c.duration, c.creationTime);
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

TEST_F(LeaseListTest, KeysRenewalResentRequestsAndOutOfMemory) {
  EXPECT_EQ(0u, Add(1));
  g_now = 2000;
  EXPECT_EQ(1u, Add(2, 1, 1, &libB_, 0, 7000));
  EXPECT_EQ(1u, leaseListHeadGlb.next->key);  // newest first
  EXPECT_TRUE(log_.Contains("Debug1 Added to lease list  key:0x0  name:[/m/a]\n"));
  EXPECT_EQ(std::make_tuple(&libB_, Cookie{9}, Cookie{2}, 0u, 7000u, 2000u), Fields(1));
  g_now = 4000;
  EXPECT_EQ(0, ChangeLeaseEntry(1, 7000));  // the same duration still restarts the lease
  EXPECT_EQ(4000u, std::get<5>(Fields(1)));
  // The same request again renews lease 0: only file, message and sender count.
  const int32_t mem = g_kmemstat;
  EXPECT_EQ(0u, Add(1, 1, 1, &libB_, 0, 8000, 7));
  EXPECT_EQ(2u, globalKey);
  EXPECT_EQ(2, ListLength());
  EXPECT_EQ(mem, g_kmemstat);
  EXPECT_TRUE(log_.Contains("Info Duplicate lease detected.  Bailing...\n"));
  EXPECT_TRUE(log_.Contains("Debug1 Re-using key 0x0\n"));
  EXPECT_TRUE(log_.Contains("Debug1 Modified lease list  key:0x0\n"));
  EXPECT_EQ(std::make_tuple(&libA_, Cookie{9}, Cookie{1}, 0u, 8000u, 4000u), Fields(0));
  EXPECT_EQ(2u, Add(1, 2, 1));  // another sender
  EXPECT_EQ(3u, Add(1, 1, 2));  // another request
  globalKey = 4294967295u;
  EXPECT_EQ(4294967295u, Add(3, 1, 1, nullptr, 1, static_cast<FSULONG>(-30000)));
  EXPECT_EQ(0u, globalKey);
  EXPECT_TRUE(log_.Contains("Error Lease value is less than zero -30000\n"));
  EXPECT_EQ(static_cast<FSULONG>(-30000), std::get<4>(Fields(4294967295u)));
  const int32_t held = g_kmemstat;
  kestrix::FailGetmem(1);
  EXPECT_EQ(0xdeadbeefu, Add(4, 1, 1, nullptr, 1, 5000, 9, -1));
  kestrix::FailGetmem(0, 0);
  EXPECT_TRUE(log_.Contains("Error Out of memory in AddToLeaseList\n"));
  EXPECT_EQ(0u, globalKey);
  EXPECT_EQ(5, ListLength());
  EXPECT_EQ(held, g_kmemstat);
}

TEST_F(LeaseListTest, LastLeaseOnFileUnlocksWithCallersLibrary) {
  const int32_t start = g_kmemstat;
  ASSERT_EQ(0u, Add(5, 1));
  ASSERT_EQ(1u, Add(5, 2));
  Cookie vol{}, file{};
  EXPECT_EQ(0, RemoveLeaseFromList(0, vol.data(), file.data(), &libB_, "SP_LANClose"));
  EXPECT_TRUE(log_.Contains("Debug1 RemoveLeaseFromList (SP_LANClose) 0x0\n"));
  EXPECT_TRUE(log_.Contains("Debug1 Skipping unlock,dup key detect (below)\n"));
  EXPECT_EQ(std::make_pair(Cookie{9}, Cookie{5}), std::make_pair(vol, file));
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
  EXPECT_EQ((std::vector{std::make_tuple(1, Cookie{9}, Cookie{5})}), g_unlocks);
  EXPECT_EQ(0, ListLength());
  EXPECT_EQ(start, g_kmemstat);
}

}  // namespace
