// Every request kind through the daemon's LAN server, with duplicate
// tracking on, while each allocation in turn fails (the first, the second,
// ... until the request completes without reaching the failing one).
#include <stdlib.h>

#include <gtest/gtest.h>

#include <functional>

#include "client/kxclient.h"
#include "sp/lease.h"
#include "spmsgs.h"
#include "support/test_util.h"
#include "support/testfs.h"
#include "unixmdc/kestrixd.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

using client::Bytes;
constexpr uint8_t kComm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

struct Kind {
  const char* name;
  std::function<Bytes(uint32_t key)> request;  // key: a lease held for the request
  int result;       // the answer when no allocation fails
  size_t resultAt;  // 48: the body's result; 36: the header's (LAN results)
  bool opens;       // a lease stays when the answer is 0
  bool closes;      // the lease the request names goes, whatever the answer
};

Bytes Tracked(Bytes request) {
  static int id = 0;
  client::Write(request, 8, ++id);
  client::Write<uint32_t>(request, 32, LAN_FLAG_TRACK);
  return request;
}

LanHeader* Process(Bytes request) {
  return LAN_ProcessMessage(request.data(), static_cast<int>(request.size()), info, kComm);
}

// Empties the tracker as purges would in time, except that no purge takes an
// entry in process: one without its header copy would never go.
void EmptyTracker() {
  while (info->tracker.next != &info->tracker) {
    TrackerEntry* e = info->tracker.next;
    EXPECT_NE(e->headerCopy, nullptr);
    e->prev->next = e->next;
    e->next->prev = e->prev;
    ksxmem_free(e->headerCopy);
    ksxmem_free(e->replyCopy);
    ksxmem_free(e);
  }
  info->numReplies = 0;
}

void CloseAll() {
  while (leaseListHeadGlb.next != &leaseListHeadGlb) {
    uint8_t vol[FS_COOKIE_SIZE], file[FS_COOKIE_SIZE];
    RemoveLeaseFromList(leaseListHeadGlb.next->key, vol, file, leaseListHeadGlb.next->library, "t");
  }
}

TEST(AllocationFailuresTest, EveryRequestAnswersFiveFallsBackOrStaysSilentAndLeavesNothing) {
  TempDir lib, steer;
  LogCapture log(KSX_ERROR);
  WriteFile(steer.File("smb.conf"), "[data]\n   path = /vol/a\n");
  setenv("KESTRIX_SMBPATH", steer.File("smb.conf").c_str(), 1);
  setenv("KESTRIX_LIBDIR", lib.path().c_str(), 1);
  setenv("KESTRIX_TESTFS_DIR", steer.path().c_str(), 1);
  InstallTestPlugin("libtestfs.so", lib.path(), "liba.so");
  TestFs(steer.path(), "liba.so").Configure("volume /vol/a VOLA\nfile /vol/a/f VOLA FILEF\n");
  g_MaxDuplicateMessages = 100;
  SetUpServer();
  auto open = [](client::OpenOptions o = {}) {
    o.fileSize = 4096, o.allocSize = 8192;
    return Tracked(client::MakeGetInitialMapRequest("data", "f", o));
  };
  const Bytes stored = Tracked(client::MakeGetVolumeRequest("data"));
  const uint8_t vola[FS_COOKIE_SIZE] = "VOLA";
  const std::vector<Kind> kinds = {
      {"GetVolume by share", [](uint32_t) { return Tracked(client::MakeGetVolumeRequest("data")); }, 0, 48},
      {"GetVolume by cookie", [&](uint32_t) { return Tracked(client::MakeGetVolumeRequest("", vola)); }, 0, 48},
      {"GetInitialMap", [&](uint32_t) { return open(); }, 0, 48, true},
      {"GetInitialMap unlocked", [&](uint32_t) { return open({.flag = FS_M_FLAG_UNLOCKED}); }, 0, 48},
      {"GetExtendedMap", [](uint32_t k) { return Tracked(client::MakeGetExtendedMapRequest(k, 0, 0)); }, 0, 48},
      {"SetSize", [](uint32_t k) { return Tracked(client::MakeSetSizeRequest(k, 1)); }, 0, 48},
      {"Close", [](uint32_t k) { return Tracked(client::MakeCloseRequest(k)); }, 0, 48, false, true},
      {"SendStringCmd", [](uint32_t) { return Tracked(client::MakeStringCommandRequest("HI")); }, 0, 48},
      {"no handler", [](uint32_t) { return Tracked(client::MakeRequest(9, 48)); }, LAN_RESULT_NO_HANDLER, 36},
      {"length 47", [](uint32_t) { return Tracked(client::MakeRequest(9, 47)); }, LAN_RESULT_BAD_LENGTH, 36},
      {"stored duplicate", [&](uint32_t) { return stored; }, 0, 48},
  };
  ksxmem_free(Process(open()));  // the volume is known from now on
  for (const Kind& kind : kinds) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE(std::string(kind.name) + ", allocation " + std::to_string(nth));
      CloseAll();
      EmptyTracker();
      const int32_t start = g_kmemstat;
      const uint32_t key = globalKey;
      ksxmem_free(Process(open()));        // the lease the request may name
      ksxmem_free(Process(stored));        // the reply the duplicate gets
      log.Clear();
      FailGetmem(nth, 1);
      LanHeader* reply = Process(kind.request(key));
      FailGetmem(0, 0);
      const bool failed = log.Contains("sol_ksxmem malloc failed");
      int result = -1;
      if (reply != nullptr) memcpy(&result, reinterpret_cast<uint8_t*>(reply) + kind.resultAt, 4);
      if (reply != nullptr) EXPECT_TRUE(result == kind.result || (failed && result == 5)) << result;
      EXPECT_TRUE(reply != nullptr || failed);
      // A new lease stays only when the client was told of it.
      EXPECT_EQ(LeaseCount(), !kind.closes + (kind.opens && result == 0));
      // An entry stays in process only when its reply is missing.
      FSULONG answered, inProcess;
      TrackerCounts(info, &answered, &inProcess);
      EXPECT_LE(inProcess, failed ? 1u : 0u);
      EXPECT_LE(answered, 3u);  // the open, the stored reply, the request
      ksxmem_free(reply);
      CloseAll();
      EmptyTracker();
      EXPECT_EQ(g_kmemstat, start);
      if (!failed) break;
    }
  }
}

}  // namespace
}  // namespace kestrix::test
