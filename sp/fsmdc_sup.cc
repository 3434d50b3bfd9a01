// fsmdc_sup: byte-order conversion and log dumps of VolInfo, FSDisk,
// FSSystem, FSMapInfo and the three extent layouts.
//
// The exported routines trust nDisks and nExtents as written. The daemon's
// own reply dumps go through the *Within variants instead, which stop at a
// byte limit taken from the reply's length, so a library that wrote a huge
// count cannot make a dump read past the reply buffer.
#include "sp/fsmdc_sup.h"

#include "utils/field_walk.h"

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

void LogText(const char* label, const char* text) { OSL_Log(KSX_SP, "%s %s\n", label, text); }

}  // namespace

void TransVolInfoWithin(VolInfo* info, uint64_t limit) {
  ConvertFields(info, wire::VolInfo::kLayout);
  FSMDCSUP_TransFSSystem(&info->fsSystem);
  uint8_t* base = reinterpret_cast<uint8_t*>(info);
  ForEachEntry(info->nDisks, VOLINFO_FIXED_SIZE, FSDISK_SIZE, limit, [&](uint64_t offset) {
    FSMDCSUP_TransFSDisk(reinterpret_cast<FSDisk*>(base + offset));
  });
}

void TransMapInfoWithin(FSMapInfo* map, uint64_t limit) {
  ConvertFields(map, wire::FSMapInfo::kLayout);
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
  DumpFields(info, wire::VolInfo::kLayout);

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
  DumpField(info, wire::VolInfo::nDisks);
  const uint8_t* base = reinterpret_cast<const uint8_t*>(info);
  ForEachEntry(info->nDisks, VOLINFO_FIXED_SIZE, FSDISK_SIZE, limit, [&](uint64_t offset) {
    FSMDCSUP_DumpFSDisk(reinterpret_cast<const FSDisk*>(base + offset));
  });
}

void DumpFSMapInfoWithin(const FSMapInfo* map, uint64_t limit) {
  if (GetLogLevel() < KSX_SP) return;  // every line is at level 4
  DumpFields(map, wire::FSMapInfo::kLayout);
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

using kestrix::ConvertFields;
using kestrix::DumpFields;
using kestrix::kNoByteLimit;
namespace wire = kestrix::wire;

extern "C" {

void FSMDCSUP_TransVolInfo(VolInfo* info) { kestrix::TransVolInfoWithin(info, kNoByteLimit); }

// All of its fields are single bytes.
void FSMDCSUP_TransFSSystem(FSSystem* system) {}

void FSMDCSUP_TransFSDisk(FSDisk* disk) { ConvertFields(disk, wire::FSDisk::kLayout); }

void FSMDCSUP_TransMapInfo(FSMapInfo* map) { kestrix::TransMapInfoWithin(map, kNoByteLimit); }

void FSMDCSUP_TransCompactExtent(CompactExtent* extent) {
  ConvertFields(extent, wire::CompactExtent::kLayout);
}

void FSMDCSUP_TransSimpleExtent(SimpleExtent* extent) {
  ConvertFields(extent, wire::SimpleExtent::kLayout);
}

void FSMDCSUP_TransVerboseExtent(VerboseExtent* extent) {
  ConvertFields(extent, wire::VerboseExtent::kLayout);
}

void FSMDCSUP_DumpVolInfo(const VolInfo* info) { kestrix::DumpVolInfoWithin(info, kNoByteLimit); }

void FSMDCSUP_DumpFSDisk(const FSDisk* disk) {
  // Never read past the DiskID field, whatever IDlength says.
  const int count = static_cast<int>(std::min<FSULONG>(disk->IDlength, FSDISK_ID_SIZE));
  char id[3 * FSDISK_ID_SIZE + 1];
  kestrix::LogText(wire::FSDisk::DiskID.name, FSMDCSUP_DiskIdToString(disk->DiskID, count, id));
  DumpFields(disk, wire::FSDisk::kLayout);
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
  DumpFields(extent, wire::CompactExtent::kLayout);
}

void FSMDCSUP_DumpSimpleExtent(const SimpleExtent* extent) {
  DumpFields(extent, wire::SimpleExtent::kLayout);
}

void FSMDCSUP_DumpVerboseExtent(const VerboseExtent* extent) {
  DumpFields(extent, wire::VerboseExtent::kLayout);
}

}  // extern "C"
