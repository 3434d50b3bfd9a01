// Tests of the lease list: keys, re-use of a re-sent request's lease,
// removal with and without unlock, unknown keys, renewal, memory failure
// and the dumps.
#include "sp/lease.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <string>
#include <thread>
#include <vector>

#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace {

using Cookie = std::array<uint8_t, FS_COOKIE_SIZE>;
using ShortCookie = std::array<uint8_t, 16>;

uint32_t g_now = 0;
uint32_t FakeClock() { return g_now; }

// FS_UnlockMap of fake library N records the cookies it was given.
struct UnlockRecord {
  Cookie volume;
  Cookie file;
};
std::vector<UnlockRecord> g_unlocks[2];
template <int N>
FSLONG Unlock(const uint8_t* v, const uint8_t* f) {
  UnlockRecord& r = g_unlocks[N].emplace_back();
  memcpy(r.volume.data(), v, FS_COOKIE_SIZE);
  memcpy(r.file.data(), f, FS_COOKIE_SIZE);
  return 0;
}

template <size_t N = FS_COOKIE_SIZE>
std::array<uint8_t, N> MakeCookie(uint8_t first, uint8_t last = 0) {
  std::array<uint8_t, N> c{};
  c[0] = first;
  c[N - 1] = last;
  return c;
}
ShortCookie MakeShort(uint8_t first, uint8_t last = 0) { return MakeCookie<16>(first, last); }

const FSUNI kName[] = {'/', 'm', '/', 'a', 0};

class LeaseListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kestrix::SetClockForTesting(FakeClock);
    g_now = 1000;
    kestrix::InitLeaseList();
    libA_.FS_UnlockMap = Unlock<0>;
    libB_.FS_UnlockMap = Unlock<1>;
    memStart_ = g_kmemstat;
  }
  void TearDown() override { kestrix::SetClockForTesting(nullptr); }

  // Adds a lease for file f sent by comm c with message id m.
  FSULONG Add(uint8_t f, uint8_t c = 1, uint8_t m = 1, FsLibrary* lib = nullptr,
              FSULONG intention = 1, FSULONG duration = 5000, uint8_t v = 9) {
    const Cookie vol = MakeCookie(v), file = MakeCookie(f);
    const ShortCookie msg = MakeShort(m), comm = MakeShort(c);
    FSULONG key = 0xdeadbeef;
    EXPECT_EQ(0, AddLeaseToList(vol.data(), file.data(), msg.data(), comm.data(), intention,
                                duration, &key, lib ? lib : &libA_, kName));
    return key;
  }

  static int ListLength() {
    int n = 0;
    for (LeaseEntry* e = leaseListHeadGlb.next; e != &leaseListHeadGlb; e = e->next) {
      EXPECT_EQ(e, e->next->prev);
      ++n;
    }
    return n;
  }

  kestrix::test::LogCapture log_{12};
  FsLibrary libA_{};
  FsLibrary libB_{};
  int32_t memStart_ = 0;
};

TEST_F(LeaseListTest, NewLeasesGetConsecutiveKeysNewestFirst) {
  EXPECT_EQ(0u, Add(1));
  g_now = 2000;
  EXPECT_EQ(1u, Add(2, 1, 1, &libB_, 0, 7000));
  EXPECT_EQ(2u, globalKey);
  EXPECT_EQ(1u, leaseListHeadGlb.next->key);
  EXPECT_TRUE(log_.Contains("Debug1 Added to lease list  key:0x0  name:[/m/a]\n"));

  LeaseEntry copy;
  ASSERT_EQ(0, GetLeaseCopy(1, &copy));
  EXPECT_EQ(&libB_, copy.library);
  EXPECT_EQ(0, memcmp(copy.fileCookie, MakeCookie(2).data(), FS_COOKIE_SIZE));
  EXPECT_EQ(0, memcmp(copy.volumeCookie, MakeCookie(9).data(), FS_COOKIE_SIZE));
  EXPECT_EQ(0u, copy.intention);
  EXPECT_EQ(7000u, copy.duration);
  EXPECT_EQ(2000u, copy.creationTime);

  Cookie vol{}, file{};
  ASSERT_EQ(0, GetCookiesFromList(0, vol.data(), file.data()));
  EXPECT_EQ(MakeCookie(9), vol);
  EXPECT_EQ(MakeCookie(1), file);
}

