// The refusal of files whose blocks do not hold their bytes; see filekind.h.
#include "plugins/localfs/filekind.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>

#include "plugins/localfs/lfs_util.h"
#include "plugins/localfs/localfs.h"
#include "plugins/localfs/volume.h"

namespace localfs {

int CheckMappable(int fd, bool checkMount, std::string* why) {
  struct statx sx;
  if (statx(fd, "", AT_EMPTY_PATH, STATX_NLINK, &sx) != 0) {
    *why = "cannot examine the file: " + ErrnoText(errno);
    return LOCALFS_IO_ERROR;
  }
  const uint64_t attributes = sx.stx_attributes & sx.stx_attributes_mask;
  // The inode flags say the same for filesystems whose statx does not.
  int flags = 0;
  if (ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) flags = 0;
  if ((attributes & STATX_ATTR_ENCRYPTED) != 0 || (flags & FS_ENCRYPT_FL) != 0) {
    *why = "the file is encrypted: its blocks hold ciphertext";
  } else if ((attributes & STATX_ATTR_VERITY) != 0 || (flags & FS_VERITY_FL) != 0) {
    *why = "the file is protected by verity: its blocks must not change";
  } else if ((flags & FS_JOURNAL_DATA_FL) != 0 || (checkMount && MountJournalsData(fd))) {
    *why = "the file's data is journalled: its blocks may be older than its bytes";
  } else if (sx.stx_nlink > 1) {
    *why = "the file has " + std::to_string(sx.stx_nlink) +
           " names, and the others may lie outside the export";
  } else {
    return 0;
  }
  *why = PathOf(fd) + ": " + *why;
  return LOCALFS_REFUSED;
}

}  // namespace localfs
