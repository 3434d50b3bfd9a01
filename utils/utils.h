// FSUNI text (UTF-16 units on the wire) and byte-order helpers.
//
// Wire text is FSUNI; inside the daemon text is UTF-8. Conversions are
// single passes in the caller's buffers. doendian and endianizeFsUniArray
// reverse fields in place for messages written in the other byte order.
#ifndef KESTRIX_UTILS_UTILS_H_
#define KESTRIX_UTILS_UTILS_H_

#include "utils/plugin_api.h"

#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

FSULONG fsunilength(const FSUNI* s);
KESTRIX_FOR_PLUGINS FSUNI* fsunicpy(FSUNI* destination, const FSUNI* source,
                                    FSULONG destinationBytes);
char* fsuni2mb(char* destination, const FSUNI* source, int32_t capacityBytes);
int32_t utf16array_to_utf8asciz(const FSUNI* source, int32_t units, char* destination,
                                int32_t capacityBytes);
KESTRIX_FOR_PLUGINS FSUNI* mb2fsuni(FSUNI* destination, const char* source, int32_t capacityUnits);
int32_t utf8array_to_utf16asciz(const char* source, int32_t bytes, FSUNI* destination,
                                int32_t capacityUnits);
void doendian(void* field, int32_t width);
void endianizeFsUniArray(void* area, int32_t bytes);
// Hex text of n bytes ("AB CD"), trailing '0' digits and blanks removed.
// out must hold at least 3n + 1 bytes.
char* bytesToString(const void* bytes, int32_t n, char* out);
KESTRIX_FOR_PLUGINS int32_t checkDataSizes(void);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// utf16array_to_utf8asciz; with report false no error line is written (for
// dumps of a text whose errors its real use reports). Invalid surrogates of
// one text are reported in one line: the exact single-error line for one,
// a line with their count and the first pair for more.
int32_t Utf16ToUtf8(const FSUNI* source, int32_t units, char* destination, int32_t capacityBytes,
                    bool report);
// Units before the first 0 unit, looking at no more than maxUnits units.
FSULONG fsuninlength(const FSUNI* s, FSULONG maxUnits);
}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_UTILS_H_