TEST_F(LeaseListTest, ResentRequestRenewsItsOwnLease) {
  ASSERT_EQ(0u, Add(1, 1, 1, &libA_, 1, 5000, 9));
  const int32_t memAfterFirst = g_kmemstat;
  g_now = 4000;
  // Another volume cookie and library: only file, message and comm count.
  EXPECT_EQ(0u, Add(1, 1, 1, &libB_, 0, 8000, 7));
  EXPECT_EQ(1u, globalKey);
  EXPECT_EQ(1, ListLength());
  EXPECT_EQ(memAfterFirst, g_kmemstat);
  EXPECT_TRUE(log_.Contains("Info Duplicate lease detected.  Bailing...\n"));
  EXPECT_TRUE(log_.Contains("Debug1 Re-using key 0x0\n"));
  EXPECT_TRUE(log_.Contains("Debug1 Modified lease list  key:0x0\n"));

  LeaseEntry copy;
  ASSERT_EQ(0, GetLeaseCopy(0, &copy));
  EXPECT_EQ(&libA_, copy.library);
  EXPECT_EQ(0, memcmp(copy.volumeCookie, MakeCookie(9).data(), FS_COOKIE_SIZE));
  EXPECT_EQ(0u, copy.intention);
  EXPECT_EQ(8000u, copy.duration);
  EXPECT_EQ(4000u, copy.creationTime);

  // A different sender or a different request makes a lease of its own.
  EXPECT_EQ(1u, Add(1, 2, 1));
  EXPECT_EQ(2u, Add(1, 1, 2));
  EXPECT_EQ(3, ListLength());
}

TEST_F(LeaseListTest, KeysWrapToZero) {
  globalKey = 4294967295u;
  EXPECT_EQ(4294967295u, Add(1));
  EXPECT_EQ(0u, globalKey);
  EXPECT_EQ(0u, Add(2));
  EXPECT_EQ(1u, globalKey);
}

TEST_F(LeaseListTest, LastLeaseOnFileUnlocksWithCallersLibrary) {
  ASSERT_EQ(0u, Add(5, 1, 1, &libA_));
  ASSERT_EQ(1u, Add(5, 2, 1, &libA_));

  Cookie vol{}, file{};
  EXPECT_EQ(0, RemoveLeaseFromList(0, vol.data(), file.data(), &libB_, "SP_LANClose"));
  EXPECT_TRUE(log_.Contains("Debug1 RemoveLeaseFromList (SP_LANClose) 0x0\n"));
  EXPECT_TRUE(log_.Contains("Debug1 Skipping unlock,dup key detect (below)\n"));
  EXPECT_TRUE(g_unlocks[0].empty());
  EXPECT_TRUE(g_unlocks[1].empty());
  EXPECT_EQ(MakeCookie(5), file);
  EXPECT_EQ(MakeCookie(9), vol);

  log_.Clear();
  EXPECT_EQ(0, RemoveLeaseFromList(1, vol.data(), file.data(), &libB_, "GetInitialMap"));
  EXPECT_FALSE(log_.Contains("Skipping unlock"));
  EXPECT_TRUE(g_unlocks[0].empty());
  ASSERT_EQ(1u, g_unlocks[1].size());
  EXPECT_EQ(MakeCookie(9), g_unlocks[1][0].volume);
  EXPECT_EQ(MakeCookie(5), g_unlocks[1][0].file);
  EXPECT_EQ(0, ListLength());
  EXPECT_EQ(memStart_, g_kmemstat);
}

TEST_F(LeaseListTest, UnknownKeyChangesAndWritesNothing) {
  Add(1);
  log_.Clear();
  Cookie vol, file;
  vol.fill(0xEE);
  file.fill(0xEE);
  LeaseEntry copy;
  memset(&copy, 0xEE, sizeof copy);
  const LeaseEntry before = copy;

  EXPECT_EQ(408, RemoveLeaseFromList(7, vol.data(), file.data(), &libB_, "SP_LANClose"));
  EXPECT_EQ(407, GetLeaseCopy(7, &copy));
  EXPECT_EQ(407, GetCookiesFromList(7, vol.data(), file.data()));
  EXPECT_EQ(-1, ChangeLeaseEntry(7, 100));
  EXPECT_EQ(0, memcmp(&before, &copy, sizeof copy));
  for (uint8_t b : vol) ASSERT_EQ(0xEE, b);
  for (uint8_t b : file) ASSERT_EQ(0xEE, b);
  EXPECT_TRUE(g_unlocks[0].empty());
  EXPECT_TRUE(g_unlocks[1].empty());
  EXPECT_EQ(1, ListLength());
  EXPECT_EQ("", log_.Text());
}

TEST_F(LeaseListTest, ChangeRestartsLeaseEvenWithSameDuration) {
  const FSULONG key = Add(1, 1, 1, nullptr, 1, 5000);
  g_now = 9000;
  EXPECT_EQ(0, ChangeLeaseEntry(key, 5000));
  LeaseEntry copy;
  ASSERT_EQ(0, GetLeaseCopy(key, &copy));
  EXPECT_EQ(9000u, copy.creationTime);
  EXPECT_EQ(5000u, copy.duration);
}

TEST_F(LeaseListTest, NegativeDurationIsLoggedAndKept) {
  const FSULONG minus30000 = static_cast<FSULONG>(-30000);
  const FSULONG key = Add(1, 1, 1, nullptr, 1, minus30000);
  EXPECT_TRUE(log_.Contains("Error Lease value is less than zero -30000\n"));
  LeaseEntry copy;
  ASSERT_EQ(0, GetLeaseCopy(key, &copy));
  EXPECT_EQ(minus30000, copy.duration);
}

