// Tests of lease durations (CalcLease), the purge of expired leases and the key dump.
#include <gtest/gtest.h>

#include "sp/lease.h"
#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace {

// A CalcLease case. lib: none, the fake (answering result, read, write), no slot, no cookie.
struct Row { FSLONG asked; FSULONG intention; int lib; FSLONG result, read, write, lease; };
const Row* g_row = nullptr;
FSLONG FakeGetMaxLeases(const uint8_t*, FSLONG* readMax, FSLONG* writeMax) {
  *readMax = g_row->read;
  *writeMax = g_row->write;
  return g_row->result;
}

TEST(CalcLeaseTest, DefaultsAndLibraryMaxima) {
  FsLibrary lib{}, noSlot{};
  lib.FS_GetMaxLeases = FakeGetMaxLeases;
  FsLibrary* const libs[] = {nullptr, &lib, &noSlot, &lib};
  const uint8_t vol[FS_COOKIE_SIZE] = {};
  // Maxima of 0 mean the defaults; 3600000 s overflows 32 bits as ms and is capped at a day.
  const Row rows[] = {
      {0, 1, 0, 0, 0, 0, 5000}, {0, 0, 0, 0, 0, 0, 3600000}, {20000, 1, 1, 0, 10, 1000, 10000},
      {0, 0, 1, 0, 0, 0, 3600000}, {100000000, 0, 1, 0, 0, 0, 86400000}, {-5, 1, 1, 0, 10, 10, -5},
      {20000, 1, 1, 3, 1, 1, 20000}, {99999, 1, 2, 0, 1, 1, 99999}, {99999, 1, 3, 0, 1, 1, 99999},
      {800000000, 1, 1, 0, 5000000, 1, 705032704}};  // 5000000 s wraps to a positive count
  for (const Row& r : rows) {
    g_row = &r;
    EXPECT_EQ(r.lease, CalcLease(r.asked, r.intention, libs[r.lib], r.lib == 3 ? nullptr : vol))
        << "row " << &r - rows;
  }
}

uint32_t g_now = 0;
std::vector<uint8_t> g_unlocked;  // the first byte of each file cookie unlocked
FSLONG RecordUnlock(const uint8_t*, const uint8_t* f) { g_unlocked.push_back(f[0]); return 0; }
FsLibrary g_lib = [] { FsLibrary l{}; l.FS_UnlockMap = RecordUnlock; return l; }();
void Add(uint8_t fileByte, uint8_t sender, FSULONG created, FSULONG duration) {
  const uint8_t vol[FS_COOKIE_SIZE] = {9}, file[FS_COOKIE_SIZE] = {fileByte};
  const uint8_t msg[LAN_MSGID_SIZE] = {1}, comm[LAN_COMMCOOKIE_SIZE] = {sender};
  FSULONG key;
  g_now = created;
  EXPECT_EQ(0, AddLeaseToList(vol, file, msg, comm, 1, duration, &key, &g_lib, nullptr));
}
bool Holds(FSULONG key) { LeaseEntry copy; return GetLeaseCopy(key, &copy) == 0; }

TEST(PurgeTest, LeasesEndAfterDurationPlusGrace) {
  kestrix::test::LogCapture log(12);
  kestrix::SetClockForTesting([] { return g_now; });
  kestrix::InitLeaseList();
  Add(8, 1, 1000, 900000);  // key 0 outlives the test
  FSMDCSP_DumpKeyList();
  EXPECT_TRUE(log.Contains("Debug1 Key List Start\nDebug1   key: 0x0\nDebug1   volcookie:09\n"
                           "Debug1   filecookie:08\nDebug1 \nDebug1 Key List End\n"));
  const int32_t start = g_kmemstat;
  for (auto [file, sender] : {std::pair{1, 1}, {7, 1}, {7, 2}})  // keys 1 to 3; 2 and 3 share a file
    Add(file, sender, 1000, 5000);
  // 1001 ms before the clock wraps: 37000 ms old at 35999, but counted one short.
  Add(2, 1, 0xFFFFFC17u, 7000);  // key 4
  const uint8_t noLib[FS_COOKIE_SIZE] = {3};  // key 5: no library to unlock with
  FSULONG key5;
  EXPECT_EQ(0, AddLeaseToList(noLib, noLib, noLib, noLib, 1, 5000, &key5, nullptr, nullptr));
  g_now = 1000 + 5000 + 29999;
  EXPECT_EQ(0, PurgeLeaseList());
  EXPECT_TRUE(Holds(1) && Holds(2) && Holds(3) && Holds(4) && g_unlocked.empty());
  g_now = 1000 + 5000 + 30000;
  EXPECT_EQ(0, PurgeLeaseList());
  EXPECT_TRUE(Holds(0) && !Holds(1) && !Holds(2) && !Holds(3) && !Holds(4) && !Holds(5));
  EXPECT_EQ(start, g_kmemstat);
  EXPECT_EQ((std::vector<uint8_t>{2, 7, 1}), g_unlocked);  // one unlock per file
  EXPECT_FALSE(log.Contains("purging expired lease 0x3\n"));  // met first, leaves it to key 2
  EXPECT_TRUE(log.Contains("Debug1 Purged lease  key:0x1, intention:1  duration:5000 creation:1000 "
                           "time:36000\nDebug1 purging expired lease 0x1\n"));
  kestrix::SetClockForTesting(nullptr);
}

}  // namespace
