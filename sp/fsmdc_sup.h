// Byte-order converters and log dumps of the volume and map structures.
//
// The converters do not test a byte-order marker: the caller has decided
// that the structure was written in the other byte order. Counts and the
// extent type are read after their own conversion, so they turn a received
// structure into host order. Dumps write at level 4.
#ifndef KESTRIX_SP_FSMDC_SUP_H_
#define KESTRIX_SP_FSMDC_SUP_H_

#include "utils/plugin_api.h"

#include <stdint.h>

#include "fsmdc.h"

#ifdef __cplusplus
extern "C" {
#endif

void FSMDCSUP_TransVolInfo(VolInfo* info);
void FSMDCSUP_TransFSSystem(FSSystem* system);
void FSMDCSUP_TransFSDisk(FSDisk* disk);
void FSMDCSUP_TransMapInfo(FSMapInfo* map);
void FSMDCSUP_TransCompactExtent(CompactExtent* extent);
void FSMDCSUP_TransSimpleExtent(SimpleExtent* extent);
void FSMDCSUP_TransVerboseExtent(VerboseExtent* extent);

void FSMDCSUP_DumpVolInfo(const VolInfo* info);
void FSMDCSUP_DumpFSDisk(const FSDisk* disk);
// "%02X " for each of count bytes, untrimmed; text must hold 3 * count + 1.
char* FSMDCSUP_DiskIdToString(const uint8_t* bytes, int count, char* text);
KESTRIX_FOR_PLUGINS void FSMDCSUP_DumpFSMapInfo(const FSMapInfo* map);
void FSMDCSUP_DumpCompactExtent(const CompactExtent* extent);
void FSMDCSUP_DumpSimpleExtent(const SimpleExtent* extent);
void FSMDCSUP_DumpVerboseExtent(const VerboseExtent* extent);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

// No limit: the tables are walked as far as their counts say.
inline constexpr uint64_t kNoByteLimit = UINT64_MAX;

// Variants that never touch a byte at or beyond `limit` bytes from the start
// of the structure when walking its table or its text: a table entry is
// converted or dumped only if it lies wholly inside the limit. The fixed
// part is always handled. With kNoByteLimit they are the exported routines.
void TransVolInfoWithin(VolInfo* info, uint64_t limit);
void TransMapInfoWithin(FSMapInfo* map, uint64_t limit);
void DumpVolInfoWithin(const VolInfo* info, uint64_t limit);
void DumpFSMapInfoWithin(const FSMapInfo* map, uint64_t limit);

}  // namespace kestrix
#endif

#endif  // KESTRIX_SP_FSMDC_SUP_H_
