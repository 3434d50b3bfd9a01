// Wire integer types and the FSUNI text unit shared by every message.
//
// All integers on the wire are written in the sender's byte order; the
// first 32-bit word of a message tells the receiver which order that is.
#ifndef KESTRIX_INCLUDE_FSTYPES_H_
#define KESTRIX_INCLUDE_FSTYPES_H_

#include <stddef.h>
#include <stdint.h>

typedef int32_t FSLONG;
typedef uint32_t FSULONG;
typedef int64_t FS64LONG;
typedef uint16_t FSUNI;  // one UTF-16 code unit; strings end at a 0 unit
typedef struct FS128LONG {
  uint8_t bytes[16];
} FS128LONG;

#ifdef __cplusplus
static_assert(sizeof(FSLONG) == 4);
static_assert(sizeof(FSULONG) == 4);
static_assert(sizeof(FS64LONG) == 8);
static_assert(sizeof(FSUNI) == 2);
static_assert(sizeof(FS128LONG) == 16);
#endif

// Volume and file cookies are opaque 32-byte values made by a filesystem
// library; message cookies (request IDs) and comm cookies (senders) are 16.
enum {
  FS_COOKIE_SIZE = 32,
  LAN_MSGID_SIZE = 16,
  LAN_COMMCOOKIE_SIZE = 16,
};

#endif  // KESTRIX_INCLUDE_FSTYPES_H_
