// Service provider start-up, the volume dispatcher list and reply buffers.
#include "sp/fsmdcsp.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "support/testfs.h"
#include "sp/lease.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

namespace fs = std::filesystem;

class FsmdcspInitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KESTRIX_LIBDIR", lib_.path().c_str(), 1);
    setenv("KESTRIX_TESTFS_DIR", steer_.path().c_str(), 1);
  }
  TestFs Fs(const std::string& name) const { return TestFs(steer_.path(), name); }
  void ExpectInitLines(int n, int i, int slot, const FsLibrary* lib) const {
    char line[80];
    snprintf(line, sizeof line, "SP FSMDCSP_Init i:%d libs[%d]:%x\n", i, slot,
             unsigned(uintptr_t(lib)));
    EXPECT_EQ(CountOf(log_.Text(), "FSMDCSP_Init i:"), n);
    EXPECT_TRUE(log_.Contains(line)) << line;
  }
  TempDir lib_, steer_;
  LogCapture log_{9};
};

std::atomic<uint32_t> g_now{1000};

TEST_F(FsmdcspInitTest, NoDirectoryLeavesTableEmptyAndStillStartsThePurgeThread) {
  setenv("KESTRIX_LIBDIR", lib_.File("absent").c_str(), 1);
  SetClockForTesting([] { return g_now.load(); });
  EXPECT_EQ(FSMDCSP_Init(), 0);
  EXPECT_EQ(libCount, 0);
  EXPECT_TRUE(ServiceProviderReady());
  ExpectInitLines(1, 0, 0, nullptr);

  // The purge thread runs: a lease whose time is up goes without anyone asking.
  const uint8_t cookie[FS_COOKIE_SIZE] = {7};
  const FSUNI noName[1] = {0};
  FSULONG key = 0;
  ASSERT_EQ(AddLeaseToList(cookie, cookie, cookie, cookie, 1, 0, &key, nullptr, noName), 0);
  g_now = 1000 + kLeaseGraceMs;
  LeaseEntry copy;
  EXPECT_TRUE(PollUntil([&] { return GetLeaseCopy(key, &copy) == LEASE_NOT_FOUND_COPY; }, 15000));
  SetClockForTesting(nullptr);
}

TEST_F(FsmdcspInitTest, RefusedLibrariesTakeNoSlotAndTheAcceptedOneGetsTheLogLevel) {
  // The loader takes the listing backwards: make the good one come last.
  std::string good;
  for (int k = 0; k < 64 && good.empty(); ++k) {
    for (const auto& e : fs::directory_iterator(lib_.path())) fs::remove(e);
    std::string name = "good" + std::to_string(k) + ".so";
    if (k % 2 == 0) InstallTestPlugin("libtestfs.so", lib_.path(), name);
    InstallTestPlugin("libtestfs_v231.so", lib_.path(), "v231.so");
    InstallTestPlugin("libtestfs_initfail.so", lib_.path(), "initfail.so");
    if (k % 2 == 1) InstallTestPlugin("libtestfs.so", lib_.path(), name);
    if (fs::directory_iterator(lib_.path())->path().filename() == name) good = name;
  }
  ASSERT_FALSE(good.empty()) << "could not arrange the listing order";
  EXPECT_EQ(FSMDCSP_Init(), FSMDCSP_RESULT_LIB_REFUSED);
  EXPECT_EQ(libCount, 1);
  ExpectInitLines(4, 2, 0, libs[0]);  // the refused ones did not take slot 0
  EXPECT_EQ(Fs("v231.so").CountCalls("FS_Init"), 0);  // too new: refused before FS_Init
  EXPECT_EQ(Fs("initfail.so").CountCalls("FS_SetLog"), 0);
  std::vector<CallRecord> calls = Fs(good).Calls();
  ASSERT_EQ(calls.size(), 3u);  // FS_GetVersion, FS_Init, then FS_SetLog
  EXPECT_EQ(calls[2].function, "FS_SetLog");
  EXPECT_EQ(calls[2].Get("level"), "9");  // read through the daemon's level pointer
  EXPECT_EQ(calls[2].Get("reserved"), "null");
}

TEST_F(FsmdcspInitTest, AtMostThirtyTwoLibrariesAreLoadedWithoutFsSetLog) {
  for (int i = 0; i <= FSMDCSP_MAX_LIBS; ++i)
    InstallTestPlugin("libtestfs_noopt.so", lib_.path(), "lib" + std::to_string(i) + ".so");
  EXPECT_EQ(FSMDCSP_Init(), 0);
  EXPECT_EQ(libCount, FSMDCSP_MAX_LIBS);
  for (int i = 0; i < FSMDCSP_MAX_LIBS; ++i) ExpectInitLines(FSMDCSP_MAX_LIBS, i, i, libs[i]);
  EXPECT_EQ(CountOf(log_.Text(), "Info opened lib "), FSMDCSP_MAX_LIBS);  // not the 33rd
}

TEST(DispatchListTest, LaterClaimReplacesTheEarlierOneAndUnknownCookiesFindNothing) {
  InitDispatchList();
  FsLibrary first{}, second{};
  std::vector<uint8_t> a(FS_COOKIE_SIZE, 'v'), b = a, unknown = a;
  b.back() = 1, unknown.back() = 2;  // each differs from a in the last byte only
  AddVolumeDispatcherToList(a.data(), &first);
  AddVolumeDispatcherToList(b.data(), &first);
  int32_t before = g_kmemstat;
  EXPECT_EQ(AddVolumeDispatcherToList(a.data(), &second), 0);
  EXPECT_EQ(g_kmemstat, before);  // replaced in place
  EXPECT_EQ(GetLibrary(a.data()), &second);
  EXPECT_EQ(GetLibrary(b.data()), &first);
  EXPECT_EQ(GetLibrary(unknown.data()), nullptr);
}

TEST(SpInitReplyTest, OpensTheReplyWithTheRequestHeader) {
  // The byte-order mark as received; the reply has 1 in its own order.
  const LanHeader request = {0x1000000, 77, {0xA0, 0xA1}, 2, 2160, LAN_FLAG_TRACK, 9, {}, '/', {}};
  auto* reply = reinterpret_cast<uint8_t*>(SP_InitReply(&request, 300, nullptr));
  ASSERT_NE(reply, nullptr);
  const LanHeader want = {1, 77, {0xA0, 0xA1}, -2, 300, LAN_FLAG_TRACK, 0, {}, '/', {}};
  EXPECT_EQ(memcmp(reply, &want, LAN_HEADER_SIZE), 0);
  EXPECT_EQ(std::count(reply + LAN_HEADER_SIZE, reply + 300, 0), 300 - LAN_HEADER_SIZE);
  ksxmem_free(reply);
}

}  // namespace
}  // namespace kestrix::test
