// The GetVolume handler called directly with requests built here, against
// testfs libraries loaded by the service provider's start-up.
#include <byteswap.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

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

constexpr FSLONG kRequestRevision = 5;
constexpr FSULONG kDefaultRoom = 65536 - SP_GETVOLUME_REPLY_SIZE;

struct FreeReply {
  void operator()(GetVolumeReply* r) const { ksxmem_free(r); }
};
using Reply = std::unique_ptr<GetVolumeReply, FreeReply>;

std::string NameOf(const FsLibrary* lib) {
  Dl_info info;
  if (lib == nullptr || dladdr(reinterpret_cast<void*>(lib->FS_Init), &info) == 0) return "";
  std::string path = info.dli_fname;
  return path.substr(path.rfind('/') + 1);
}

// A request as the LAN server hands it over: header in host order.
std::unique_ptr<GetVolumeMsg> Request(const std::string& path, const std::string& cookie = "") {
  auto msg = std::make_unique<GetVolumeMsg>();
  msg->header.byteOrder = LAN_BYTEORDER_MARK;
  msg->header.revision = kRequestRevision;
  for (int i = 0; i < LAN_MSGID_SIZE; ++i) msg->header.messageID[i] = static_cast<uint8_t>(i + 1);
  msg->header.functionCode = SP_FUNC_GETVOLUME;
  msg->header.length = sizeof(GetVolumeMsg);
  msg->header.pathSeparator = '/';
  for (size_t i = 0; i < path.size(); ++i) msg->path[i] = static_cast<unsigned char>(path[i]);
  std::vector<uint8_t> c = CookieBytes(cookie);
  memcpy(msg->volumeCookie, c.data(), FS_COOKIE_SIZE);
  return msg;
}

Reply Call(GetVolumeMsg* msg) {
  const uint8_t comm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};
  return Reply(reinterpret_cast<GetVolumeReply*>(SP_LanGetVolume(&msg->header, comm)));
}

class GetVolumeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KESTRIX_LIBDIR", lib_.path().c_str(), 1);
    setenv("KESTRIX_TESTFS_DIR", steer_.path().c_str(), 1);
    WriteFile(conf_.File("smb.conf"), "[share1]\n   path = /vol/a\n");
    setenv("KESTRIX_SMBPATH", conf_.File("smb.conf").c_str(), 1);
  }
  void TearDown() override {
    FailGetmem(0, 0);
    for (const char* name : {"KESTRIX_LIBDIR", "KESTRIX_TESTFS_DIR", "KESTRIX_SMBPATH"})
      unsetenv(name);
  }

  // Installs one testfs copy per name with its conf, then starts up.
  void Start(const std::vector<std::pair<std::string, std::string>>& libraries) {
    for (const auto& [name, conf] : libraries) {
      InstallTestPlugin("libtestfs.so", lib_.path(), name);
      Fs(name).Configure(conf);
    }
    FSMDCSP_Init();
    ASSERT_EQ(libCount, static_cast<FSLONG>(libraries.size()));
  }
  TestFs Fs(const std::string& name) const { return TestFs(steer_.path(), name); }
  // The instance in slot i of the library table.
  TestFs Slot(int i) const { return Fs(NameOf(libs[i])); }
  int VolumeCalls(const TestFs& fs) const {
    return fs.CountCalls("FS_GetVolCookie") + fs.CountCalls("FS_GetVolByCookie");
  }
  int CountInLog(const std::string& needle) const { return CountOf(log_.Text(), needle); }

  TempDir lib_;
  TempDir steer_;
  TempDir conf_;
  LogCapture log_{12};
};

