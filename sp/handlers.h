// Request handlers of the service provider, one function per request type.
// The LAN server has already put the header into our byte order; each
// handler converts its own body. The answer is allocated with
// ksxmem_memalign and freed by whoever sends it; null means nothing is sent.
#ifndef KESTRIX_SP_HANDLERS_H_
#define KESTRIX_SP_HANDLERS_H_

#include "lanheader.h"

#ifdef __cplusplus
extern "C" {
#endif

LanHeader* SP_LanGetVolume(LanHeader* request, const uint8_t* commCookie);
LanHeader* SP_LanGetInitialMap(LanHeader* request, const uint8_t* commCookie);
LanHeader* SP_LanGetExtendedMap(LanHeader* request, const uint8_t* commCookie);
LanHeader* SP_LanSetSize(LanHeader* request, const uint8_t* commCookie);
LanHeader* SP_LanClose(LanHeader* request, const uint8_t* commCookie);
// The SIGUSR1 dump (lease list, duplicate counters); not reachable from the
// network, so no function code maps to it.
LanHeader* SP_LanDumpInfo(LanHeader* request, const uint8_t* commCookie);
LanHeader* SP_LanSendStringCmd(LanHeader* request, const uint8_t* commCookie);

#ifdef __cplusplus
}  // extern "C"

struct LanServerInfo;

namespace kestrix {
// Registers each handler above under its function code; SP_LanDumpInfo
// gets none.
void RegisterHandlers(LanServerInfo* server);
}  // namespace kestrix
#endif

#endif  // KESTRIX_SP_HANDLERS_H_
