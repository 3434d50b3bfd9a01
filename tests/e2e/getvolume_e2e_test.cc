// GetVolume end to end: the real daemon with testfs plug-ins and an
// smb.conf of the test's own, asked over UDP.
#include <gtest/gtest.h>

#include <cstring>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::Endpoint;
using client::Read;

constexpr size_t kGetVolumeSize = 180 + 2048;

Bytes GetVolumeRequest(const std::string& path, const std::string& cookie = "",
                       const std::string& id = "", uint32_t flags = 0) {
  Bytes request = client::MakeRequest(1, kGetVolumeSize, flags, id);
  client::PutText(request, 180, 1023, client::ToUtf16(path));
  std::memcpy(request.data() + 84, cookie.data(), std::min<size_t>(cookie.size(), 32));
  return request;
}

std::string CookieAt(const Bytes& reply, size_t offset) {
  return std::string(reinterpret_cast<const char*>(reply.data() + offset),
                     strnlen(reinterpret_cast<const char*>(reply.data() + offset), 32));
}

class GetVolumeE2E : public PluginDaemonTest {
 protected:
  void SetUp() override {
    PluginDaemonTest::SetUp();
    WriteFile(daemon_.dir().File("smb.conf"),
              "[global]\n   workgroup = demo\n[data]\n   path = /export/data\n");
  }
};

TEST_F(GetVolumeE2E, ShareServedBySecondLibraryAfterFirstRefuses) {
  Install("libtestfs.so", "liba.so", "version 228\n");
  Install("libtestfs.so", "libb.so", "version 229\n");
  Start();
  auto order = LoadOrder();
  ASSERT_EQ(order.size(), 2u);
  const std::string first = order[0], second = order[1];
  Fs(first).Configure("version 228\nmiss FS_GetVolCookie 17\n");
  Fs(second).Configure("version 229\nvolume /export/data vol-b\nvol.nDisks 2\n");

  Bytes reply = Ask(GetVolumeRequest("data", "", "gv-1"));
  EXPECT_EQ(Read<int32_t>(reply, 48), 0);
  EXPECT_EQ(Read<uint32_t>(reply, 28), 352u);  // length
  EXPECT_EQ(reply.size(), 352u);
  EXPECT_EQ(Read<int32_t>(reply, 24), -1);
  EXPECT_EQ(Read<int32_t>(reply, 4), 229);  // revision: the serving library's version
  EXPECT_EQ(Read<uint32_t>(reply, 88 + 20), 2u);    // nDisks
  EXPECT_EQ(Read<int32_t>(reply, 88 + 24), 4096);   // BlockSize
  EXPECT_EQ(reply[192], 0x10);                      // first disk's ID
  EXPECT_EQ(Read<int64_t>(reply, 192 + 80 + 32), 200000);  // second disk's nBlocks

  auto refused = Fs(first).Calls("FS_GetVolCookie");
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].Get("mount"), "/export/data");
  EXPECT_EQ(Fs(second).Calls("FS_GetVolCookie").at(0).Get("mount"), "/export/data");
  EXPECT_EQ(Fs(second).Calls("FS_GetVolByCookie").at(0).Get("vol"), "vol-b");
  EXPECT_EQ(Fs(second).Calls("FS_GetVolByCookie").at(0).Int("room"), 65536 - 272);
  EXPECT_EQ(CountOf(daemon_.Log(),
                    "Error SP_LanGetVolume: FS_GetVolCookie call to lib[0] returned 17\n"),
            1);
  EXPECT_EQ(CountOf(daemon_.Log(), "FS_GetVolCookie call to lib[1]"), 0);

  // The volume is now known by its cookie: an empty path needs no share
  // lookup and no FS_GetVolCookie.
  int parsesBefore = CountOf(daemon_.Log(), "parseSmbConfFile: Opening");
  Bytes byCookie = Ask(GetVolumeRequest("", "vol-b", "gv-2"));
  EXPECT_EQ(Read<int32_t>(byCookie, 48), 0);
  EXPECT_EQ(Read<uint32_t>(byCookie, 28), 352u);
  EXPECT_EQ(Fs(second).CountCalls("FS_GetVolCookie"), 1);
  EXPECT_EQ(Fs(first).CountCalls("FS_GetVolCookie"), 1);
  EXPECT_EQ(Fs(second).CountCalls("FS_GetVolByCookie"), 2);
  EXPECT_EQ(CountOf(daemon_.Log(), "parseSmbConfFile: Opening"), parsesBefore);
}

TEST_F(GetVolumeE2E, UnknownShareUnknownCookieAndErrorText) {
  Install("libtestfs.so", "liba.so",
          "volume /export/data vol-a\nvol.vendorStatus 7\nvol.nDisks 0\n"
          "vol.error 0123456789\nresult FS_GetVolByCookie 7\n");
  Start();

  Bytes unknown = Ask(GetVolumeRequest("nosuch"));
  EXPECT_EQ(Read<int32_t>(unknown, 48), 3);
  EXPECT_EQ(unknown.size(), 272u);
  EXPECT_TRUE(daemon_.WaitForLog(
      "Error FTX1201W OSL_ShareNameToMountPoint failed name is : nosuch\n"));

  Bytes noVolume = Ask(GetVolumeRequest("", "never-claimed"));
  EXPECT_EQ(Read<int32_t>(noVolume, 48), 405);
  EXPECT_EQ(noVolume.size(), 272u);

  Bytes errorText = Ask(GetVolumeRequest("data"));
  EXPECT_EQ(Read<int32_t>(errorText, 48), 7);  // the library's own status
  EXPECT_EQ(errorText.size(), 294u);           // 272 + 2 x (10 + 1)
  EXPECT_EQ(Read<uint16_t>(errorText, 192), u'0');
}

