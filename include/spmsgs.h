// Request and reply layouts of the six services, their function codes,
// result codes and reply sizes.
//
// Every struct starts with the LanHeader, so field offsets are offsets from
// the first byte of the datagram. Replies that carry a volume description or
// a map declare only the fixed part; the variable data follows in the same
// buffer (see fsmdc.h).
#ifndef KESTRIX_INCLUDE_SPMSGS_H_
#define KESTRIX_INCLUDE_SPMSGS_H_

#include "fsmdc.h"
#include "fstypes.h"
#include "lanheader.h"

#ifdef __cplusplus
extern "C" {
#endif

// Function codes; replies carry the negated code.
enum {
  SP_FUNC_GETVOLUME = 1,
  SP_FUNC_GETINITIALMAP = 2,
  SP_FUNC_GETEXTENDEDMAP = 3,
  SP_FUNC_SETSIZE = 4,
  SP_FUNC_CLOSE = 5,
  SP_FUNC_SENDSTRINGCMD = 7,
};

// Result codes in the body's result field. Any other value returned by a
// filesystem library is passed through unchanged.
enum {
  SP_RESULT_OK = 0,
  SP_RESULT_LIBRARY_ONE = 1,        // a library call answered 1 (soft success)
  SP_RESULT_UNKNOWN_SHARE = 3,
  SP_RESULT_NO_MEMORY = 5,
  SP_RESULT_SIZE_NOTICE = 400,      // from FS_SetFileSizes; 0 except in SetSize
  SP_RESULT_NO_LIBRARY = 405,
  SP_RESULT_NO_FILE_NAME = 406,
  SP_RESULT_KEY_NOT_FOUND = 407,
  SP_RESULT_LEASE_GONE = 408,       // vanished before removal
  SP_RESULT_LEASE_NOT_RENEWED = 409,// vanished before renewal
  SP_RESULT_LEASE_LIMIT = 410,      // the sender's or the daemon's lease bound is reached
  SP_RESULT_FILE_NOT_FOUND = -380,  // passed through from the last library
};

// Map flags: hand out the map without keeping a lease; the client only reads
// the blocks (a library may then hold the file against local writers only).
enum { FS_M_FLAG_UNLOCKED = 8, FS_M_FLAG_READ_ONLY = 0x100 };

// Reply buffer sizes: the fixed replies, and the fallback sizes of the
// replies that carry variable data.
enum {
  SP_GETVOLUME_REPLY_SIZE = 272,
  SP_GETINITIALMAP_REPLY_SIZE = 256,
  SP_GETEXTENDEDMAP_REPLY_SIZE = 184,
  SP_SETSIZE_REPLY_SIZE = 72,
  SP_CLOSE_REPLY_SIZE = 88,
  SP_SENDSTRINGCMD_REPLY_SIZE = 2132,
  SP_MAX_DATAGRAM = 65507,  // the most one UDP datagram over IPv4 carries
};

// Where the embedded structures and their texts sit in the replies, and the
// base that both map reply length rules start from.
enum {
  SP_GETVOLUME_VOLINFO_OFFSET = 88,
  SP_GETVOLUME_TEXT_OFFSET = 88 + VOLINFO_FIXED_SIZE,          // 192
  SP_GETINITIALMAP_MAP_OFFSET = 160,
  SP_GETINITIALMAP_TEXT_OFFSET = 160 + FSMAPINFO_FIXED_SIZE,   // 224
  SP_GETEXTENDEDMAP_MAP_OFFSET = 88,
  SP_GETEXTENDEDMAP_TEXT_OFFSET = 88 + FSMAPINFO_FIXED_SIZE,   // 152
  SP_MAP_REPLY_LENGTH_BASE = 160,
  SP_PATH_UNITS = 1024,       // FSUNI units of the request path/name areas
  SP_COMMAND_OFFSET = 80,     // SendStringCmd text
};

typedef struct GetVolumeMsg {
  LanHeader header;
  uint8_t unused1[36];
  uint8_t volumeCookie[FS_COOKIE_SIZE];
  uint8_t unused2[64];
  FSUNI path[SP_PATH_UNITS];  // share name or absolute path
} GetVolumeMsg;

typedef struct GetVolumeReply {
  LanHeader header;
  FSLONG result;
  uint8_t zero[36];
  VolInfo volInfo;  // disk table or error text follows
} GetVolumeReply;

typedef struct GetInitialMapMsg {
  LanHeader header;
  FS64LONG filesize;   // -1: unchanged
  FS64LONG allocsize;  // -1: unchanged
  FSULONG lease;       // milliseconds, 0: default
  FSULONG intention;   // 1: read, else write
  FSULONG flag;
  uint8_t unused[36];
  FSUNI names[SP_PATH_UNITS];  // share, 0 unit, file name, 0 unit
} GetInitialMapMsg;

typedef struct GetInitialMapReply {
  LanHeader header;
  FSLONG result;
  FSULONG lease;
  FSULONG key;
  uint8_t zero[36];
  uint8_t fileCookie[FS_COOKIE_SIZE];
  uint8_t volumeCookie[FS_COOKIE_SIZE];
  FSMapInfo map;  // extents or text follow
} GetInitialMapReply;

// 92 bytes: the 8-byte fields must not pad the end.
#pragma pack(push, 4)
typedef struct GetExtendedMapMsg {
  LanHeader header;
  FS64LONG filesize;    // -1: unchanged
  FS64LONG allocation;  // -1: unchanged
  FS64LONG start;
  FS64LONG length;      // 0 is taken as -1 (to the end)
  FSULONG lease;
  FSULONG key;
  FSULONG flag;
} GetExtendedMapMsg;
#pragma pack(pop)

typedef struct GetExtendedMapReply {
  LanHeader header;
  FSLONG result;
  FSULONG lease;
  uint8_t zero[32];
  FSMapInfo map;  // extents or text follow
} GetExtendedMapReply;

typedef struct SetSizeMsg {
  LanHeader header;
  FS64LONG filesize;
  FSULONG lease;
  FSULONG key;
} SetSizeMsg;

typedef struct SetSizeReply {
  LanHeader header;
  FSLONG result;
  FSULONG lease;
  uint8_t zero[16];
} SetSizeReply;

// 60 bytes, like GetExtendedMapMsg.
#pragma pack(push, 4)
typedef struct CloseMsg {
  LanHeader header;
  FS64LONG filesize;  // -1: unchanged
  FSULONG key;
} CloseMsg;
#pragma pack(pop)

typedef struct CloseReply {
  LanHeader header;
  FSLONG result;
  uint8_t zero[36];
} CloseReply;

// The command text is read in the daemon's byte order; it has no converter.
typedef struct SendStringCmdMsg {
  LanHeader header;
  uint8_t unused[32];
  FSUNI command[SP_PATH_UNITS];
} SendStringCmdMsg;

typedef struct SendStringCmdReply {
  LanHeader header;
  FSLONG result;  // always 0
  uint8_t zero[2080];
} SendStringCmdReply;

#ifdef __cplusplus
}  // extern "C"

