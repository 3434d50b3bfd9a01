// Service provider start-up and the volume dispatcher list.
#include "sp/fsmdcsp.h"
#include "sp/sp_state.h"

#include <gtest/gtest.h>

#include "support/testfs.h"
#include "unixmdc/loadlib.h"
#include "utils/ksxmem.h"

namespace kestrix::test {
namespace {

class FsmdcspInitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KESTRIX_LIBDIR", lib_.path().c_str(), 1);
    setenv("KESTRIX_TESTFS_DIR", steer_.path().c_str(), 1);
  }
  TestFs Fs(const std::string& name) const { return TestFs(steer_.path(), name); }
  TempDir lib_, steer_;
  LogCapture log_{9};
};

TEST_F(FsmdcspInitTest, OnlyALibraryThatAcceptsIsKeptAndSetUp) {
  InstallTestPlugin("libtestfs.so", lib_.path(), "good.so");
  InstallTestPlugin("libtestfs_v231.so", lib_.path(), "v231.so");
  InstallTestPlugin("libtestfs_initfail.so", lib_.path(), "initfail.so");
  EXPECT_EQ(FSMDCSP_Init(FSMDCSP_LoadNextLibrary), FSMDCSP_RESULT_LIB_REFUSED);
  EXPECT_EQ(std::tuple(libCount, Fs("v231.so").CountCalls("FS_Init"),
                       Fs("initfail.so").CountCalls("FS_SetLog")),
            std::tuple(1, 0, 0));  // too new: refused before FS_Init
  std::vector<CallRecord> calls = Fs("good.so").Calls();
  ASSERT_EQ(calls.size(), 3u);  // FS_GetVersion, FS_Init, then FS_SetLog
  EXPECT_EQ(std::tuple(calls[2].function, calls[2].Get("level"), calls[2].Get("reserved")),
            std::tuple("FS_SetLog", "9", "null"));  // read through the daemon's level pointer
}

TEST_F(FsmdcspInitTest, AtMostThirtyTwoLibrariesAreLoadedWithoutFsSetLog) {
  for (int i = 0; i <= FSMDCSP_MAX_LIBS; ++i)
    InstallTestPlugin("libtestfs_noopt.so", lib_.path(), "lib" + std::to_string(i) + ".so");
  EXPECT_EQ(FSMDCSP_Init(FSMDCSP_LoadNextLibrary), 0);
  EXPECT_EQ(libCount, FSMDCSP_MAX_LIBS);
  EXPECT_EQ(CountOf(log_.Text(), "Info opened lib "), FSMDCSP_MAX_LIBS);  // not the 33rd
  EXPECT_TRUE(ServiceProviderReady());
}

TEST(DispatchListTest, EachCookieFindsTheLibraryThatClaimedItLast) {
  InitDispatchList();
  FsLibrary first{}, second{};
  std::vector<uint8_t> a(FS_COOKIE_SIZE, 'v'), b = a, unknown = a;
  // Each differs from a in the last byte only.
  b.back() = 1;
  unknown.back() = 2;
  AddVolumeDispatcherToList(a.data(), &first);
  AddVolumeDispatcherToList(b.data(), &first);
  const int32_t before = g_kmemstat;
  EXPECT_EQ(AddVolumeDispatcherToList(a.data(), &second), 0);
  EXPECT_EQ(g_kmemstat, before);  // replaced in place
  EXPECT_EQ(std::tuple(GetLibrary(a.data()), GetLibrary(b.data()), GetLibrary(unknown.data())),
            std::tuple(&second, &first, nullptr));
}

}  // namespace
}  // namespace kestrix::test
