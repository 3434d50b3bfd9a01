// localfs: the filesystem library that serves directories of local ext4 and
// XFS filesystems. This header holds what callers of the library (the tests,
// a client printing a status) need to know: its statuses and FStype values.
#ifndef KESTRIX_PLUGINS_LOCALFS_LOCALFS_H_
#define KESTRIX_PLUGINS_LOCALFS_LOCALFS_H_

#include "spmsgs.h"

enum {
  LOCALFS_VERSION = 230,

  // Statuses of the entry points besides 0 (success).
  LOCALFS_PARTIAL = 1,            // the map holds only the extents that fit the room
  LOCALFS_NOT_SERVED = -380,      // not inside an export, not found, or refused
  LOCALFS_STALE = -381,           // the file was deleted or replaced, or the volume is gone
  LOCALFS_BAD_COOKIE = -382,      // not a cookie this library made
  LOCALFS_IO_ERROR = -383,        // a system call on the file or the device failed
  LOCALFS_NO_ROOM = -384,         // the room cannot hold even the fixed part
  LOCALFS_INVALID = -385,         // an argument out of range (negative start or size)
  LOCALFS_NO_SPACE = -386,        // the filesystem has no room for the size asked
  LOCALFS_NOT_CONFIGURED = -387,  // FS_GetMaxLeases: no maxima in the configuration
  LOCALFS_REFUSED = -388,         // the blocks would not hold the file's bytes as they read
                                  // (encrypted, verity, journalled data) or the file has
                                  // more than one name
  LOCALFS_BUSY = -389,            // the file is open elsewhere, so local changes could not
                                  // be held off while the map is out
  LOCALFS_WITHDRAWN = -390,       // a local change of the file waits for its maps to end

  // Map flag: the client only reads the blocks. Such a file is held with a
  // read lease, so local readers do not disturb the map; without the flag
  // the map is taken to be written, and the file is held with a write lease.
  LOCALFS_MAP_READ_ONLY = FS_M_FLAG_READ_ONLY,

  // VolInfo FStype values.
  LOCALFS_FSTYPE_EXT4 = 1,
  LOCALFS_FSTYPE_XFS = 2,
};

#endif  // KESTRIX_PLUGINS_LOCALFS_LOCALFS_H_
