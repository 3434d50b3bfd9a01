// The one description of every wire layout: for each field of each message
// and embedded structure, its name, offset, width, byte-order rule and how
// the daemon's dump prints it.
//
// The daemon's converters and dumps, the client's parsers and its request
// swapper, and the dissector's layout table are all derived from these rows.
// The checks at the end make the build fail when a row and its struct
// disagree, or when the rows of a struct leave a gap or overlap.
//
// A row: F(struct, field, offset, width, order, show, dumpRank)
//   offset   from the first byte of the datagram (messages) or of the
//            structure (VolInfo, FSDisk, FSMapInfo, the extents)
//   order    kMarker  the byte-order marker: read, never converted
//            kKeep    bytes, cookies, reserved areas: never reversed
//            kSwap    an integer: its bytes reversed
//            kUnits   an FSUNI area: each 2-byte unit reversed
//            kNested  an embedded structure with rows of its own
//   show     how the dump prints the field, under its own name:
//            kDec "%s %d", kHex "%s %x", kLong "%s %lld",
//            kBytes "%s %s" with the bytes as hex text, kNone not printed
//   dumpRank the field's line among the dump's generic lines (1 first);
//            0 when a dump prints it in its own code or not at all
#ifndef KESTRIX_INCLUDE_WIRE_FIELDS_H_
#define KESTRIX_INCLUDE_WIRE_FIELDS_H_

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "fsmdc.h"
#include "lanheader.h"
#include "spmsgs.h"

// clang-format off
#define KX_WIRE_LanHeader(F, S)                                 \
  F(S, byteOrder,     0,  4, kMarker, kNone,  0)                \
  F(S, revision,      4,  4, kSwap,   kDec,   4)                \
  F(S, messageID,     8, 16, kKeep,   kBytes, 3)                \
  F(S, functionCode, 24,  4, kSwap,   kDec,   1)                \
  F(S, length,       28,  4, kSwap,   kDec,   2)                \
  F(S, flags,        32,  4, kSwap,   kNone,  0)                \
  F(S, result,       36,  4, kSwap,   kDec,   5)                \
  F(S, reserved1,    40,  2, kKeep,   kNone,  0)                \
  F(S, pathSeparator,42,  2, kSwap,   kNone,  0)                \
  F(S, reserved2,    44,  4, kKeep,   kNone,  0)

#define KX_WIRE_GetVolumeMsg(F, S)                              \
  F(S, unused1,      48,   36, kKeep,  kNone, 0)                \
  F(S, volumeCookie, 84,   32, kKeep,  kNone, 0)                \
  F(S, unused2,     116,   64, kKeep,  kNone, 0)                \
  F(S, path,        180, 2048, kUnits, kNone, 0)

#define KX_WIRE_GetVolumeReply(F, S)                            \
  F(S, result,       48,    4, kSwap,   kDec,  1)               \
  F(S, zero,         52,   36, kKeep,   kNone, 0)               \
  F(S, volInfo,      88,  104, kNested, kNone, 0)

#define KX_WIRE_GetInitialMapMsg(F, S)                          \
  F(S, filesize,     48,    8, kSwap,  kLong, 4)                \
  F(S, allocsize,    56,    8, kSwap,  kLong, 5)                \
  F(S, lease,        64,    4, kSwap,  kDec,  1)                \
  F(S, intention,    68,    4, kSwap,  kDec,  2)                \
  F(S, flag,         72,    4, kSwap,  kDec,  3)                \
  F(S, unused,       76,   36, kKeep,  kNone, 0)                \
  F(S, names,       112, 2048, kUnits, kNone, 0)

#define KX_WIRE_GetInitialMapReply(F, S)                        \
  F(S, result,       48,    4, kSwap,   kDec,    1)             \
  F(S, lease,        52,    4, kSwap,   kDec,    2)             \
  F(S, key,          56,    4, kSwap,   kHex,    3)             \
  F(S, zero,         60,   36, kKeep,   kNone,   0)             \
  F(S, fileCookie,   96,   32, kKeep,   kBytes,  4)             \
  F(S, volumeCookie,128,   32, kKeep,   kBytes,  5)             \
  F(S, map,         160,   64, kNested, kNone,   0)

#define KX_WIRE_GetExtendedMapMsg(F, S)                         \
  F(S, filesize,     48,    8, kSwap, kLong, 3)                 \
  F(S, allocation,   56,    8, kSwap, kLong, 4)                 \
  F(S, start,        64,    8, kSwap, kLong, 5)                 \
  F(S, length,       72,    8, kSwap, kLong, 6)                 \
  F(S, lease,        80,    4, kSwap, kDec,  1)                 \
  F(S, key,          84,    4, kSwap, kHex,  2)                 \
  F(S, flag,         88,    4, kSwap, kDec,  7)

