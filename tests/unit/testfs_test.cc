// The testfs plug-in's steering, which every end-to-end test relies on:
// per-instance conf and call records, cookies, and the structures it writes.
#include "support/testfs.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fslibrary.h"
#include "fsmdc.h"
#include "support/test_util.h"

namespace kestrix::test {
namespace {

class TestFsPluginTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("KESTRIX_TESTFS_DIR", steer_.path().c_str(), 1); }
  void TearDown() override {
    for (void* h : handles_) dlclose(h);
    unsetenv("KESTRIX_TESTFS_DIR");
  }
  void* Open(const std::string& name) {
    void* h = dlopen(InstallTestPlugin("libtestfs.so", libs_.path(), name).c_str(), RTLD_NOW);
    EXPECT_NE(h, nullptr) << dlerror();
    handles_.push_back(h);
    return h;
  }
  template <typename Fn>
  static Fn Sym(void* h, const char* name) {
    return reinterpret_cast<Fn>(dlsym(h, name));
  }

  TempDir libs_, steer_;
  std::vector<void*> handles_;
};

TEST_F(TestFsPluginTest, InstancesAreSteeredAndRecordedSeparately) {
  void* one = Open("one.so");
  void* two = Open("two.so");
  TestFs fs1(steer_.path(), "one.so"), fs2(steer_.path(), "two.so");
  fs1.Configure("# comment\nfile /m/a%20b vol-a file-x\nresult FS_GetCookies 0\nbogus 1\n");

  const FSUNI path[] = {'/', 'm', '/', 'a', ' ', 'b', 0};
  uint8_t vol[32], file[32];
  memset(vol, 0xEE, sizeof(vol));
  memset(file, 0xEE, sizeof(file));
  EXPECT_EQ(Sym<FS_GetCookies_t>(one, "FS_GetCookies")(path, vol, file), 0);
  EXPECT_EQ(std::vector<uint8_t>(vol, vol + 32), CookieBytes("vol-a"));
  EXPECT_EQ(std::vector<uint8_t>(file, file + 32), CookieBytes("file-x"));
  EXPECT_EQ(Sym<FS_GetCookies_t>(two, "FS_GetCookies")(path, vol, file), -380);
  EXPECT_EQ(Sym<FS_GetVersion_t>(two, "FS_GetVersion")(), 230);

  std::vector<CallRecord> calls = fs1.Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].function, "ConfError");
  EXPECT_EQ(calls[0].Get("text"), "bogus 1");
  EXPECT_EQ(calls[1].function, "FS_GetCookies");
  EXPECT_EQ(calls[1].Get("path"), "/m/a b");
  EXPECT_EQ(calls[1].Int("result"), 0);
  EXPECT_EQ(fs2.CountCalls("FS_GetCookies"), 1);
  EXPECT_EQ(fs2.Calls("FS_GetCookies")[0].Int("result"), -380);
}

TEST_F(TestFsPluginTest, MapFollowsConfAndStaysWithinRoom) {
  void* h = Open("map.so");
  TestFs fs(steer_.path(), "map.so");
  fs.Configure("result FS_GetLockedMap 1 5\nmap.extentType 2\nmap.nExtents 3\n");
  auto getMap = Sym<FS_GetLockedMap_t>(h, "FS_GetLockedMap");
  alignas(8) uint8_t buf[256];
  memset(buf, 0xEE, sizeof(buf));
  FSULONG room = 64 + 2 * 24 + 10;  // room for two of the three extents
  std::vector<uint8_t> v = CookieBytes("v"), f = CookieBytes("f");
  EXPECT_EQ(getMap(v.data(), f.data(), 8192, -1, 2, reinterpret_cast<FSMapInfo*>(buf), &room), 1);
  EXPECT_EQ(getMap(v.data(), f.data(), 0, 100, 0, reinterpret_cast<FSMapInfo*>(buf), &room), 5);
  EXPECT_EQ(getMap(v.data(), f.data(), 0, 100, 0, reinterpret_cast<FSMapInfo*>(buf), &room), 5);

  FSMapInfo m;
  memcpy(&m, buf, sizeof(m));
  EXPECT_EQ(m.nExtents, 3);
  EXPECT_EQ(m.extentType, 2u);
  EXPECT_EQ(m.msgLen, 64 + 2 * 24);
  EXPECT_EQ(m.fileOffset, 0);
  EXPECT_EQ(m.fileBytes, 100);
  SimpleExtent e;
  memcpy(&e, buf + 64 + 24, sizeof(e));
  EXPECT_EQ(e.VolOrd, 1);
  EXPECT_EQ(e.VolSliceBlock, 2000);
  EXPECT_EQ(buf[64 + 48], 0xEE) << "wrote past the room";

  std::vector<CallRecord> calls = fs.Calls("FS_GetLockedMap");
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].Get("vol"), "v");
  EXPECT_EQ(calls[0].Get("file"), "f");
  EXPECT_EQ(calls[0].Int("start"), 8192);
  EXPECT_EQ(calls[0].Int("length"), -1);
  EXPECT_EQ(calls[0].Int("flags"), 2);
  EXPECT_EQ(calls[0].Int("room"), 122);
}

TEST_F(TestFsPluginTest, VolumeDescriptionWithDisksOrErrorText) {
  void* h = Open("vol.so");
  TestFs fs(steer_.path(), "vol.so");
  auto getVol = Sym<FS_GetVolByCookie_t>(h, "FS_GetVolByCookie");
  std::vector<uint8_t> cookie = CookieBytes("vol-a");
  alignas(8) uint8_t buf[512];
  FSULONG room = sizeof(buf);

  fs.Configure("vol.nDisks 2\nvol.IDlength 4\n");
  EXPECT_EQ(getVol(cookie.data(), reinterpret_cast<VolInfo*>(buf), &room), 0);
  VolInfo v;
  memcpy(&v, buf, sizeof(v));
  EXPECT_EQ(v.nDisks, 2u);
  EXPECT_EQ(v.msgLen, 104 + 160);
  EXPECT_EQ(std::vector<uint8_t>(v.Cookie, v.Cookie + 32), cookie);
  FSDisk d;
  memcpy(&d, buf + 104 + 80, sizeof(d));
  EXPECT_EQ(d.DiskID[0], 0x20);
  EXPECT_EQ(d.IDlength, 4u);
  EXPECT_EQ(d.nBlocks, 200000);

  fs.Configure("vol.vendorStatus 7\nvol.error no%20disk\nresult FS_GetVolByCookie 7\n");
  EXPECT_EQ(getVol(cookie.data(), reinterpret_cast<VolInfo*>(buf), &room), 7);
  const FSUNI want[] = {'n', 'o', ' ', 'd', 'i', 's', 'k', 0};
  EXPECT_EQ(memcmp(buf + 104, want, sizeof(want)), 0);
  EXPECT_EQ(fs.Calls("FS_GetVolByCookie").back().Get("vol"), "vol-a");
}

}  // namespace
}  // namespace kestrix::test
