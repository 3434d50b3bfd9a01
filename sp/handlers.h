// Which handler answers which function code. Every handler gets a request
// whose header the LAN server has already put into our byte order, and
// converts its own body; it answers with a buffer from ksxmem_memalign that
// the sender frees, or null to send nothing. Each handler is declared in
// the header named after its request (sp/getvolume.h, ...).
#ifndef KESTRIX_SP_HANDLERS_H_
#define KESTRIX_SP_HANDLERS_H_

struct LanServerInfo;

namespace kestrix {
// Registers each request's handler under its function code. The SIGUSR1
// dump (sp/dump_info.h) gets none.
void RegisterHandlers(LanServerInfo* server);
}  // namespace kestrix

#endif  // KESTRIX_SP_HANDLERS_H_