#define KX_WIRE_GetExtendedMapReply(F, S)                       \
  F(S, result,       48,    4, kSwap,   kDec,  1)               \
  F(S, lease,        52,    4, kSwap,   kDec,  2)               \
  F(S, zero,         56,   32, kKeep,   kNone, 0)               \
  F(S, map,          88,   64, kNested, kNone, 0)

#define KX_WIRE_SetSizeMsg(F, S)                                \
  F(S, filesize,     48,    8, kSwap, kLong, 3)                 \
  F(S, lease,        56,    4, kSwap, kDec,  2)                 \
  F(S, key,          60,    4, kSwap, kHex,  1)

#define KX_WIRE_SetSizeReply(F, S)                              \
  F(S, result,       48,    4, kSwap, kDec,  1)                 \
  F(S, lease,        52,    4, kSwap, kDec,  2)                 \
  F(S, zero,         56,   16, kKeep, kNone, 0)

#define KX_WIRE_CloseMsg(F, S)                                  \
  F(S, filesize,     48,    8, kSwap, kLong, 2)                 \
  F(S, key,          56,    4, kSwap, kHex,  1)

#define KX_WIRE_CloseReply(F, S)                                \
  F(S, result,       48,    4, kSwap, kDec,  1)                 \
  F(S, zero,         52,   36, kKeep, kNone, 0)

// The command text is read in the daemon's own byte order.
#define KX_WIRE_SendStringCmdMsg(F, S)                          \
  F(S, unused,       48,   32, kKeep, kNone, 0)                 \
  F(S, command,      80, 2048, kKeep, kNone, 0)

#define KX_WIRE_SendStringCmdReply(F, S)                        \
  F(S, result,       48,    4, kSwap, kNone, 0)                 \
  F(S, zero,         52, 2080, kKeep, kNone, 0)

// nDisks is printed by the volume dump itself, after the cookie and only
// when the disk table follows.
#define KX_WIRE_VolInfo(F, S)                                   \
  F(S, msgLen,        0,    4, kSwap, kDec,    1)               \
  F(S, vendorStatus,  4,    4, kSwap, kDec,    3)               \
  F(S, FStype,        8,    4, kSwap, kDec,    2)               \
  F(S, GlomType,     12,    4, kSwap, kDec,    4)               \
  F(S, GlomInfo,     16,    4, kSwap, kDec,    5)               \
  F(S, nDisks,       20,    4, kSwap, kDec,    0)               \
  F(S, BlockSize,    24,    4, kSwap, kDec,    6)               \
  F(S, reserved,     28,    4, kKeep, kNone,   0)               \
  F(S, Cookie,       32,   32, kKeep, kBytes,  7)               \
  F(S, fsSystem,     64,   40, kKeep, kNone,   0)

// DiskID is printed by the disk dump itself, cut to IDlength bytes.
#define KX_WIRE_FSDisk(F, S)                                    \
  F(S, DiskID,        0,   16, kKeep, kNone, 0)                 \
  F(S, IDoffset,     16,    8, kSwap, kLong, 2)                 \
  F(S, BlockOffset,  24,    8, kSwap, kLong, 3)                 \
  F(S, nBlocks,      32,    8, kSwap, kLong, 4)                 \
  F(S, IDlength,     40,    4, kSwap, kDec,  1)                 \
  F(S, reserved1,    44,    4, kSwap, kNone, 0)                 \
  F(S, reserved2,    48,   32, kKeep, kNone, 0)

#define KX_WIRE_FSMapInfo(F, S)                                 \
  F(S, fileSize,      0,    8, kSwap, kLong, 3)                 \
  F(S, allocation,    8,    8, kSwap, kLong, 4)                 \
  F(S, msgLen,       16,    4, kSwap, kDec,  1)                 \
  F(S, vendorStatus, 20,    4, kSwap, kDec,  2)                 \
  F(S, nExtents,     24,    4, kSwap, kDec,  7)                 \
  F(S, extentType,   28,    4, kSwap, kDec,  8)                 \
  F(S, fileOffset,   32,    8, kSwap, kLong, 5)                 \
  F(S, fileBytes,    40,    8, kSwap, kLong, 6)                 \
  F(S, reserved,     48,   16, kKeep, kNone, 0)