TEST_F(GetVolumeTest, ShareIsMappedServedAndRecorded) {
  Start({{"liba.so", "version 229\nvolume /vol/a VOLA\nvol.nDisks 2\n"}});
  auto msg = Request("share1");
  Reply reply = Call(msg.get());
  ASSERT_NE(reply, nullptr);

  std::vector<CallRecord> asked = Fs("liba.so").Calls("FS_GetVolCookie");
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].Get("mount"), "/vol/a");
  std::vector<CallRecord> served = Fs("liba.so").Calls("FS_GetVolByCookie");
  ASSERT_EQ(served.size(), 1u);
  EXPECT_EQ(served[0].Get("vol"), "VOLA");
  EXPECT_EQ(served[0].Int("room"), kDefaultRoom);
  EXPECT_EQ(GetLibrary(CookieBytes("VOLA").data()), libs[0]);
  EXPECT_EQ(memcmp(msg->volumeCookie, CookieBytes("VOLA").data(), FS_COOKIE_SIZE), 0);

  EXPECT_EQ(reply->result, 0);
  EXPECT_EQ(reply->header.length, 352u);
  EXPECT_EQ(reply->header.revision, 229);
  EXPECT_EQ(reply->header.functionCode, -SP_FUNC_GETVOLUME);
  EXPECT_EQ(reply->header.byteOrder, 1u);
  EXPECT_EQ(memcmp(reply->header.messageID, msg->header.messageID, LAN_MSGID_SIZE), 0);
  EXPECT_EQ(reply->volInfo.nDisks, 2u);
  EXPECT_EQ(memcmp(reply->volInfo.Cookie, CookieBytes("VOLA").data(), FS_COOKIE_SIZE), 0);
  EXPECT_EQ(CountInLog("SP SP_LanGetVolume handler called\n"), 1);
  EXPECT_EQ(CountInLog("SP --- GetVolume Reply Message ---\n"), 1);
}

TEST_F(GetVolumeTest, LibrariesAreAskedInTurnUntilOneServes) {
  Start({{"a.so", ""}, {"b.so", ""}});
  Slot(0).Configure("miss FS_GetVolCookie -7\n");
  Slot(1).Configure("version 201\nvolume /vol/a VOLB\n");
  auto msg = Request("share1");
  Reply reply = Call(msg.get());
  ASSERT_NE(reply, nullptr);

  EXPECT_EQ(CountInLog("FS_GetVolCookie call to lib["), 1);
  EXPECT_EQ(CountInLog("Error SP_LanGetVolume: FS_GetVolCookie call to lib[0] returned -7\n"), 1);
  EXPECT_EQ(GetLibrary(CookieBytes("VOLB").data()), libs[1]);
  EXPECT_EQ(Slot(0).CountCalls("FS_GetVolByCookie"), 0);
  EXPECT_EQ(Slot(1).CountCalls("FS_GetVolByCookie"), 1);
  EXPECT_EQ(reply->result, 0);
  EXPECT_EQ(reply->header.revision, 201);
  EXPECT_EQ(reply->header.length, 272u);  // one disk
}

TEST_F(GetVolumeTest, UnknownShareAndUnservedVolumeGetShortReplies) {
  Start({{"liba.so", "volume /vol/b VOLB\n"}});
  auto unknown = Request("nosuch");
  Reply reply = Call(unknown.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_UNKNOWN_SHARE);
  EXPECT_EQ(reply->header.length, 272u);
  EXPECT_EQ(reply->header.revision, kRequestRevision);
  EXPECT_EQ(reply->header.functionCode, -SP_FUNC_GETVOLUME);
  EXPECT_EQ(CountInLog("Error FTX1201W OSL_ShareNameToMountPoint failed name is : nosuch\n"), 1);
  EXPECT_EQ(VolumeCalls(Fs("liba.so")), 0);

  // share1 is /vol/a, which the library does not serve.
  auto unserved = Request("share1");
  reply = Call(unserved.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_NO_LIBRARY);
  EXPECT_EQ(reply->header.length, 272u);
  EXPECT_EQ(reply->header.revision, kRequestRevision);
  EXPECT_EQ(CountInLog("Error SP_LanGetVolume: FS_GetVolCookie call to lib[0] returned -380\n"),
            1);
  EXPECT_EQ(Fs("liba.so").CountCalls("FS_GetVolByCookie"), 0);
}