// Sizes only: every field is checked against its row in wire_fields.h.
static_assert(sizeof(GetVolumeMsg) == 180 + 2048);
static_assert(sizeof(GetVolumeReply) == SP_GETVOLUME_TEXT_OFFSET);
static_assert(SP_GETVOLUME_TEXT_OFFSET == 192);
static_assert(sizeof(GetInitialMapMsg) == 2160);
static_assert(sizeof(GetInitialMapReply) == SP_GETINITIALMAP_TEXT_OFFSET);
static_assert(SP_GETINITIALMAP_TEXT_OFFSET == 224);
static_assert(sizeof(GetExtendedMapMsg) == 92);
static_assert(sizeof(GetExtendedMapReply) == SP_GETEXTENDEDMAP_TEXT_OFFSET);
static_assert(SP_GETEXTENDEDMAP_TEXT_OFFSET == 152);
static_assert(sizeof(SetSizeMsg) == 64);
static_assert(sizeof(SetSizeReply) == SP_SETSIZE_REPLY_SIZE);
static_assert(sizeof(CloseMsg) == 60);
static_assert(sizeof(CloseReply) == SP_CLOSE_REPLY_SIZE);
static_assert(sizeof(SendStringCmdReply) == SP_SENDSTRINGCMD_REPLY_SIZE);
#endif

#endif  // KESTRIX_INCLUDE_SPMSGS_H_
