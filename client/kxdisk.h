// Finding the disk of a volume on this machine: the device or image file
// whose bytes at a disk's IDoffset equal its DiskID, found exactly once,
// and opening it for direct I/O.
#ifndef KESTRIX_CLIENT_KXDISK_H_
#define KESTRIX_CLIENT_KXDISK_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/kxclient.h"

namespace kestrix::client {

// Shorter identifiers name too little to tell disks apart.
constexpr uint32_t kMinDiskIdBytes = 8;

// Every block device of the machine and its partitions, as /dev paths.
std::vector<std::string> SystemBlockDevices();

// The one candidate that holds the disk's identifier, or nothing with *why
// naming what was tried and what each candidate held instead. An
// identifier shorter than kMinDiskIdBytes, or found on two candidates that
// are not the same device (a clone, a snapshot), is refused with the
// devices named. No candidates: the machine's block devices are tried.
std::optional<std::string> FindDisk(const VolumeDisk& disk, std::vector<std::string> candidates,
                                    std::string* why);

// A disk opened for I/O that bypasses every cache (O_DIRECT).
struct OpenDisk {
  std::string path;
  int fd = -1;
  int64_t bytes = 0;   // size of the device or image file
  uint32_t align = 0;  // offsets, lengths and buffers of direct I/O are multiples
};

// Opens path for direct I/O (read-write when writing); false with *why set.
bool OpenDirect(const std::string& path, bool writing, OpenDisk* disk, std::string* why);

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXDISK_H_