TEST_F(GetVolumeTest, EmptyPathSelectsTheVolumeByItsCookie) {
  setenv("KESTRIX_SMBPATH", conf_.File("absent.conf").c_str(), 1);
  Start({{"liba.so", "result FS_GetVolByCookie 7\n"}});

  auto stranger = Request("", "VOLX");
  Reply reply = Call(stranger.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_NO_LIBRARY);
  EXPECT_EQ(reply->header.revision, kRequestRevision);
  EXPECT_EQ(VolumeCalls(Fs("liba.so")), 0);

  AddVolumeDispatcherToList(CookieBytes("VOLA").data(), libs[0]);
  auto known = Request("", "VOLA");
  reply = Call(known.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, 7);
  EXPECT_EQ(reply->header.revision, 230);
  EXPECT_EQ(reply->header.length, 272u);
  EXPECT_EQ(Fs("liba.so").CountCalls("FS_GetVolCookie"), 0);
  std::vector<CallRecord> served = Fs("liba.so").Calls("FS_GetVolByCookie");
  ASSERT_EQ(served.size(), 1u);
  EXPECT_EQ(served[0].Get("vol"), "VOLA");
  EXPECT_FALSE(log_.Contains("sambaCheck"));
  EXPECT_FALSE(log_.Contains("FTX"));
}

TEST_F(GetVolumeTest, ErrorTextWithoutDisksSetsTheLength) {
  Start({{"liba.so",
          "volume /vol/a VOLA\nvol.vendorStatus 1\nvol.nDisks 0\nvol.error 0123456789\n"}});
  auto msg = Request("/vol/a");
  Reply reply = Call(msg.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, 0);
  EXPECT_EQ(reply->header.length, 294u);
}

TEST_F(GetVolumeTest, BackslashesReachTheShareMappingAsSlashes) {
  Start({{"liba.so", "volume /vol/a VOLA\n"}});
  auto msg = Request("\\vol\\a");
  Reply reply = Call(msg.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, 0);
  std::vector<CallRecord> asked = Fs("liba.so").Calls("FS_GetVolCookie");
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].Get("mount"), "/vol/a");
  // The request is dumped as it arrived.
  EXPECT_EQ(CountInLog("SP path \\vol\\a\n"), 1);
}

TEST_F(GetVolumeTest, RequestInTheOtherByteOrderIsConvertedOnce) {
  Start({{"liba.so", "volume /vol/a VOLA\n"}});
  auto msg = Request("\\vol\\a");
  msg->header.byteOrder = bswap_32(LAN_BYTEORDER_MARK);
  for (FSUNI& unit : msg->path) unit = bswap_16(unit);
  Reply reply = Call(msg.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, 0);
  EXPECT_EQ(reply->header.byteOrder, 1u);
  EXPECT_EQ(Fs("liba.so").Calls("FS_GetVolCookie").at(0).Get("mount"), "/vol/a");
  EXPECT_EQ(msg->path[0], '/');
  EXPECT_EQ(GetLibrary(CookieBytes("VOLA").data()), libs[0]);
}

