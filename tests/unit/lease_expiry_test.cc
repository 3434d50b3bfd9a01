// Tests of lease durations (CalcLease) and of the purge of expired leases.
#include <gtest/gtest.h>
#include <string.h>

#include <array>
#include <vector>

#include "sp/lease.h"
#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace {

using Cookie = std::array<uint8_t, FS_COOKIE_SIZE>;

// What the fake FS_GetMaxLeases answers, and what it was given.
struct MaxLeases {
  FSLONG result = 0;
  FSLONG readMax = 0;
  FSLONG writeMax = 0;
  int calls = 0;
  FSLONG presetRead = 0;
  FSLONG presetWrite = 0;
} g_max;

FSLONG FakeGetMaxLeases(const uint8_t*, FSLONG* readMax, FSLONG* writeMax) {
  ++g_max.calls;
  g_max.presetRead = *readMax;
  g_max.presetWrite = *writeMax;
  *readMax = g_max.readMax;
  *writeMax = g_max.writeMax;
  return g_max.result;
}

class CalcLeaseTest : public ::testing::Test {
 protected:
  void SetUp() override { lib_.FS_GetMaxLeases = FakeGetMaxLeases; }
  FSLONG Calc(FSLONG requested, FSULONG intention, FSLONG readMax, FSLONG writeMax,
              FSLONG result = 0) {
    g_max = MaxLeases{result, readMax, writeMax};
    return CalcLease(requested, intention, &lib_, vol_.data());
  }
  FsLibrary lib_{};
  Cookie vol_{};
};

TEST_F(CalcLeaseTest, DefaultsWithoutLibraryMaxima) {
  EXPECT_EQ(5000, CalcLease(0, 1, nullptr, nullptr));
  EXPECT_EQ(3600000, CalcLease(0, 0, nullptr, nullptr));
  EXPECT_EQ(3600000, CalcLease(0, 2, nullptr, nullptr));
  EXPECT_EQ(123, CalcLease(123, 1, nullptr, nullptr));

  FsLibrary noSlot{};
  EXPECT_EQ(999999999, CalcLease(999999999, 1, &noSlot, vol_.data()));
  g_max = MaxLeases{0, 1, 1};
  EXPECT_EQ(999999999, CalcLease(999999999, 1, &lib_, nullptr));
  EXPECT_EQ(0, g_max.calls);
}

TEST_F(CalcLeaseTest, LibraryMaximaCapTheLease) {
  EXPECT_EQ(10000, Calc(20000, 1, 10, 1000));
  EXPECT_EQ(20000, g_max.presetRead);
  EXPECT_EQ(20000, g_max.presetWrite);
  EXPECT_EQ(8000, Calc(8000, 1, 10, 1));
  EXPECT_EQ(1000, Calc(20000, 0, 10, 1));
  EXPECT_EQ(10000, Calc(10000, 1, 10, 1));

  // Maxima of 0 fall back to the defaults; 3600000 s overflows to the day cap.
  EXPECT_EQ(3600000, Calc(0, 0, 0, 0));
  EXPECT_EQ(86400000, Calc(100000000, 0, 0, 0));
  EXPECT_EQ(5000000, Calc(100000000, 1, 0, 0));

  // A library that fails leaves the lease as chosen.
  EXPECT_EQ(20000, Calc(20000, 1, 1, 1, 3));
  EXPECT_EQ(3600000, Calc(0, 0, 1, 1, -1));
}

TEST_F(CalcLeaseTest, MaximumProductWrapsInThirtyTwoBits) {
  // 3000000 × 1000 reads negative: capped at one day.
  EXPECT_EQ(86400000, Calc(90000000, 0, 1, 3000000));
  EXPECT_EQ(86400000, Calc(90000000, 1, -5, 1));
  // 5000000 × 1000 wraps to the positive 705032704.
  EXPECT_EQ(705032704, Calc(800000000, 1, 5000000, 1));
  // A negative request stays as it is.
  EXPECT_EQ(-5, Calc(-5, 1, 10, 10));
}

uint32_t g_now = 0;
uint32_t FakeClock() { return g_now; }

std::vector<Cookie> g_unlocked;
FSLONG RecordUnlock(const uint8_t*, const uint8_t* file) {
  Cookie c;
  memcpy(c.data(), file, FS_COOKIE_SIZE);
  g_unlocked.push_back(c);
  return 0;
}

class PurgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kestrix::SetClockForTesting(FakeClock);
    kestrix::InitLeaseList();
    lib_.FS_UnlockMap = RecordUnlock;
    memStart_ = g_kmemstat;
  }
  void TearDown() override { kestrix::SetClockForTesting(nullptr); }

  FSULONG Add(uint8_t file, uint8_t comm, FSULONG created, FSULONG duration,
              FsLibrary* lib) {
    Cookie vol{}, fileCookie{};
    vol[0] = 9;
    fileCookie[0] = file;
    uint8_t msg[16] = {1};
    uint8_t commCookie[16] = {comm};
    const FSUNI name[] = {'f', 0};
    g_now = created;
    FSULONG key = 0;
    EXPECT_EQ(0, AddLeaseToList(vol.data(), fileCookie.data(), msg, commCookie, 1, duration,
                                &key, lib, name));
    return key;
  }
  static bool Holds(FSULONG key) {
    LeaseEntry copy;
    return GetLeaseCopy(key, &copy) == 0;
  }

  kestrix::test::LogCapture log_{12};
  FsLibrary lib_{};
  int32_t memStart_ = 0;
};

TEST_F(PurgeTest, ExpiresAtDurationPlusGrace) {
  const FSULONG key = Add(1, 1, 1000, 5000, &lib_);
  g_now = 1000 + 5000 + 29999;
  EXPECT_EQ(0, PurgeLeaseList());
  EXPECT_TRUE(Holds(key));
  EXPECT_TRUE(g_unlocked.empty());

  g_now = 1000 + 5000 + 30000;
  EXPECT_EQ(0, PurgeLeaseList());
  EXPECT_FALSE(Holds(key));
  ASSERT_EQ(1u, g_unlocked.size());
  EXPECT_EQ(1, g_unlocked[0][0]);
  EXPECT_TRUE(log_.Contains(
      "Debug1 Purged lease  key:0x0, intention:1  duration:5000 creation:1000 time:36000\n"));
  EXPECT_TRUE(log_.Contains("Debug1 purging expired lease 0x0\n"));
  EXPECT_EQ(memStart_, g_kmemstat);
}

TEST_F(PurgeTest, WrappedClockCountsOneMillisecondShort) {
  const FSULONG start = 0xFFFFFFF0u;  // 16 ms before the wrap
  const FSULONG key = Add(1, 1, start, 0, &lib_);
  g_now = 29984;  // 30000 ms after the start, but counted as 29999
  PurgeLeaseList();
  EXPECT_TRUE(Holds(key));
  g_now = 29985;
  PurgeLeaseList();
  EXPECT_FALSE(Holds(key));
  EXPECT_EQ(1u, g_unlocked.size());
}

TEST_F(PurgeTest, GraceSumWrapsAsUnsigned) {
  // A duration reading −30000 leaves no time at all.
  const FSULONG key = Add(1, 1, 500, static_cast<FSULONG>(-30000), &lib_);
  PurgeLeaseList();
  EXPECT_FALSE(Holds(key));
}

TEST_F(PurgeTest, TwoExpiredLeasesOnOneFileUnlockOnce) {
  const FSULONG older = Add(7, 1, 1000, 100, &lib_);
  const FSULONG newer = Add(7, 2, 1000, 100, &lib_);
  const FSULONG other = Add(8, 1, 1000, 900000, &lib_);
  g_now = 1000 + 100 + 30000;
  PurgeLeaseList();
  EXPECT_FALSE(Holds(older));
  EXPECT_FALSE(Holds(newer));
  EXPECT_TRUE(Holds(other));
  ASSERT_EQ(1u, g_unlocked.size());
  EXPECT_EQ(7, g_unlocked[0][0]);
  // The newer lease is met first and leaves the map locked for the older.
  EXPECT_FALSE(log_.Contains("purging expired lease 0x1\n"));
  EXPECT_TRUE(log_.Contains("purging expired lease 0x0\n"));
  EXPECT_EQ(leaseListHeadGlb.next, leaseListHeadGlb.prev);
  EXPECT_EQ(other, leaseListHeadGlb.next->key);
}

TEST_F(PurgeTest, LeaseWithoutLibraryIsStillPurged) {
  const FSULONG key = Add(1, 1, 0, 0, nullptr);
  g_now = 30000;
  PurgeLeaseList();
  EXPECT_FALSE(Holds(key));
  EXPECT_TRUE(log_.Contains("purging expired lease 0x0\n"));
  EXPECT_EQ(memStart_, g_kmemstat);
}

}  // namespace
