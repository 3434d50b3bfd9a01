// Disk discovery by identifier: /sys/block for the machine's devices, a
// comparison of the identifier bytes on each candidate, and the direct-I/O
// opening of the disk found.
#include "client/kxdisk.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace kestrix::client {

namespace {

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// What a candidate holds where the identifier should be: "" when it matches.
std::string Mismatch(const VolumeDisk& disk, const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::strerror(errno);
  const size_t n = std::min<size_t>(disk.idLength, disk.diskId.size());
  uint8_t found[16] = {};
  ssize_t got = pread(fd, found, n, disk.idOffset);
  int err = errno;
  close(fd);
  if (got < 0) return std::strerror(err);
  if (static_cast<size_t>(got) < n) return "too short";
  if (std::memcmp(found, disk.diskId.data(), n) == 0) return "";
  return "holds " + ToHex(found, n);
}

// What makes two paths one disk: a block device's number, or a file's
// device and inode. A loop device counts as the file behind it.
std::string Identity(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return "path " + path;
  if (S_ISBLK(st.st_mode)) {
    std::ifstream backing("/sys/dev/block/" + std::to_string(major(st.st_rdev)) + ":" +
                          std::to_string(minor(st.st_rdev)) + "/loop/backing_file");
    std::string file;
    if (std::getline(backing, file) && !file.empty() && file != path) return Identity(file);
    return "dev " + std::to_string(st.st_rdev);
  }
  return "file " + std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

}  // namespace

std::vector<std::string> SystemBlockDevices() {
  std::vector<std::string> devices;
  for (const std::string& name : Entries("/sys/block")) {
    devices.push_back("/dev/" + name);
    // Partitions are subdirectories that carry a "partition" file.
    for (const std::string& sub : Entries("/sys/block/" + name))
      if (access(("/sys/block/" + name + "/" + sub + "/partition").c_str(), F_OK) == 0)
        devices.push_back("/dev/" + sub);
  }
  return devices;
}

std::optional<std::string> FindDisk(const VolumeDisk& disk, std::vector<std::string> candidates,
                                    std::string* why) {
  const bool given = !candidates.empty();
  if (!given) candidates = SystemBlockDevices();
  const std::string id = ToHex(disk.diskId.data(), std::min<size_t>(disk.idLength, 16));
  if (disk.idLength < kMinDiskIdBytes || disk.idLength > 16 || disk.idOffset < 0) {
    *why = "the volume's disk has an identifier of " + std::to_string(disk.idLength) +
           " bytes at byte " + std::to_string(disk.idOffset) + " (" + id +
           "); it takes " + std::to_string(kMinDiskIdBytes) +
           " to 16 bytes to tell disks apart, so no disk is used";
    return std::nullopt;
  }
  std::string tried;
  std::vector<std::string> found, identities;
  for (const std::string& path : candidates) {
    std::string mismatch = Mismatch(disk, path);
    if (!mismatch.empty()) {
      tried += "\n  " + path + ": " + mismatch;
      continue;
    }
    const std::string identity = Identity(path);
    if (std::find(identities.begin(), identities.end(), identity) != identities.end()) continue;
    identities.push_back(identity);
    found.push_back(path);
  }
  if (found.size() == 1) return found[0];
  if (found.size() > 1) {
    *why = "the identifier " + id + " is on more than one disk:";
    for (const std::string& path : found) *why += " " + path;
    *why += "; a copy (clone, snapshot) cannot be told from the volume's disk, so none is used"
            " (name the right one with --disk PATH)";
    return std::nullopt;
  }
  *why = "no disk holds the identifier " + id + " at byte " + std::to_string(disk.idOffset) +
         (given ? "" : " among the block devices") + "; tried:" +
         (tried.empty() ? std::string(" nothing") : tried) +
         (given ? "" : "\n  (name the device or image file with --disk PATH)");
  return std::nullopt;
}

bool OpenDirect(const std::string& path, bool writing, OpenDisk* disk, std::string* why) {
  int fd = open(path.c_str(), (writing ? O_RDWR : O_RDONLY) | O_DIRECT | O_CLOEXEC);
  if (fd < 0) {
    *why = "cannot open " + path + (writing ? " for writing" : "") + " with direct I/O: " +
           std::strerror(errno);
    return false;
  }
  struct stat st;
  uint64_t bytes = 0;
  int sector = 512;
  bool ok = fstat(fd, &st) == 0;
  if (ok && S_ISBLK(st.st_mode)) {
    ok = ioctl(fd, BLKGETSIZE64, &bytes) == 0 && ioctl(fd, BLKSSZGET, &sector) == 0;
  } else if (ok) {
    bytes = static_cast<uint64_t>(st.st_size);
    struct statx sx;
    if (statx(fd, "", AT_EMPTY_PATH, STATX_DIOALIGN, &sx) == 0 && (sx.stx_mask & STATX_DIOALIGN) &&
        sx.stx_dio_offset_align != 0)
      sector = static_cast<int>(std::max(sx.stx_dio_offset_align, sx.stx_dio_mem_align));
  }
  if (!ok || sector <= 0 || (sector & (sector - 1)) != 0) {
    *why = "cannot read the size of " + path + ": " + std::strerror(errno);
    close(fd);
    return false;
  }
  disk->path = path;
  disk->fd = fd;
  disk->bytes = static_cast<int64_t>(bytes);
  disk->align = static_cast<uint32_t>(std::max(sector, 512));
  return true;
}

}  // namespace kestrix::client
