// Feeds arbitrary datagrams to the LAN server as the listener would: copied
// into a zeroed receive buffer with the listener's guard bytes, handed to
// LAN_ProcessMessage with the datagram's size. GetVolume (code 1) is served
// by its real handler; no filesystem library is loaded and the share file
// is missing, so every path ends in the handler's error replies.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "sp/fsmdcsp.h"
#include "sp/handlers.h"
#include "utils/ksxmem.h"
#include "utils/lanserver.h"
#include "utils/log.h"

namespace {

constexpr size_t kReceiveSize = 65536;          // largest datagram received
constexpr size_t kBufferSize = kReceiveSize + 8;  // with the listener's guard bytes
const uint8_t kSender[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

// Every level, so that all dumps format the input; the text is discarded.
int g_level = KSX_HIGH;
LanServerInfo* g_server = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  OSL_SetLog(&g_level, "/dev/null", "kestrixd");
  const char* base = getenv("TMPDIR");
  std::string dir = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                    "/kestrix-fuzz-XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) abort();
  setenv("KESTRIX_LIBDIR", dir.c_str(), 1);  // empty: no library loads
  setenv("KESTRIX_SMBPATH", (dir + "/missing-smb.conf").c_str(), 1);
  FSMDCSP_Init();
  LAN_InitServer(&g_server);
  if (g_server == nullptr) abort();
  LAN_RegisterMessageHandler(g_server, 1, SP_LanGetVolume);
  rmdir(dir.c_str());  // read once at start-up; nothing is left behind
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The listener never passes an empty datagram on.
  if (size == 0) return 0;
  if (size > kReceiveSize) size = kReceiveSize;
  std::vector<uint8_t> buffer(kBufferSize, 0);
  std::memcpy(buffer.data(), data, size);
  LanHeader* reply =
      LAN_ProcessMessage(buffer.data(), static_cast<int>(size), g_server, kSender);
  if (reply != nullptr) ksxmem_free(reply);
  return 0;
}
