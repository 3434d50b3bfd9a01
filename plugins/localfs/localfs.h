// localfs: the filesystem library that serves directories of local ext4 and
// XFS filesystems. This header holds what callers of the library (the tests,
// a client printing a status) need to know: its statuses and FStype values.
#ifndef KESTRIX_PLUGINS_LOCALFS_LOCALFS_H_
#define KESTRIX_PLUGINS_LOCALFS_LOCALFS_H_

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

  // VolInfo FStype values.
  LOCALFS_FSTYPE_EXT4 = 1,
  LOCALFS_FSTYPE_XFS = 2,
};

#endif  // KESTRIX_PLUGINS_LOCALFS_LOCALFS_H_
