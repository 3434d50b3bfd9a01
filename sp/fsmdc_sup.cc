// fsmdc_sup: byte-order conversion and log dumps of VolInfo, FSDisk,
// FSSystem, FSMapInfo and the three extent layouts.
//
// The exported routines trust nDisks and nExtents as written. The daemon's
// own reply dumps go through the *Within variants instead, which stop at a
// byte limit taken from the reply's length, so a library that wrote a huge
// count cannot make a dump read past the reply buffer.
#include "sp/fsmdc_sup.h"

#include <stdio.h>

#include <algorithm>

#include "utils/log.h"
#include "utils/utils.h"

namespace kestrix {
namespace {

// Bytes of one extent of the given type; 0 for types that are left alone.
uint64_t ExtentSize(FSULONG type) {
  switch (type) {
    case FS_EXTENT_COMPACT:
      return COMPACT_EXTENT_SIZE;
    case FS_EXTENT_VERBOSE:
    case FS_EXTENT_VERBOSE_ALT:
      return VERBOSE_EXTENT_SIZE;
    case FS_EXTENT_SIMPLE:
      return SIMPLE_EXTENT_SIZE;
    default:
      return 0;
  }
}

// True when the entry [offset, offset + size) lies inside the limit.
bool Fits(uint64_t offset, uint64_t size, uint64_t limit) {
  return offset <= limit && size <= limit - offset;
}

// Calls fn(i, offset) for each table entry i < count whose bytes lie inside
// the limit, the first entry starting at `base`.
template <typename Fn>
void ForEachEntry(uint64_t count, uint64_t base, uint64_t size, uint64_t limit, Fn fn) {
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t offset = base + i * size;
    if (!Fits(offset, size, limit)) return;
    fn(offset);
  }
}

void LogInt(const char* label, int value) { OSL_Log(KSX_SP, "%s %d\n", label, value); }
void LogLong(const char* label, FS64LONG value) {
  OSL_Log(KSX_SP, "%s %lld\n", label, static_cast<long long>(value));
}
void LogText(const char* label, const char* text) { OSL_Log(KSX_SP, "%s %s\n", label, text); }

}  // namespace

void TransVolInfoWithin(VolInfo* info, uint64_t limit) {
  doendian(&info->msgLen, 4);
  doendian(&info->vendorStatus, 4);
  doendian(&info->FStype, 4);
  doendian(&info->GlomType, 4);
  doendian(&info->GlomInfo, 4);
  doendian(&info->nDisks, 4);
  doendian(&info->BlockSize, 4);
  FSMDCSUP_TransFSSystem(&info->fsSystem);
  uint8_t* base = reinterpret_cast<uint8_t*>(info);
  ForEachEntry(info->nDisks, VOLINFO_FIXED_SIZE, FSDISK_SIZE, limit, [&](uint64_t offset) {
    FSMDCSUP_TransFSDisk(reinterpret_cast<FSDisk*>(base + offset));
  });
}

void TransMapInfoWithin(FSMapInfo* map, uint64_t limit) {
  doendian(&map->fileSize, 8);
  doendian(&map->allocation, 8);
  doendian(&map->fileOffset, 8);
  doendian(&map->fileBytes, 8);
  doendian(&map->msgLen, 4);
  doendian(&map->vendorStatus, 4);
  doendian(&map->nExtents, 4);
  doendian(&map->extentType, 4);
  const uint64_t size = ExtentSize(map->extentType);
  if (size == 0 || map->nExtents <= 0) return;
  uint8_t* base = reinterpret_cast<uint8_t*>(map);
  const FSULONG type = map->extentType;
  ForEachEntry(static_cast<uint64_t>(map->nExtents), FSMAPINFO_FIXED_SIZE, size, limit,
               [&](uint64_t offset) {
                 void* extent = base + offset;
                 if (type == FS_EXTENT_COMPACT)
                   FSMDCSUP_TransCompactExtent(static_cast<CompactExtent*>(extent));
                 else if (type == FS_EXTENT_SIMPLE)
                   FSMDCSUP_TransSimpleExtent(static_cast<SimpleExtent*>(extent));
                 else
                   FSMDCSUP_TransVerboseExtent(static_cast<VerboseExtent*>(extent));
               });
}