TEST_F(GetVolumeTest, MaxdgramSizesTheReplyAndBoundsItsLength) {
  setenv("MAXDGRAM", "8192", 1);
  Start({{"liba.so", "volume /vol/a VOLA\nvol.nDisks 200\n"}});
  unsetenv("MAXDGRAM");
  auto msg = Request("/vol/a");
  Reply reply = Call(msg.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(Fs("liba.so").Calls("FS_GetVolByCookie").at(0).Int("room"), 8192 - 272);
  // 200 disks would need 16192 bytes; the length stops at the buffer.
  EXPECT_EQ(reply->header.length, 8192u);
}

TEST_F(GetVolumeTest, PathWithoutTerminatorStaysInsideItsArea) {
  Start({{"liba.so", "volume /vol/a VOLA\n"}});
  // The request sits in a larger receive buffer whose next units are
  // backslashes too.
  std::vector<FSUNI> buffer(sizeof(GetVolumeMsg) / 2 + 16, '\\');
  buffer.back() = 0;
  auto* msg = reinterpret_cast<GetVolumeMsg*>(buffer.data());
  GetVolumeMsg head = *Request("");
  memcpy(msg, &head, offsetof(GetVolumeMsg, path));
  Reply reply = Call(msg);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->result, SP_RESULT_NO_LIBRARY);
  int rewritten = 0;
  for (size_t i = sizeof(GetVolumeMsg) / 2; i + 1 < buffer.size(); ++i)
    rewritten += buffer[i] != '\\';
  EXPECT_EQ(rewritten, 0) << "units past the request were rewritten";
}

// --- allocation failures ------------------------------------------------
// The handler's allocations, in order: the mount-point buffer, a dispatcher
// entry when a volume is claimed for the first time, the full-size reply,
// and the 272-byte reply when that fails.

TEST_F(GetVolumeTest, NoMountPointBuffer) {
  Start({{"liba.so", "volume /vol/a VOLA\n"}});
  Fs("liba.so").ClearCalls();
  auto msg = Request("share1");
  int32_t start = g_kmemstat;
  FailGetmem(1);
  Reply reply = Call(msg.get());
  FailGetmem(0, 0);
  ASSERT_NE(reply, nullptr);
  EXPECT_TRUE(log_.Contains("tag:gvmt\n"));
  EXPECT_EQ(reply->result, SP_RESULT_NO_MEMORY);
  EXPECT_EQ(reply->header.length, 272u);
  EXPECT_EQ(reply->header.revision, kRequestRevision);
  EXPECT_TRUE(Fs("liba.so").Calls().empty());
  EXPECT_FALSE(log_.Contains("sambaCheck"));
  reply.reset();
  EXPECT_EQ(g_kmemstat, start);
}

TEST_F(GetVolumeTest, NoFullSizeReply) {
  Start({{"liba.so", "version 217\n"}});
  AddVolumeDispatcherToList(CookieBytes("VOLA").data(), libs[0]);
  auto msg = Request("", "VOLA");
  int32_t start = g_kmemstat;
  FailGetmem(2);
  Reply reply = Call(msg.get());
  FailGetmem(0, 0);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(CountInLog("Error SP_InitReply failed to malloc reply of 65536 bytes\n"), 1);
  EXPECT_EQ(CountInLog("Error Out of memory while getting volume information\n"), 1);
  EXPECT_EQ(reply->result, SP_RESULT_NO_MEMORY);
  EXPECT_EQ(reply->header.length, 272u);
  EXPECT_EQ(reply->header.revision, 217);
  EXPECT_EQ(Fs("liba.so").CountCalls("FS_GetVolByCookie"), 0);
  reply.reset();
  EXPECT_EQ(g_kmemstat, start);
}

TEST_F(GetVolumeTest, NoReplyAtAll) {
  Start({{"liba.so", ""}});
  AddVolumeDispatcherToList(CookieBytes("VOLA").data(), libs[0]);
  auto msg = Request("", "VOLA");
  int32_t start = g_kmemstat;
  FailGetmem(2, 2);
  Reply reply = Call(msg.get());
  FailGetmem(0, 0);
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(CountInLog("Error SP_InitReply failed to malloc reply of 65536 bytes\n"), 1);
  EXPECT_EQ(CountInLog("Error SP_InitReply failed to malloc reply of 272 bytes\n"), 1);
  EXPECT_FALSE(log_.Contains("--- GetVolume Reply Message ---"));
  EXPECT_EQ(g_kmemstat, start);
}

}  // namespace
}  // namespace kestrix::test
