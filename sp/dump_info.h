// The SIGUSR1 state dump: the lease list, then the LAN server's duplicate
// counters. Shaped like a handler so the signal thread can reuse the reply
// path, but no function code reaches it.
#ifndef KESTRIX_SP_DUMP_INFO_H_
#define KESTRIX_SP_DUMP_INFO_H_

#include "lanheader.h"

extern "C" LanHeader* SP_LanDumpInfo(LanHeader* request, const uint8_t* commCookie);

#endif  // KESTRIX_SP_DUMP_INFO_H_
