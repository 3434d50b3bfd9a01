// Service provider start-up, the volume dispatcher list and reply buffers.
#include "sp/fsmdcsp.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "support/testfs.h"
#include "sp/lease.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

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

// The purge thread's work is seen end to end (leases expire by themselves).
TEST_F(FsmdcspInitTest, NoDirectoryLeavesTableEmptyAndStillStartsThePurgeThread) {
  setenv("KESTRIX_LIBDIR", lib_.File("absent").c_str(), 1);
  EXPECT_EQ(FSMDCSP_Init(), 0);
  EXPECT_EQ(libCount, 0);
  EXPECT_TRUE(ServiceProviderReady());
  ExpectInitLines(1, 0, 0, nullptr);
}

// Whatever the listing order, the refused libraries take no slot.
TEST_F(FsmdcspInitTest, RefusedLibrariesTakeNoSlotAndTheAcceptedOneGetsTheLogLevel) {
  InstallTestPlugin("libtestfs.so", lib_.path(), "good.so");
  InstallTestPlugin("libtestfs_v231.so", lib_.path(), "v231.so");
  InstallTestPlugin("libtestfs_initfail.so", lib_.path(), "initfail.so");
  EXPECT_EQ(FSMDCSP_Init(), FSMDCSP_RESULT_LIB_REFUSED);
  ASSERT_EQ(libCount, 1);
  EXPECT_EQ(CountOf(log_.Text(), "FSMDCSP_Init i:"), 4);
  EXPECT_EQ(Fs("v231.so").CountCalls("FS_Init"), 0);  // too new: refused before FS_Init
  EXPECT_EQ(Fs("initfail.so").CountCalls("FS_SetLog"), 0);
  std::vector<CallRecord> calls = Fs("good.so").Calls();
  ASSERT_EQ(calls.size(), 3u);  // FS_GetVersion, FS_Init, then FS_SetLog
  EXPECT_EQ(std::tuple(calls[2].function, calls[2].Get("level"), calls[2].Get("reserved")),
            std::tuple("FS_SetLog", "9", "null"));  // read through the daemon's level pointer
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
