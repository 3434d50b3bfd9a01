// What every request handler shares: the size value that leaves a size as
// it is, the check that a request body can be read in place in the
// listener's buffer, and the making of a typed reply.
#ifndef KESTRIX_SP_HANDLER_COMMON_H_
#define KESTRIX_SP_HANDLER_COMMON_H_

#include "fstypes.h"
#include "lanheader.h"
#include "sp/fsmdcsp.h"
#include "utils/dgram.h"

namespace kestrix {

// Passed to a library's FS_SetFileSizes (and found in requests) for a size
// the call should not change.
inline constexpr FS64LONG kUnchanged = -1;

// A handler reads its request in place in the listener's buffer, also when
// the datagram was shorter than the body: every field then lies in bytes the
// listener zeroed. True when Body fits those bytes.
template <typename Body>
inline constexpr bool kReadableInPlace =
    sizeof(Body) <= kDgramScrubBytes && kDgramScrubBytes <= DGRAM_RECEIVE_BUFFER_SIZE;

// SP_InitReply typed as the handler's reply body, with result already set;
// null when memory ran out (SP_InitReply logged it).
template <typename Reply>
Reply* NewReply(const LanHeader* request, FSULONG size, FsLibrary* library, int result) {
  auto* reply = reinterpret_cast<Reply*>(SP_InitReply(request, size, library));
  if (reply != nullptr) reply->result = result;
  return reply;
}

template <typename Reply>
LanHeader* AsHeader(Reply* reply) {
  return reinterpret_cast<LanHeader*>(reply);
}

}  // namespace kestrix

#endif  // KESTRIX_SP_HANDLER_COMMON_H_
