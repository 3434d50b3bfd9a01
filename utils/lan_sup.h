// LanHeader byte-order conversion and diagnostic dumps.
#ifndef KESTRIX_UTILS_LAN_SUP_H_
#define KESTRIX_UTILS_LAN_SUP_H_

#include "utils/plugin_api.h"

#include "lanheader.h"

#ifdef __cplusplus
extern "C" {
#endif

// Reverses the converted fields in place unless byteOrder reads 1.
void LANSUP_TransLanHeader(LanHeader* header);
// Five lines (functionCode, length, messageID, revision, result) at level 4.
void LANSUP_DumpLanHeader(const LanHeader* header);
// A heading line and the same five lines at level 1.
KESTRIX_FOR_PLUGINS void LANSUP_PrintLanHeader(const LanHeader* header);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // KESTRIX_UTILS_LAN_SUP_H_