#define KX_WIRE_CompactExtent(F, S)                             \
  F(S, BlockOffset,   0,    8, kSwap, kLong, 1)                 \
  F(S, nBlocks,       8,    8, kSwap, kLong, 2)

#define KX_WIRE_VerboseExtent(F, S)                             \
  F(S, LogicalByteAddr,  0, 8, kSwap, kLong, 2)                 \
  F(S, PhysicalByteAddr, 8, 8, kSwap, kLong, 3)                 \
  F(S, nBytes,          16, 8, kSwap, kLong, 4)                 \
  F(S, VolumeOrdinal,   24, 4, kSwap, kDec,  1)                 \
  F(S, validity,        28, 4, kSwap, kDec,  5)

// The volume ordinal is printed as 32 bits: its low half.
#define KX_WIRE_SimpleExtent(F, S)                              \
  F(S, VolOrd,        0,    8, kSwap, kDec,  1)                 \
  F(S, VolSliceBlock, 8,    8, kSwap, kLong, 2)                 \
  F(S, NBlocks,      16,    8, kSwap, kLong, 3)

// Every described struct with the offset its rows start at: messages after
// the header, embedded structures at 0.
#define KX_WIRE_STRUCTS(X)                                      \
  X(LanHeader, 0)                                               \
  X(GetVolumeMsg, LAN_HEADER_SIZE)                              \
  X(GetVolumeReply, LAN_HEADER_SIZE)                            \
  X(GetInitialMapMsg, LAN_HEADER_SIZE)                          \
  X(GetInitialMapReply, LAN_HEADER_SIZE)                        \
  X(GetExtendedMapMsg, LAN_HEADER_SIZE)                         \
  X(GetExtendedMapReply, LAN_HEADER_SIZE)                       \
  X(SetSizeMsg, LAN_HEADER_SIZE)                                \
  X(SetSizeReply, LAN_HEADER_SIZE)                              \
  X(CloseMsg, LAN_HEADER_SIZE)                                  \
  X(CloseReply, LAN_HEADER_SIZE)                                \
  X(SendStringCmdMsg, LAN_HEADER_SIZE)                          \
  X(SendStringCmdReply, LAN_HEADER_SIZE)                        \
  X(VolInfo, 0)                                                 \
  X(FSDisk, 0)                                                  \
  X(FSMapInfo, 0)                                               \
  X(CompactExtent, 0)                                           \
  X(VerboseExtent, 0)                                           \
  X(SimpleExtent, 0)
// clang-format on

