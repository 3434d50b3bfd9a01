// Volume and file-map structures that filesystem libraries write into
// replies: VolInfo with its FSDisk table (or an error text), and FSMapInfo
// with its extent table (or a text).
//
// Only the fixed parts are declared as structs. The variable parts that
// follow them are reached through the offsets and accessors below, so that
// sizeof() of every struct is its wire size.
#ifndef KESTRIX_INCLUDE_FSMDC_H_
#define KESTRIX_INCLUDE_FSMDC_H_

#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

// Filesystem description made of single-byte fields; carried, never read.
typedef struct FSSystem {
  uint8_t bytes[40];
} FSSystem;

typedef struct FSDisk {
  uint8_t DiskID[16];    // the first IDlength bytes count
  FS64LONG IDoffset;
  FS64LONG BlockOffset;
  FS64LONG nBlocks;
  FSULONG IDlength;      // meaningful DiskID bytes, at most 16
  FSLONG reserved1;      // converted, never printed
  uint8_t reserved2[32]; // never converted or printed
} FSDisk;

// The fixed part of a volume description. When vendorStatus is 0, nDisks
// FSDisk entries follow at byte 104; otherwise an FSUNI error text does.
typedef struct VolInfo {
  FSLONG msgLen;
  FSLONG vendorStatus;
  FSLONG FStype;
  FSLONG GlomType;
  FSLONG GlomInfo;
  FSULONG nDisks;
  FSLONG BlockSize;
  uint8_t reserved[4];   // never converted
  uint8_t Cookie[FS_COOKIE_SIZE];
  FSSystem fsSystem;
} VolInfo;

// The fixed part of a file map. nExtents extents of the layout named by
// extentType follow at byte 64; with no extents the area may hold a text.
typedef struct FSMapInfo {
  FS64LONG fileSize;
  FS64LONG allocation;
  FSLONG msgLen;
  FSLONG vendorStatus;
  FSLONG nExtents;       // 0 or less: none
  FSULONG extentType;
  FS64LONG fileOffset;
  FS64LONG fileBytes;
  uint8_t reserved[16];  // never converted or printed
} FSMapInfo;

typedef struct CompactExtent {
  FS64LONG BlockOffset;
  FS64LONG nBlocks;
} CompactExtent;

typedef struct VerboseExtent {
  FS64LONG LogicalByteAddr;
  FS64LONG PhysicalByteAddr;
  FS64LONG nBytes;
  FSULONG VolumeOrdinal;
  FSULONG validity;
} VerboseExtent;

typedef struct SimpleExtent {
  FS64LONG VolOrd;
  FS64LONG VolSliceBlock;
  FS64LONG NBlocks;
} SimpleExtent;

// extentType values. Types from FS_EXTENT_FIRST_UNKNOWN on are carried but
// neither converted nor printed.
enum {
  FS_EXTENT_COMPACT = 0,
  FS_EXTENT_VERBOSE = 1,
  FS_EXTENT_SIMPLE = 2,
  FS_EXTENT_VERBOSE_ALT = 3,  // same layout as FS_EXTENT_VERBOSE
  FS_EXTENT_FIRST_UNKNOWN = 4,
};

enum {
  FSSYSTEM_SIZE = 40,
  FSDISK_SIZE = 80,
  FSDISK_ID_SIZE = 16,
  VOLINFO_FIXED_SIZE = 104,  // the disk table or the error text starts here
  FSMAPINFO_FIXED_SIZE = 64, // the extents or the text start here
  COMPACT_EXTENT_SIZE = 16,
  VERBOSE_EXTENT_SIZE = 32,
  SIMPLE_EXTENT_SIZE = 24,
};

// Disk i of a volume description (vendorStatus 0).
static inline FSDisk* VolInfoDisk(struct VolInfo* v, FSULONG i) {
  return (FSDisk*)((uint8_t*)v + VOLINFO_FIXED_SIZE + (size_t)FSDISK_SIZE * i);
}
static inline const FSDisk* VolInfoDiskConst(const struct VolInfo* v, FSULONG i) {
  return (const FSDisk*)((const uint8_t*)v + VOLINFO_FIXED_SIZE + (size_t)FSDISK_SIZE * i);
}
// The error text of a volume description (vendorStatus not 0).
static inline const FSUNI* VolInfoErrorText(const struct VolInfo* v) {
  return (const FSUNI*)((const uint8_t*)v + VOLINFO_FIXED_SIZE);
}
// The first byte after a map's fixed part: its extents or its text.
static inline uint8_t* FSMapInfoExtents(struct FSMapInfo* m) {
  return (uint8_t*)m + FSMAPINFO_FIXED_SIZE;
}
static inline const uint8_t* FSMapInfoExtentsConst(const struct FSMapInfo* m) {
  return (const uint8_t*)m + FSMAPINFO_FIXED_SIZE;
}

#ifdef __cplusplus
}  // extern "C"

// Sizes only: every field is checked against its row in wire_fields.h.
static_assert(sizeof(FSSystem) == FSSYSTEM_SIZE);
static_assert(sizeof(FSDisk) == FSDISK_SIZE);
static_assert(sizeof(VolInfo) == VOLINFO_FIXED_SIZE);
static_assert(sizeof(FSMapInfo) == FSMAPINFO_FIXED_SIZE);
static_assert(sizeof(CompactExtent) == COMPACT_EXTENT_SIZE);
static_assert(sizeof(VerboseExtent) == VERBOSE_EXTENT_SIZE);
static_assert(sizeof(SimpleExtent) == SIMPLE_EXTENT_SIZE);
#endif

#endif  // KESTRIX_INCLUDE_FSMDC_H_
