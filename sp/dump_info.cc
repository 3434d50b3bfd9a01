// The state dump a SIGUSR1 asks for: the lease list, then the duplicate
// counters of the LAN server. It has the shape of a handler, but no function
// code reaches it: only the daemon's signal thread calls it.
#include "sp/dump_info.h"

#include "sp/fsmdcsp.h"
#include "sp/handler_common.h"
#include "sp/lease.h"
#include "spmsgs.h"
#include "utils/lanserver.h"

extern "C" LanHeader* SP_LanDumpInfo(LanHeader* request, const uint8_t* /*commCookie*/) {
  FSMDCSP_DumpKeyList();
  LAN_DumpInfo();
  auto* reply = kestrix::NewReply<CloseReply>(request, SP_CLOSE_REPLY_SIZE, nullptr, SP_RESULT_OK);
  return kestrix::AsHeader(reply);
}
