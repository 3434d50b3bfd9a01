// The GetVolume handler called in-process for what a client cannot cause:
// failed allocations and a path area that runs into the bytes after it.
#include <gtest/gtest.h>

#include "sp/fsmdcsp.h"
#include "sp/handlers.h"
#include "support/testfs.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

constexpr uint8_t kComm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

// The handler's allocations, in order: the mount-point buffer, a dispatcher
// entry for a newly claimed volume, the full-size reply, then the 272-byte
// one. Each failure answers 5 in a short reply, or nothing, and leaks nothing.
TEST(GetVolumeTest, AllocationFailuresAnswerShortOrNotAtAll) {
  TempDir lib, steer;
  LogCapture log(12);
  setenv("KESTRIX_LIBDIR", lib.path().c_str(), 1);
  setenv("KESTRIX_TESTFS_DIR", steer.path().c_str(), 1);
  WriteFile(steer.File("smb.conf"), "[share1]\n   path = /vol/a\n");
  setenv("KESTRIX_SMBPATH", steer.File("smb.conf").c_str(), 1);
  InstallTestPlugin("libtestfs.so", lib.path(), "liba.so");
  TestFs fs(steer.path(), "liba.so");
  fs.Configure("version 217\nvolume /vol/a VOLA\n");
  FSMDCSP_Init();
  fs.ClearCalls();
  AddVolumeDispatcherToList(CookieBytes("VOLA").data(), libs[0]);
  for (auto [path, nth, count, revision] : {std::tuple{"share1", 1, 1, 5}, {"", 2, 1, 217}, {"", 2, 2, -1}}) {
    GetVolumeMsg msg{};
    msg.header.byteOrder = LAN_BYTEORDER_MARK;
    msg.header.revision = 5;
    memcpy(msg.volumeCookie, CookieBytes(*path ? "" : "VOLA").data(), FS_COOKIE_SIZE);
    std::copy(path, path + strlen(path), msg.path);
    const int32_t start = g_kmemstat;
    FailGetmem(nth, count);
    auto* reply = reinterpret_cast<GetVolumeReply*>(SP_LanGetVolume(&msg.header, kComm));
    FailGetmem(0, 0);
    EXPECT_EQ(reply == nullptr, revision < 0);
    if (reply != nullptr) {
      EXPECT_EQ(std::tuple(reply->result, reply->header.length, reply->header.revision),
                std::tuple(SP_RESULT_NO_MEMORY, 272u, revision));
    }
    ksxmem_free(reply);
    EXPECT_EQ(g_kmemstat, start);
  }
  EXPECT_EQ(std::tuple(log.Contains("tag:gvmt\n"), log.Contains("sambaCheck"),
                       log.Contains("Error Out of memory while getting volume information\n"),
                       log.Contains("Error SP_InitReply failed to malloc reply of 272 bytes\n"),
                       CountOf(log.Text(), "Error SP_InitReply failed to malloc reply of 65536 bytes\n")),
            std::tuple(true, false, true, true, 2));
  EXPECT_EQ(fs.CountCalls("FS_GetVolCookie") + fs.CountCalls("FS_GetVolByCookie"), 0);
}

TEST(GetVolumeTest, PathWithoutTerminatorStaysInsideItsArea) {
  InitDispatchList();
  // The request sits in a larger receive buffer whose next units are backslashes too.
  std::vector<FSUNI> buffer(sizeof(GetVolumeMsg) / 2 + 16, '\\');
  buffer.back() = 0;
  auto* msg = reinterpret_cast<GetVolumeMsg*>(buffer.data());
  memset(msg, 0, offsetof(GetVolumeMsg, path));
  msg->header.byteOrder = LAN_BYTEORDER_MARK;
  auto* reply = reinterpret_cast<GetVolumeReply*>(SP_LanGetVolume(&msg->header, kComm));
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_NO_LIBRARY);
  ksxmem_free(reply);
  EXPECT_EQ(std::count(buffer.begin() + sizeof(GetVolumeMsg) / 2, buffer.end() - 1, '\\'), 15);
}

}  // namespace
}  // namespace kestrix::test