namespace kestrix::wire {

enum class Order : uint8_t { kMarker, kKeep, kSwap, kUnits, kNested };
enum class Show : uint8_t { kNone, kDec, kHex, kLong, kBytes };

struct Field {
  const char* name;
  uint32_t offset;
  uint32_t width;
  Order order;
  Show show;
  int dumpRank;
};

// A field tagged with the C type of its struct member, so that a reader
// gets the member's type without naming it again.
template <typename T>
struct TypedField : Field {};

// A described struct: its rows in wire order and the bytes they cover.
struct Layout {
  const char* name;
  const Field* fields;
  size_t count;
  uint32_t size;  // sizeof the struct
  const Field* begin() const { return fields; }
  const Field* end() const { return fields + count; }
};

// Rows that follow each other without a gap or an overlap from start to end.
constexpr bool Tiles(const Field* fields, size_t count, uint32_t start, uint32_t end) {
  uint32_t at = start;
  for (size_t i = 0; i < count; ++i) {
    if (fields[i].offset != at || fields[i].width == 0) return false;
    at += fields[i].width;
  }
  return at == end;
}

// Dump ranks 1..n used once each, and a show rule that fits the width:
// kHex 4 bytes, kLong 8, kDec 4 or 8, kBytes at most a volume cookie.
constexpr bool DumpRulesHold(const Field* fields, size_t count) {
  size_t ranked = 0;
  for (size_t i = 0; i < count; ++i) {
    const Field& f = fields[i];
    if (f.dumpRank < 0 || f.dumpRank > static_cast<int>(count)) return false;
    if (f.dumpRank > 0) ++ranked;
    for (size_t j = 0; j < i; ++j)
      if (f.dumpRank > 0 && fields[j].dumpRank == f.dumpRank) return false;
    if ((f.show == Show::kHex && f.width != 4) || (f.show == Show::kLong && f.width != 8) ||
        (f.show == Show::kDec && f.width != 4 && f.width != 8) ||
        (f.show == Show::kBytes && f.width > FS_COOKIE_SIZE))
      return false;
  }
  for (size_t i = 0; i < count; ++i)
    if (fields[i].dumpRank > static_cast<int>(ranked)) return false;
  return true;
}

// Reverses, in the `size` bytes at `base`, the fields that a writer of the
// other byte order writes reversed: integers that lie wholly inside `size`,
// and the units of an FSUNI area as far as `size` reaches. The marker is
// reversed too when withMarker is set (a sender's view).
inline void SwapFields(uint8_t* base, size_t size, const Field* begin, const Field* end,
                       bool withMarker) {
  for (const Field* f = begin; f != end; ++f) {
    if (f->offset >= size) continue;
    uint8_t* p = base + f->offset;
    const size_t room = std::min<size_t>(f->width, size - f->offset);
    if (f->order == Order::kSwap || (withMarker && f->order == Order::kMarker)) {
      if (room == f->width) std::reverse(p, p + f->width);
    } else if (f->order == Order::kUnits) {
      for (size_t i = 0; i + 1 < room; i += 2) std::swap(p[i], p[i + 1]);
    }
  }
}

#define KX_WIRE_FIELD(S, name, off, width, order, show, rank) \
  inline constexpr TypedField<decltype(::S::name)> name{      \
      {#name, off, width, Order::order, Show::show, rank}};
#define KX_WIRE_ROW(S, name, ...) name,
#define KX_WIRE_CHECK(S, name, off, width, ...)                        \
  static_assert(offsetof(::S, name) == (off) && sizeof(::S::name) == (width), \
                #S "." #name ": the struct and its description differ");
#define KX_WIRE_NAMESPACE(S, start)                                            \
  namespace S {                                                                \
  KX_WIRE_##S(KX_WIRE_FIELD, S)                                                \
  inline constexpr Field kFields[] = {KX_WIRE_##S(KX_WIRE_ROW, S)};            \
  inline constexpr Layout kLayout{#S, kFields, std::size(kFields), sizeof(::S)}; \
  static_assert(Tiles(kFields, std::size(kFields), start, sizeof(::S)),        \
                #S ": its rows leave a gap, overlap or miss its end");         \
  static_assert(DumpRulesHold(kFields, std::size(kFields)),                    \
                #S ": dump ranks not 1..n once each, or a show rule misfits"); \
  }                                                                            \
  KX_WIRE_##S(KX_WIRE_CHECK, S)

KX_WIRE_STRUCTS(KX_WIRE_NAMESPACE)

// The named offsets and sizes that handlers use agree with the rows.
static_assert(SP_GETVOLUME_VOLINFO_OFFSET == GetVolumeReply::volInfo.offset);
static_assert(SP_GETVOLUME_TEXT_OFFSET == GetVolumeReply::kLayout.size);
static_assert(SP_GETINITIALMAP_MAP_OFFSET == GetInitialMapReply::map.offset);
static_assert(SP_GETINITIALMAP_TEXT_OFFSET == GetInitialMapReply::kLayout.size);
static_assert(SP_GETEXTENDEDMAP_MAP_OFFSET == GetExtendedMapReply::map.offset);
static_assert(SP_GETEXTENDEDMAP_TEXT_OFFSET == GetExtendedMapReply::kLayout.size);
static_assert(SP_COMMAND_OFFSET == SendStringCmdMsg::command.offset);
static_assert(2 * SP_PATH_UNITS == GetVolumeMsg::path.width);
static_assert(SP_SETSIZE_REPLY_SIZE == SetSizeReply::kLayout.size);
static_assert(SP_CLOSE_REPLY_SIZE == CloseReply::kLayout.size);
static_assert(SP_SENDSTRINGCMD_REPLY_SIZE == SendStringCmdReply::kLayout.size);
static_assert(LAN_HEADER_SIZE == LanHeader::kLayout.size);
static_assert(VOLINFO_FIXED_SIZE == VolInfo::kLayout.size);
static_assert(FSMAPINFO_FIXED_SIZE == FSMapInfo::kLayout.size);
static_assert(FSDISK_SIZE == FSDisk::kLayout.size);
static_assert(FSDISK_ID_SIZE == FSDisk::DiskID.width);

#define KX_WIRE_LAYOUT(S, start) &S::kLayout,
// Every described struct, for tools that print the description.
inline constexpr const Layout* kAllLayouts[] = {KX_WIRE_STRUCTS(KX_WIRE_LAYOUT)};

#undef KX_WIRE_LAYOUT
#undef KX_WIRE_NAMESPACE
#undef KX_WIRE_CHECK
#undef KX_WIRE_ROW
#undef KX_WIRE_FIELD

}  // namespace kestrix::wire

#endif  // KESTRIX_INCLUDE_WIRE_FIELDS_H_
