// The 48-byte header at the start of every request and reply.
//
// A sender writes 1 into byteOrder in its own byte order. A receiver that
// reads anything else reverses the converted fields in place (once); the
// marker itself is never rewritten, so later converters decide the same way.
#ifndef KESTRIX_INCLUDE_LANHEADER_H_
#define KESTRIX_INCLUDE_LANHEADER_H_

#include "fstypes.h"

typedef struct LanHeader {
  FSULONG byteOrder;                 // 1 in the writer's byte order; never converted
  FSLONG revision;                   // version of the answering side
  uint8_t messageID[LAN_MSGID_SIZE]; // sender's request identifier, opaque
  FSLONG functionCode;               // request: 1..99; reply: negated
  FSULONG length;                    // whole message, header included
  FSULONG flags;                     // bit 0: take part in duplicate detection
  FSLONG result;                     // LAN-level result in replies (6, 8) or 0
  uint8_t reserved1[2];
  FSUNI pathSeparator;               // sender's path separator, 0 for none
  uint8_t reserved2[4];
} LanHeader;

enum {
  LAN_HEADER_SIZE = 48,
  LAN_BYTEORDER_MARK = 1,
  LAN_FLAG_TRACK = 0x1,       // flags bit 0: duplicate detection wanted
  LAN_MAX_FUNCTION_CODES = 100,
  LAN_RESULT_BAD_LENGTH = 6,  // header length below 48
  LAN_RESULT_NO_HANDLER = 8,  // no handler for the function code
};

#ifdef __cplusplus
// Every field is checked against its row in wire_fields.h.
static_assert(sizeof(LanHeader) == 48);

// A reply's function code: the request's negated in two's complement, so that
// the most negative code maps to itself instead of overflowing.
inline FSLONG LanReplyFunctionCode(FSLONG requestCode) {
  return static_cast<FSLONG>(0u - static_cast<FSULONG>(requestCode));
}
#endif

#endif  // KESTRIX_INCLUDE_LANHEADER_H_
