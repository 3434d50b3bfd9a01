// From the name a client gives for a volume to a directory on this machine.
//
// Names that are already local paths are used as they are. Anything else is
// taken as a share: first its "path =" in the Samba configuration, then,
// if the configuration has a "[homes]" section, the home directory of the
// user of that name. Files are read afresh on every call and all buffers
// live on the caller's stack, so any number of threads may call at once.
#ifndef KESTRIX_UTILS_OSL_SHARE_H_
#define KESTRIX_UTILS_OSL_SHARE_H_

#include <stdint.h>

#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

// In place, every backslash unit up to the 0 unit becomes a slash.
void OSL_TransPath(FSUNI* path);

// Writes the mount point of shareName into mountPoint (capacityUnits 16-bit
// units; 256 are always enough) and returns 0. An unknown share, or a mount
// point that does not fit, gives 3 and leaves mountPoint untouched.
int32_t OSL_ShareNameToMountPoint(const FSUNI* shareName, FSUNI* mountPoint,
                                  int32_t capacityUnits);

// Looks shareName up in the smb.conf named by KESTRIX_SMBPATH or else in the
// default locations. path must hold 256 bytes. Returns 0 when found, else -1.
int32_t sambaCheck(const char* shareName, char* path);

// Looks shareName up in one smb.conf file (and in the password file when the
// file has a "[homes]" section). path must hold 256 bytes. Returns 0 or -1.
int32_t parseSmbConfFile(const char* fileName, const char* shareName, char* path);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// The password file read for "[homes]" shares; null restores "/etc/passwd".
// The text must stay valid while it is in use. For tests only.
void SetPasswdPathForTesting(const char* path);
}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_OSL_SHARE_H_
