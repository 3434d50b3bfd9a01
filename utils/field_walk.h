// Converting and dumping a struct by its wire description: the integer and
// text fields reversed for a message of the other byte order, and the
// dump's generic lines printed in their rank order. Layout code shared by
// the LAN header (here in utils) and the service bodies above it.
#ifndef KESTRIX_UTILS_FIELD_WALK_H_
#define KESTRIX_UTILS_FIELD_WALK_H_

#include "utils/log.h"
#include "wire_fields.h"

namespace kestrix {

// Reverses the kSwap and kUnits fields of the struct at `base` in place;
// the marker, byte areas and nested structures are left to the caller.
void ConvertFields(void* base, const wire::Layout& layout);

// One dump line of a field, as its show rule says, at log level `level`.
void DumpField(const void* base, const wire::Field& field, int level = KSX_SP);

// The lines of every field with a dump rank, rank 1 first.
void DumpFields(const void* base, const wire::Layout& layout, int level = KSX_SP);

}  // namespace kestrix

#endif  // KESTRIX_UTILS_FIELD_WALK_H_
