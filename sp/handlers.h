// The request handlers of the service provider, one per function code.
// Each takes the request (header converted, body not yet) and the sender's
// comm cookie and returns a reply from the tracking allocator, or null.
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
// Logs the lease list and the duplicate counters; registered for no code.
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
