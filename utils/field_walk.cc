// field_walk: conversion and dump lines of any described struct.
#include "utils/field_walk.h"

#include <algorithm>
#include <cstring>

#include "utils/log.h"
#include "utils/utils.h"

namespace kestrix {
namespace {

template <typename T>
T ReadAt(const void* base, const wire::Field& field) {
  T value{};
  std::memcpy(&value, static_cast<const uint8_t*>(base) + field.offset, sizeof(T));
  return value;
}

// A 4- or 8-byte field as printed by "%d": an 8-byte one by its low half.
int DecValue(const void* base, const wire::Field& field) {
  if (field.width == 8) return static_cast<int>(static_cast<uint32_t>(ReadAt<int64_t>(base, field)));
  return static_cast<int>(ReadAt<int32_t>(base, field));
}

}  // namespace

void ConvertFields(void* base, const wire::Layout& layout) {
  wire::SwapFields(static_cast<uint8_t*>(base), layout.size, layout.begin(), layout.end(),
                   false);
}

void DumpField(const void* base, const wire::Field& field, int level) {
  switch (field.show) {
    case wire::Show::kDec:
      OSL_Log(level, "%s %d\n", field.name, DecValue(base, field));
      break;
    case wire::Show::kHex:
      OSL_Log(level, "%s %x\n", field.name, ReadAt<FSULONG>(base, field));
      break;
    case wire::Show::kLong:
      OSL_Log(level, "%s %lld\n", field.name,
              static_cast<long long>(ReadAt<FS64LONG>(base, field)));
      break;
    case wire::Show::kBytes: {
      char text[3 * FS_COOKIE_SIZE + 1];
      const int32_t n = static_cast<int32_t>(std::min<uint32_t>(field.width, FS_COOKIE_SIZE));
      OSL_Log(level, "%s %s\n", field.name,
              bytesToString(static_cast<const uint8_t*>(base) + field.offset, n, text));
      break;
    }
    case wire::Show::kNone:
      break;
  }
}

void DumpFields(const void* base, const wire::Layout& layout, int level) {
  for (int rank = 1;; ++rank) {
    const wire::Field* found = nullptr;
    for (const wire::Field& field : layout)
      if (field.dumpRank == rank) found = &field;
    if (found == nullptr) return;
    DumpField(base, *found, level);
  }
}

}  // namespace kestrix