TEST_F(GetVolumeE2E, NoLibraryAcceptsTheMountPoint) {
  // The cookie a refusing library leaves behind names a known volume: still 405.
  Install("libtestfs.so", "liba.so",
          "volume /export/data vol-a\nmiss FS_GetVolCookie 2\nmisscookie vol-a\n");
  Start();
  EXPECT_EQ(Read<int32_t>(Ask(GetVolumeRequest("data")), 48), 0);
  Bytes reply = Ask(GetVolumeRequest("/export/elsewhere"));
  EXPECT_EQ(Read<int32_t>(reply, 48), 405);
  EXPECT_EQ(reply.size(), 272u);
  EXPECT_EQ(Fs("liba.so").Calls("FS_GetVolCookie").at(1).Get("mount"), "/export/elsewhere");
  EXPECT_EQ(Fs("liba.so").CountCalls("FS_GetVolByCookie"), 1);
}

TEST_F(GetVolumeE2E, RefusedLibraryTakesNoSlot) {
  Install("libtestfs_v231.so", "libnew.so", "volume /export/data vol-new\n");
  Install("libtestfs.so", "libok.so", "volume /export/data vol-ok\n");
  Start();
  EXPECT_EQ(LoadOrder().size(), 2u);  // both load; one is refused afterwards
  Bytes reply = Ask(GetVolumeRequest("data"));
  EXPECT_EQ(Read<int32_t>(reply, 48), 0);
  EXPECT_EQ(Read<int32_t>(reply, 4), 230);
  EXPECT_EQ(CookieAt(reply, 88 + 32), "vol-ok");
  EXPECT_EQ(Fs("libnew.so").CountCalls("FS_GetVolCookie"), 0);
  EXPECT_EQ(Fs("libnew.so").CountCalls("FS_Init"), 0);
  EXPECT_EQ(CountOf(daemon_.Log(), "FSMDCSP_Init i:"), 3);  // two libraries, then null
}

TEST_F(GetVolumeE2E, BackslashPathAndOtherByteOrder) {
  Install("libtestfs.so", "liba.so", "volume /export/data vol-a\n");
  Start();
  Bytes request = GetVolumeRequest("\\export\\data", "", "bs");
  Bytes reply = Ask(request);
  EXPECT_EQ(Read<int32_t>(reply, 48), 0);
  EXPECT_EQ(Fs("liba.so").Calls("FS_GetVolCookie").at(0).Get("mount"), "/export/data");
  // The request dump runs before the conversion and shows the backslashes.
  EXPECT_TRUE(daemon_.WaitForLog("SP path \\export\\data\n"));

  Bytes swapped = GetVolumeRequest("data", "", "sw");
  client::SwapHeader(swapped);
  for (size_t i = 180; i < swapped.size(); i += 2) std::swap(swapped[i], swapped[i + 1]);
  Bytes swappedReply = Ask(swapped);
  EXPECT_EQ(Read<uint32_t>(swappedReply, 0), 1u);
  EXPECT_EQ(Read<int32_t>(swappedReply, 24), -1);
  EXPECT_EQ(Read<int32_t>(swappedReply, 48), 0);
  EXPECT_EQ(Read<uint32_t>(swappedReply, 28), 272u);
  EXPECT_EQ(Fs("liba.so").Calls("FS_GetVolCookie").at(1).Get("mount"), "/export/data");
}

TEST_F(GetVolumeE2E, TrackedRepeatIsAnsweredWithoutAskingTheLibraryAgain) {
  Install("libtestfs.so", "liba.so", "volume /export/data vol-a\n");
  Start();
  Bytes request = GetVolumeRequest("data", "", "again", 1);
  Bytes first = Ask(request);
  Bytes second = Ask(request);
  EXPECT_EQ(first, second);
  EXPECT_EQ(Fs("liba.so").CountCalls("FS_GetVolByCookie"), 1);
}

TEST_F(GetVolumeE2E, MaxDgramBoundsTheRoomAndIsReportedWhenRaised) {
  Install("libtestfs.so", "liba.so", "volume /export/data vol-a\nvol.nDisks 40\n");
  daemon_.SetEnv("MAXDGRAM", "100");
  Start();
  EXPECT_TRUE(daemon_.WaitForLog("MAXDGRAM 100"));
  Bytes reply = Ask(GetVolumeRequest("data"));
  EXPECT_EQ(Fs("liba.so").Calls("FS_GetVolByCookie").at(0).Int("room"), 1024 - 272);
  EXPECT_EQ(reply.size(), 1024u);  // 40 disks claimed, the buffer holds fewer
  EXPECT_EQ(Read<uint32_t>(reply, 28), 1024u);
}

}  // namespace
}  // namespace kestrix::test
