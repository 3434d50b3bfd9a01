// Which bodies each function code carries: one row per service with its
// name, its code, and the structs of its request and its reply.
//
// The daemon's dump dispatch, the client's request swapper and the
// dissector's function table (printed by wire-layouts-lua) all expand these
// rows, so a service's bodies are named here and nowhere else.
#ifndef KESTRIX_INCLUDE_WIRE_FUNCTIONS_H_
#define KESTRIX_INCLUDE_WIRE_FUNCTIONS_H_

#include <stdint.h>

#include "spmsgs.h"
#include "wire_fields.h"

// A row: X(name, code, request struct, reply struct)
// clang-format off
#define KX_WIRE_FUNCTIONS(X)                                                        \
  X(GetVolume,      SP_FUNC_GETVOLUME,      GetVolumeMsg,      GetVolumeReply)      \
  X(GetInitialMap,  SP_FUNC_GETINITIALMAP,  GetInitialMapMsg,  GetInitialMapReply)  \
  X(GetExtendedMap, SP_FUNC_GETEXTENDEDMAP, GetExtendedMapMsg, GetExtendedMapReply) \
  X(SetSize,        SP_FUNC_SETSIZE,        SetSizeMsg,        SetSizeReply)        \
  X(Close,          SP_FUNC_CLOSE,          CloseMsg,          CloseReply)          \
  X(SendStringCmd,  SP_FUNC_SENDSTRINGCMD,  SendStringCmdMsg,  SendStringCmdReply)
// clang-format on

namespace kestrix::wire {

struct Function {
  const char* name;
  int32_t code;            // the request's; a reply carries it negated
  const Layout* request;
  const Layout* reply;
};

#define KX_WIRE_FUNCTION(name, code, Request, Reply) \
  {#name, code, &Request::kLayout, &Reply::kLayout},
inline constexpr Function kFunctions[] = {KX_WIRE_FUNCTIONS(KX_WIRE_FUNCTION)};
#undef KX_WIRE_FUNCTION

// The row of a request's function code, or null for a code no service has.
constexpr const Function* FunctionOf(int32_t code) {
  for (const Function& f : kFunctions)
    if (f.code == code) return &f;
  return nullptr;
}

// Request codes lie in 1..99, once each; every body starts after the header.
constexpr bool FunctionRowsHold() {
  for (const Function& f : kFunctions) {
    if (f.code < 1 || f.code >= LAN_MAX_FUNCTION_CODES || FunctionOf(f.code) != &f) return false;
    if (f.request->fields[0].offset != LAN_HEADER_SIZE ||
        f.reply->fields[0].offset != LAN_HEADER_SIZE)
      return false;
  }
  return true;
}
static_assert(FunctionRowsHold(), "function rows: a code repeats or lies outside 1..99, "
                                  "or a body is not a message");

}  // namespace kestrix::wire

#endif  // KESTRIX_INCLUDE_WIRE_FUNCTIONS_H_
