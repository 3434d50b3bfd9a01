// Share names to local mount points.
//
// A client names a volume by a path on this machine or by the name of a
// share exported through Samba. A path passes through unchanged; a share
// name is looked up in an smb.conf file and, when that file has a "[homes]"
// section, as a user name in the password file. Nothing is cached and every
// buffer is local to the call, so these are safe on any number of threads.
#ifndef KESTRIX_UTILS_OSL_SHARE_H_
#define KESTRIX_UTILS_OSL_SHARE_H_

#include <stdint.h>

#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

// In place, every backslash unit up to the 0 unit becomes a slash.
void OSL_TransPath(FSUNI* path);

// Maps shareName to a mount point written into mountPoint (capacityUnits
// 16-bit units, 256 always suffice). Returns 0, or 3 when the share is not
// known or the mount point cannot be stored; then mountPoint is not written.
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
