// Helpers the handlers use on request texts and reply buffers: the size of
// the large reply buffers (MAXDGRAM), the string after the first one in a
// name area, joining a mount point and a file name, and the FSUNI printers
// for debugging.
#ifndef KESTRIX_SP_PATH_HELPERS_H_
#define KESTRIX_SP_PATH_HELPERS_H_

#include "utils/plugin_api.h"

#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

FSULONG maxDgramSize(void);
FSUNI* GetNextString(FSUNI* area, FSULONG capacityBytes);
FSUNI* ConcatFilenameToPath(const FSUNI* name, const FSUNI* mountPoint, FSUNI separator,
                            FSUNI* out, FSULONG capacityBytes);
KESTRIX_FOR_PLUGINS FSUNI* ConcatFilenameToPathOld(const FSUNI* name, const FSUNI* mountPoint,
                                                   FSUNI* out, FSULONG capacityBytes);
KESTRIX_FOR_PLUGINS void printFSUNI(const FSUNI* text);
KESTRIX_FOR_PLUGINS void printFSUNIBytes(const FSUNI* text);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// Bounds applied to a MAXDGRAM value: room for the largest fixed reply part
// plus useful map room, and at most the default. Replies are cut to what one
// UDP datagram carries whatever their buffer, so the default buffer is the
// largest worth having, and setting it explicitly changes nothing.
inline constexpr FSULONG kDefaultMaxDgram = 65536;
inline constexpr FSULONG kMinMaxDgram = 1024;
inline constexpr FSULONG kMaxMaxDgram = kDefaultMaxDgram;
// The size a MAXDGRAM text asks for, after the bounds (logs what was used).
FSULONG MaxDgramFromText(const char* text);
}  // namespace kestrix
#endif

#endif  // KESTRIX_SP_PATH_HELPERS_H_
