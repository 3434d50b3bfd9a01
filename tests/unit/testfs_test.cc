// testfs keeps end-to-end tests honest: unknown conf lines are recorded; maps fit the room.
#include "support/testfs.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include "fslibrary.h"
#include "fsmdc.h"
#include "support/test_util.h"

namespace kestrix::test {

TEST(TestFsPluginTest, RecordsConfErrorsAndKeepsMapsWithinTheRoom) {
  TempDir libs, steer;
  setenv("KESTRIX_TESTFS_DIR", steer.path().c_str(), 1);
  void* h = dlopen(InstallTestPlugin("libtestfs.so", libs.path(), "map.so").c_str(), RTLD_NOW);
  ASSERT_NE(h, nullptr) << dlerror();
  TestFs fs(steer.path(), "map.so");
  fs.Configure("result FS_GetLockedMap 1\nmap.extentType 2\nmap.nExtents 3\nbogus 1\n");
  auto getMap = reinterpret_cast<FS_GetLockedMap_t>(dlsym(h, "FS_GetLockedMap"));
  alignas(8) uint8_t buf[256];
  memset(buf, 0xEE, sizeof(buf));
  FSMapInfo* map = reinterpret_cast<FSMapInfo*>(buf);
  FSULONG room = 64 + 2 * 24 + 10;  // room for two of the three extents
  const std::vector<uint8_t> v = CookieBytes("v"), f = CookieBytes("f");
  EXPECT_EQ(getMap(v.data(), f.data(), 8192, -1, 2, map, &room), 1);
  EXPECT_EQ(std::tuple(map->nExtents, map->extentType, map->msgLen),
            std::tuple(3, 2u, 64 + 2 * 24));
  EXPECT_EQ(buf[64 + 48], 0xEE) << "wrote past the room";
  const CallRecord conf = fs.Calls().at(0), call = fs.Calls("FS_GetLockedMap").at(0);
  EXPECT_EQ(conf.function + " " + conf.Get("text"), "ConfError bogus 1");
  EXPECT_EQ(call.fields, (decltype(call.fields){{"vol", "v"}, {"file", "f"}, {"start", "8192"},
            {"length", "-1"}, {"flags", "2"}, {"room", "122"}, {"result", "1"}}));
  dlclose(h);
}

}  // namespace kestrix::test
