// Every request kind through the daemon's LAN server, with duplicate
// tracking on, while each allocation in turn fails (the first, the second,
// ... until the request completes without reaching the failing one).
#include <stdlib.h>

#include <gtest/gtest.h>

#include <utility>

#include "client/kxclient.h"
#include "sp/lease.h"
#include "sp/sp_state.h"
#include "spmsgs.h"
#include "support/test_util.h"
#include "support/testfs.h"
#include "unixmdc/kestrixd.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

enum Kind { kVolume, kVolumeByCookie, kOpen, kOpenUnlocked, kMap, kSetSize, kClose, kCommand,
            kNoHandler, kShortLength, kStoredDuplicate, kKinds };

constexpr uint8_t kComm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

// A tracked request of the kind; key names the lease opened before it. The
// stored duplicate repeats the first GetVolume.
client::Bytes Request(int kind, uint32_t key = 0) {
  static const uint8_t kVola[FS_COOKIE_SIZE] = "VOLA";
  static int id = 1;
  client::OpenOptions o{
      .fileSize = 4096, .allocSize = 8192, .flag = kind == kOpenUnlocked ? 8u : 0};
  client::Bytes r = kind == kVolume || kind == kStoredDuplicate
                        ? client::MakeGetVolumeRequest("data")
                    : kind == kVolumeByCookie ? client::MakeGetVolumeRequest("", kVola)
                    : kind <= kOpenUnlocked   ? client::MakeGetInitialMapRequest("data", "f", o)
                    : kind == kMap            ? client::MakeGetExtendedMapRequest(key, 0, 0)
                    : kind == kSetSize        ? client::MakeSetSizeRequest(key, 1)
                    : kind == kClose          ? client::MakeCloseRequest(key)
                    : kind == kCommand        ? client::MakeStringCommandRequest("HI")
                                       : client::MakeRequest(9, kind == kNoHandler ? 48 : 47);
  client::Write(r, 8, kind == kStoredDuplicate ? 0 : ++id);
  client::Write<uint32_t>(r, 32, LAN_FLAG_TRACK);
  return r;
}

LanHeader* Send(client::Bytes&& r) {
  return LAN_ProcessMessage(r.data(), static_cast<int>(r.size()), info, kComm);
}

// Back to no lease and an empty tracker through the daemon's own calls: the
// last request answered if it was left in process, then every entry purged.
// An entry that stays would stay for ever.
void Clear(const client::Bytes& last) {
  for (LeaseEntry* e; (e = leaseListHeadGlb.next) != &leaseListHeadGlb;) {
    uint8_t vol[FS_COOKIE_SIZE], file[FS_COOKIE_SIZE];
    RemoveLeaseFromList(e->key, vol, file, e->library, "test");
  }
  const auto* request = reinterpret_cast<const LanHeader*>(last.data());
  LanHeader* answer = BuildReply(request, 0);
  LAN_RegisterComplete(info, kComm, request, answer);
  ksxmem_free(answer);
  const int bound = std::exchange(g_MaxDuplicateMessages, 0);
  PurgeTrackerList(info);
  g_MaxDuplicateMessages = bound;
  FSULONG answered, inProcess;
  TrackerCounts(info, &answered, &inProcess);
  EXPECT_EQ(answered + inProcess, 0u);
}

TEST(AllocationFailuresTest, EveryAllocationFailureEndsCleanly) {
  TempDir dir;
  LogCapture log(KSX_ERROR);
  WriteFile(dir.File("smb.conf"), "[data]\n   path = /vol/a\n");
  setenv("KESTRIX_SMBPATH", dir.File("smb.conf").c_str(), 1);
  setenv("KESTRIX_LIBDIR", dir.path().c_str(), 1);
  setenv("KESTRIX_TESTFS_DIR", dir.path().c_str(), 1);
  InstallTestPlugin("libtestfs.so", dir.path(), "liba.so");
  TestFs(dir.path(), "liba.so").Configure("volume /vol/a VOLA\nfile /vol/a/f VOLA FILEF\n");
  SetUpServer();
  ksxmem_free(Send(Request(kOpen)));  // the volume is known from now on
  for (int kind = 0; kind < kKinds; ++kind) {
    const bool header = kind == kNoHandler || kind == kShortLength;  // a LAN result
    const int expected = kind == kNoHandler ? 8 : kind == kShortLength ? 6 : 0;
    for (int nth = 1, failed = 1; failed; ++nth) {
      SCOPED_TRACE(testing::Message() << "kind " << kind << ", allocation " << nth);
      Clear(Request(kOpen));
      const int32_t start = g_kmemstat;
      const client::Bytes request = Request(kind, globalKey);  // the lease opened next
      ksxmem_free(Send(Request(kOpen)));
      ksxmem_free(Send(Request(kStoredDuplicate)));  // the reply the duplicate gets
      log.Clear();
      FailGetmem(nth, 1);
      LanHeader* reply = Send(client::Bytes(request));
      FailGetmem(0, 0);
      failed = log.Contains("sol_ksxmem malloc failed");
      const int result = reply == nullptr ? -1
                         : header         ? reply->result
                                          : reinterpret_cast<CloseReply*>(reply)->result;
      EXPECT_TRUE(result == expected || (failed && (result == 5 || reply == nullptr))) << result;
      // A new lease stays only when the client was told of it.
      EXPECT_EQ(LeaseCount(), (kind != kClose) + (kind == kOpen && result == 0));
      ksxmem_free(reply);
      Clear(request);
      EXPECT_EQ(g_kmemstat, start);
    }
  }
}

}  // namespace
}  // namespace kestrix::test
