// The GetInitialMap, GetExtendedMap, SetSize, Close and DumpInfo handlers
// called in-process for what a client cannot cause: failed allocations, and
// a name area that runs into the bytes after it.
#include <stdlib.h>

#include <gtest/gtest.h>

#include "client/kxclient.h"
#include "sp/fsmdcsp.h"
#include "sp/handlers.h"
#include "sp/lease.h"
#include "support/test_util.h"
#include "support/testfs.h"
#include "utils/ksxmem.h"
#include "utils/lanserver.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

using client::Bytes;
constexpr uint8_t kComm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

constexpr std::pair<int, unsigned> kNone{-1, -1u};  // no reply

// The handler's result and reply length for the request (converted in place).
std::pair<int, unsigned> Call(MessageHandler handler, auto&& request) {
  LanHeader* reply = handler(reinterpret_cast<LanHeader*>(request.data()), kComm);
  if (reply == nullptr) return kNone;
  std::pair<int, unsigned> out{reinterpret_cast<CloseReply*>(reply)->result, reply->length};
  ksxmem_free(reply);
  return out;
}

// GetInitialMap allocates for a known volume: mount point, full path, reply,
// lease, then the 256-byte reply. GetExtendedMap: the reply, then the 184-byte
// one. SetSize and Close: the reply. DumpInfo: its text buffer, the reply.
TEST(MapHandlersTest, FailedAllocationsAndAnUnterminatedNameArea) {
  TempDir lib, steer;
  LogCapture log(12);
  setenv("KESTRIX_LIBDIR", lib.path().c_str(), 1);
  setenv("KESTRIX_TESTFS_DIR", steer.path().c_str(), 1);
  InstallTestPlugin("libtestfs.so", lib.path(), "liba.so");
  TestFs(steer.path(), "liba.so").Configure("file /vol/a/f VOLA FILEF\n");
  FSMDCSP_Init();
  uint64_t id = 0;
  auto open = [&] {
    Bytes request = client::MakeGetInitialMapRequest("/vol/a", "f");
    client::Write(request, 8, ++id);
    return request;
  };
  auto openKey = [&] {  // a new lease takes the next key
    const FSULONG key = globalKey;
    Call(SP_LanGetInitialMap, open());
    return key;
  };
  Call(SP_LanClose, client::MakeCloseRequest(openKey()));  // the volume is known from now on
  const MessageHandler kOpen = SP_LanGetInitialMap, kMap = SP_LanGetExtendedMap;
  for (auto [handler, nth, count, reply] :
       {std::tuple{kOpen, 1, 1, std::pair{5, 256u}}, {kOpen, 2, 1, {5, 256u}}, {kOpen, 3, 1, {5, 256u}},
        {kOpen, 4, 1, {5, 162u}}, {kOpen, 3, 2, kNone}, {kMap, 1, 1, {5, 184u}}, {kMap, 1, 2, kNone},
        {SP_LanSetSize, 1, 1, kNone}, {SP_LanClose, 1, 1, kNone}, {SP_LanDumpInfo, 1, 1, {0, 88u}},
        {SP_LanDumpInfo, 2, 1, kNone}}) {
    const int32_t start = g_kmemstat;
    const uint32_t key = handler == kOpen ? 0 : openKey();
    Bytes request = handler == kOpen          ? open()
                    : handler == kMap         ? client::MakeGetExtendedMapRequest(key, 0, 0)
                    : handler == SP_LanSetSize ? client::MakeSetSizeRequest(key, 1)
                                               : client::MakeCloseRequest(key);
    FailGetmem(nth, count);
    EXPECT_EQ(Call(handler, request), reply) << "allocation " << nth << " of " << handler;
    FailGetmem(0, 0);
    if (handler != kOpen) Call(SP_LanClose, client::MakeCloseRequest(key));
    EXPECT_EQ(g_kmemstat, start) << "allocation " << nth << " of " << handler;
  }
  // A name area without a zero unit: nothing past it is read or rewritten.
  Bytes names = client::MakeGetInitialMapRequest("/m", "");
  names.resize(names.size() + 32);
  for (size_t at = 118; at < names.size(); at += 2) names[at] = '\\';
  EXPECT_EQ(Call(SP_LanGetInitialMap, names).first, SP_RESULT_FILE_NOT_FOUND);
  for (size_t at = sizeof(GetInitialMapMsg); at < names.size(); at += 2)
    EXPECT_EQ(names[at], '\\') << "byte " << at << " past the request was rewritten";
}

}  // namespace
}  // namespace kestrix::test
