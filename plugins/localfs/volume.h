// What a served directory lies on: the mounted filesystem (ext4 or XFS), its
// block device, and the identity and geometry read from the superblock on
// that device, so that a client can find the disk by itself.
#ifndef KESTRIX_PLUGINS_LOCALFS_VOLUME_H_
#define KESTRIX_PLUGINS_LOCALFS_VOLUME_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace localfs {

struct Volume {
  int fsType = 0;           // LOCALFS_FSTYPE_EXT4 or LOCALFS_FSTYPE_XFS
  std::string fsName;       // the mount's filesystem type ("ext4", "tmpfs", ...)
  dev_t dev = 0;            // st_dev of the files
  std::string device;       // the block device's path
  uint8_t uuid[16] = {};    // as it lies on the device
  uint64_t uuidOffset = 0;  // its byte offset on the device
  uint32_t blockSize = 0;
  uint64_t deviceBytes = 0;
};

// Probes the filesystem that holds dirFd. Returns 0 and fills *v, or a
// LOCALFS_ status with *why saying in words what is wrong (another
// filesystem type, no block device, an unreadable superblock).
int ProbeVolume(int dirFd, Volume* v, std::string* why);

// True when the mount that holds fd writes every file's data through the
// journal (ext4's data=journal), so that its blocks may be older than the
// file's bytes.
bool MountJournalsData(int fd);

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_VOLUME_H_