TEST_F(LeaseListTest, OutOfMemoryLeavesListUnchanged) {
  Add(1);
  const int32_t memBefore = g_kmemstat;
  const Cookie vol = MakeCookie(9), file = MakeCookie(2);
  const ShortCookie msg = MakeShort(1), comm = MakeShort(1);
  FSULONG key = 0xdeadbeef;
  kestrix::FailGetmem(1);
  EXPECT_EQ(-1, AddLeaseToList(vol.data(), file.data(), msg.data(), comm.data(), 1, 5000,
                               &key, &libA_, kName));
  kestrix::FailGetmem(0, 0);
  EXPECT_TRUE(log_.Contains("Error Out of memory in AddToLeaseList\n"));
  EXPECT_EQ(0xdeadbeefu, key);
  EXPECT_EQ(1u, globalKey);
  EXPECT_EQ(1, ListLength());
  EXPECT_EQ(memBefore, g_kmemstat);
}

TEST_F(LeaseListTest, ConcurrentAddsGetDistinctKeys) {
  log_.SetLevel(2);
  constexpr int kThreads = 4, kPerThread = 200;
  std::vector<std::vector<FSULONG>> keys(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        Cookie vol{}, file{};
        file[0] = static_cast<uint8_t>(t);
        file[1] = static_cast<uint8_t>(i);
        const ShortCookie msg = MakeShort(1), comm = MakeShort(1);
        FSULONG key;
        AddLeaseToList(vol.data(), file.data(), msg.data(), comm.data(), 1, 5000, &key, &libA_,
                       kName);
        keys[t].push_back(key);
      }
    });
  }
  for (auto& th : threads) th.join();
  std::vector<FSULONG> all;
  for (const auto& k : keys) all.insert(all.end(), k.begin(), k.end());
  std::sort(all.begin(), all.end());
  for (int i = 0; i < kThreads * kPerThread; ++i) ASSERT_EQ(static_cast<FSULONG>(i), all[i]);
  EXPECT_EQ(kThreads * kPerThread, ListLength());
  EXPECT_FALSE(log_.Contains("Semaphore breakdown"));
}

// Lines of the log other than the allocator's own traces.
std::vector<std::string> LeaseLines(const kestrix::test::LogCapture& log) {
  std::vector<std::string> out;
  for (const std::string& line : log.Lines())
    if (line.rfind("Debug1 ksxmem", 0) != 0) out.push_back(line);
  return out;
}

TEST_F(LeaseListTest, DumpKeyListLinesAndLevels) {
  log_.SetLevel(4);
  log_.Clear();
  FSMDCSP_DumpKeyList();
  EXPECT_EQ(std::vector<std::string>{"SP Key list is empty"}, log_.Lines());
  log_.SetLevel(3);
  log_.Clear();
  FSMDCSP_DumpKeyList();
  EXPECT_EQ("", log_.Text());

  log_.SetLevel(12);
  Add(0x11, 1, 1, nullptr, 1, 5000, 0xAB);
  Add(0x22, 1, 1, nullptr, 1, 5000, 0xCD);
  log_.Clear();
  FSMDCSP_DumpKeyList();
  const std::vector<std::string> expected = {
      "Debug1 Key List Start",
      "Debug1   key: 0x1",
      "Debug1   volcookie:CD",
      "Debug1   filecookie:22",
      "Debug1 ",
      "Debug1   key: 0x0",
      "Debug1   volcookie:AB",
      "Debug1   filecookie:11",
      "Debug1 ",
      "Debug1 Key List End",
  };
  EXPECT_EQ(expected, LeaseLines(log_));

  log_.SetLevel(9);
  log_.Clear();
  FSMDCSP_DumpKeyList();
  EXPECT_EQ("", log_.Text());
}

TEST_F(LeaseListTest, DumpKeyRendersFullCookieWidths) {
  // Last bytes set so that a short rendering would show.
  const Cookie vol = MakeCookie(0x01, 0xF1), file = MakeCookie(0x02, 0xF2);
  const ShortCookie msg = MakeShort(0x03, 0xF3), comm = MakeShort(0x04, 0xF4);
  FSULONG key;
  ASSERT_EQ(0, AddLeaseToList(vol.data(), file.data(), msg.data(), comm.data(), 2, 6000, &key,
                              &libA_, kName));
  log_.Clear();
  LeaseEntry* lease = leaseListHeadGlb.next;
  DumpKey(lease);
  auto hex = [](uint8_t first, int n, uint8_t last) {
    char buf[8];
    std::string s;
    snprintf(buf, sizeof buf, "%02X ", first);
    s += buf;
    for (int i = 1; i < n - 1; ++i) s += "00 ";
    snprintf(buf, sizeof buf, "%02X", last);
    return s + buf;
  };
  const std::vector<std::string> expected = {
      "Debug1 Key Data for 0x0",
      "Debug1   intention: 2",
      "Debug1   creation time: 1000,  duration 6000",
      "Debug1   volcookie:" + hex(0x01, 32, 0xF1),
      "Debug1   filecookie:" + hex(0x02, 32, 0xF2),
      "Debug1   commcookie:" + hex(0x04, 16, 0xF4),
      "Debug1   msgcookie:" + hex(0x03, 16, 0xF3),
      "Debug1 ",
  };
  EXPECT_EQ(expected, log_.Lines());
}

}  // namespace
