// Finding the disk of a volume on this machine: the device or image file
// whose bytes at a disk's IDoffset equal its DiskID.
#ifndef KESTRIX_CLIENT_KXDISK_H_
#define KESTRIX_CLIENT_KXDISK_H_

#include <optional>
#include <string>
#include <vector>

#include "client/kxclient.h"

namespace kestrix::client {

// Every block device of the machine and its partitions, as /dev paths.
std::vector<std::string> SystemBlockDevices();

// The first candidate that holds the disk's identifier, or nothing with
// *why naming what was tried and what each candidate held instead.
// No candidates: the machine's block devices are tried.
std::optional<std::string> FindDisk(const VolumeDisk& disk, std::vector<std::string> candidates,
                                    std::string* why);

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXDISK_H_
