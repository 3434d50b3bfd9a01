// The 32-byte cookies of the localfs library.
//
// Volume cookie: "LV", the export's index, a format byte, 4 zero bytes, the
// filesystem's device number (8 bytes) and its UUID (16 bytes).
// File cookie: "LF", the export's index, the length of the kernel file
// handle, the handle's type (4 bytes) and the handle itself (at most 24
// bytes, zero-padded). A kernel handle names an inode and its generation,
// so the cookie survives a rename and goes stale when the file is deleted or
// replaced, even if its inode number is reused; no path is kept.
#ifndef KESTRIX_PLUGINS_LOCALFS_COOKIES_H_
#define KESTRIX_PLUGINS_LOCALFS_COOKIES_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "plugins/localfs/lfs_util.h"

namespace localfs {

inline constexpr size_t kCookieSize = 32;

struct VolCookie {
  uint8_t exportIndex = 0;
  uint64_t dev = 0;
  uint8_t uuid[16] = {};
};

void MakeVolCookie(const VolCookie& c, uint8_t* out);
// False when the bytes are not a volume cookie of this library.
bool ParseVolCookie(const uint8_t* in, VolCookie* c);

// Writes the file cookie of an open file; -errno when the kernel gives no
// handle for it or the handle does not fit.
int MakeFileCookie(int fd, uint8_t exportIndex, uint8_t* out);
// False when the bytes are not a file cookie of this library.
bool ParseFileCookie(const uint8_t* in, uint8_t* exportIndex);
// Opens the file a valid cookie names, on the filesystem of mountFd; -errno
// (ESTALE when the file is gone).
int OpenFileCookie(int mountFd, const uint8_t* cookie, int flags);

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_COOKIES_H_
