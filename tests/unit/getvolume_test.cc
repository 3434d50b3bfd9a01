// The GetVolume handler called in-process for what a client cannot cause:
// failed allocations and a path area that runs into the bytes after it.
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include "sp/fsmdcsp.h"
#include "sp/handlers.h"
#include "spmsgs.h"
#include "support/test_util.h"
#include "support/testfs.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

constexpr uint8_t kComm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

// A request as the LAN server hands it over; a null path leaves its area alone.
void Fill(GetVolumeMsg* msg, const char* path, const std::string& cookie) {
  memset(msg, 0, offsetof(GetVolumeMsg, path));
  msg->header.byteOrder = LAN_BYTEORDER_MARK;
  msg->header.revision = 5;
  memcpy(msg->volumeCookie, CookieBytes(cookie).data(), FS_COOKIE_SIZE);
  for (size_t i = 0; path != nullptr && i <= strlen(path); ++i) msg->path[i] = FSUNI(path[i]);
}

// The handler's allocations, in order: the mount-point buffer, a dispatcher
// entry for a newly claimed volume, the full-size reply, then the 272-byte one.
TEST(GetVolumeTest, AllocationFailuresAnswerShortOrNotAtAllAndLeakNothing) {
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
  ASSERT_EQ(libCount, 1);
  fs.ClearCalls();
  int32_t start = 0;
  auto callFailing = [&](GetVolumeMsg* msg, int nth, int count) {  // on a fresh log
    log.Clear();
    start = g_kmemstat;
    FailGetmem(nth, count);
    auto* reply = reinterpret_cast<GetVolumeReply*>(SP_LanGetVolume(&msg->header, kComm));
    FailGetmem(0, 0);
    return reply;
  };
  auto expectNoMemory = [&](GetVolumeReply* reply, FSLONG revision) {
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->result, SP_RESULT_NO_MEMORY);
    EXPECT_EQ(reply->header.length, 272u);
    EXPECT_EQ(reply->header.revision, revision);
    ksxmem_free(reply);
    EXPECT_EQ(g_kmemstat, start);
  };
  auto count = [&](const std::string& line) { return CountOf(log.Text(), line); };

  GetVolumeMsg msg{};
  Fill(&msg, "share1", "");
  expectNoMemory(callFailing(&msg, 1, 1), 5);  // no mount-point buffer
  EXPECT_TRUE(log.Contains("tag:gvmt\n"));
  EXPECT_FALSE(log.Contains("sambaCheck"));
  EXPECT_TRUE(fs.Calls().empty());
  AddVolumeDispatcherToList(CookieBytes("VOLA").data(), libs[0]);
  Fill(&msg, "", "VOLA");
  expectNoMemory(callFailing(&msg, 2, 1), 217);  // no full-size reply
  EXPECT_EQ(count("Error SP_InitReply failed to malloc reply of 65536 bytes\n"), 1);
  EXPECT_EQ(count("Error Out of memory while getting volume information\n"), 1);
  EXPECT_EQ(fs.CountCalls("FS_GetVolByCookie"), 0);
  EXPECT_EQ(callFailing(&msg, 2, 2), nullptr);  // not even the short reply
  EXPECT_EQ(count("Error SP_InitReply failed to malloc reply of 65536 bytes\n"), 1);
  EXPECT_EQ(count("Error SP_InitReply failed to malloc reply of 272 bytes\n"), 1);
  EXPECT_FALSE(log.Contains("--- GetVolume Reply Message ---"));
  EXPECT_EQ(g_kmemstat, start);
}

TEST(GetVolumeTest, PathWithoutTerminatorStaysInsideItsArea) {
  LogCapture log(12);
  InitDispatchList();
  // The request sits in a larger receive buffer whose next units are backslashes too.
  std::vector<FSUNI> buffer(sizeof(GetVolumeMsg) / 2 + 16, '\\');
  buffer.back() = 0;
  auto* msg = reinterpret_cast<GetVolumeMsg*>(buffer.data());
  Fill(msg, nullptr, "");
  auto* reply = reinterpret_cast<GetVolumeReply*>(SP_LanGetVolume(&msg->header, kComm));
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_NO_LIBRARY);
  ksxmem_free(reply);
  for (size_t i = sizeof(GetVolumeMsg) / 2; i + 1 < buffer.size(); ++i)
    EXPECT_EQ(buffer[i], '\\') << "unit " << i << " past the request was rewritten";
}

}  // namespace
}  // namespace kestrix::test