void DumpVolInfoWithin(const VolInfo* info, uint64_t limit) {
  if (GetLogLevel() < KSX_SP) return;  // every line is at level 4
  LogInt("msgLen", info->msgLen);
  LogInt("FStype", info->FStype);
  LogInt("vendorStatus", info->vendorStatus);
  LogInt("GlomType", info->GlomType);
  LogInt("GlomInfo", info->GlomInfo);
  LogInt("BlockSize", info->BlockSize);
  char cookie[3 * FS_COOKIE_SIZE + 1];
  LogText("Cookie", bytesToString(info->Cookie, FS_COOKIE_SIZE, cookie));

  if (info->vendorStatus != 0) {
    char text[128];
    const FSUNI* error = VolInfoErrorText(info);
    if (limit == kNoByteLimit) {
      fsuni2mb(text, error, sizeof(text));
    } else {
      // Count only the units that lie inside the limit.
      const uint64_t room = limit > VOLINFO_FIXED_SIZE ? (limit - VOLINFO_FIXED_SIZE) / 2 : 0;
      const FSULONG units =
          fsuninlength(error, static_cast<FSULONG>(std::min<uint64_t>(room, UINT32_MAX)));
      utf16array_to_utf8asciz(error, static_cast<int32_t>(std::min<FSULONG>(units, INT32_MAX)),
                              text, sizeof(text));
    }
    LogText("vError", text);
    return;
  }
  LogInt("nDisks", static_cast<int>(info->nDisks));
  const uint8_t* base = reinterpret_cast<const uint8_t*>(info);
  ForEachEntry(info->nDisks, VOLINFO_FIXED_SIZE, FSDISK_SIZE, limit, [&](uint64_t offset) {
    FSMDCSUP_DumpFSDisk(reinterpret_cast<const FSDisk*>(base + offset));
  });
}

void DumpFSMapInfoWithin(const FSMapInfo* map, uint64_t limit) {
  if (GetLogLevel() < KSX_SP) return;  // every line is at level 4
  LogInt("msgLen", map->msgLen);
  LogInt("vendorStatus", map->vendorStatus);
  LogLong("fileSize", map->fileSize);
  LogLong("allocation", map->allocation);
  LogLong("fileOffset", map->fileOffset);
  LogLong("fileBytes", map->fileBytes);
  LogInt("nExtents", map->nExtents);
  LogInt("extentType", static_cast<int>(map->extentType));
  const uint64_t size = ExtentSize(map->extentType);
  if (size == 0 || map->nExtents <= 0) return;
  const uint8_t* base = reinterpret_cast<const uint8_t*>(map);
  const FSULONG type = map->extentType;
  ForEachEntry(static_cast<uint64_t>(map->nExtents), FSMAPINFO_FIXED_SIZE, size, limit,
               [&](uint64_t offset) {
                 const void* extent = base + offset;
                 if (type == FS_EXTENT_COMPACT)
                   FSMDCSUP_DumpCompactExtent(static_cast<const CompactExtent*>(extent));
                 else if (type == FS_EXTENT_SIMPLE)
                   FSMDCSUP_DumpSimpleExtent(static_cast<const SimpleExtent*>(extent));
                 else
                   FSMDCSUP_DumpVerboseExtent(static_cast<const VerboseExtent*>(extent));
               });
}

}  // namespace kestrix

using kestrix::kNoByteLimit;

extern "C" {

void FSMDCSUP_TransVolInfo(VolInfo* info) { kestrix::TransVolInfoWithin(info, kNoByteLimit); }

// All of its fields are single bytes.
void FSMDCSUP_TransFSSystem(FSSystem* system) {}

void FSMDCSUP_TransFSDisk(FSDisk* disk) {
  doendian(&disk->IDoffset, 8);
  doendian(&disk->BlockOffset, 8);
  doendian(&disk->nBlocks, 8);
  doendian(&disk->IDlength, 4);
  doendian(&disk->reserved1, 4);
}

void FSMDCSUP_TransMapInfo(FSMapInfo* map) { kestrix::TransMapInfoWithin(map, kNoByteLimit); }

void FSMDCSUP_TransCompactExtent(CompactExtent* extent) {
  doendian(&extent->BlockOffset, 8);
  doendian(&extent->nBlocks, 8);
}

void FSMDCSUP_TransSimpleExtent(SimpleExtent* extent) {
  doendian(&extent->VolOrd, 8);
  doendian(&extent->VolSliceBlock, 8);
  doendian(&extent->NBlocks, 8);
}

void FSMDCSUP_TransVerboseExtent(VerboseExtent* extent) {
  doendian(&extent->LogicalByteAddr, 8);
  doendian(&extent->PhysicalByteAddr, 8);
  doendian(&extent->nBytes, 8);
  doendian(&extent->VolumeOrdinal, 4);
  doendian(&extent->validity, 4);
}

void FSMDCSUP_DumpVolInfo(const VolInfo* info) { kestrix::DumpVolInfoWithin(info, kNoByteLimit); }

void FSMDCSUP_DumpFSDisk(const FSDisk* disk) {
  // Never read past the DiskID field, whatever IDlength says.
  const int count = static_cast<int>(std::min<FSULONG>(disk->IDlength, FSDISK_ID_SIZE));
  char id[3 * FSDISK_ID_SIZE + 1];
  kestrix::LogText("DiskID", FSMDCSUP_DiskIdToString(disk->DiskID, count, id));
  kestrix::LogInt("IDlength", static_cast<int>(disk->IDlength));
  kestrix::LogLong("IDoffset", disk->IDoffset);
  kestrix::LogLong("BlockOffset", disk->BlockOffset);
  kestrix::LogLong("nBlocks", disk->nBlocks);
}

char* FSMDCSUP_DiskIdToString(const uint8_t* bytes, int count, char* text) {
  static const char kDigits[] = "0123456789ABCDEF";
  char* out = text;
  for (int i = 0; i < count; ++i) {
    *out++ = kDigits[bytes[i] >> 4];
    *out++ = kDigits[bytes[i] & 0xF];
    *out++ = ' ';
  }
  *out = '\0';
  return text;
}

void FSMDCSUP_DumpFSMapInfo(const FSMapInfo* map) {
  kestrix::DumpFSMapInfoWithin(map, kNoByteLimit);
}

void FSMDCSUP_DumpCompactExtent(const CompactExtent* extent) {
  kestrix::LogLong("BlockOffset", extent->BlockOffset);
  kestrix::LogLong("nBlocks", extent->nBlocks);
}

void FSMDCSUP_DumpSimpleExtent(const SimpleExtent* extent) {
  // The volume ordinal is printed as 32 bits: its low half.
  kestrix::LogInt("VolOrd", static_cast<int>(static_cast<uint32_t>(extent->VolOrd)));
  kestrix::LogLong("VolSliceBlock", extent->VolSliceBlock);
  kestrix::LogLong("NBlocks", extent->NBlocks);
}

void FSMDCSUP_DumpVerboseExtent(const VerboseExtent* extent) {
  kestrix::LogInt("VolumeOrdinal", static_cast<int>(extent->VolumeOrdinal));
  kestrix::LogLong("LogicalByteAddr", extent->LogicalByteAddr);
  kestrix::LogLong("PhysicalByteAddr", extent->PhysicalByteAddr);
  kestrix::LogLong("nBytes", extent->nBytes);
  kestrix::LogInt("validity", static_cast<int>(extent->validity));
}

}  // extern "C"
