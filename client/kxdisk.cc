// Disk discovery by identifier: /sys/block for the machine's devices, then
// a comparison of the identifier bytes on each candidate.
#include "client/kxdisk.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

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
  if (disk.idLength == 0 || disk.idLength > 16) {
    *why = "the volume's disk has an identifier of " + std::to_string(disk.idLength) +
           " bytes; cannot look for it";
    return std::nullopt;
  }
  std::string tried;
  for (const std::string& path : candidates) {
    std::string mismatch = Mismatch(disk, path);
    if (mismatch.empty()) return path;
    tried += "\n  " + path + ": " + mismatch;
  }
  *why = "no disk holds the identifier " + id + " at byte " + std::to_string(disk.idOffset) +
         (given ? "" : " among the block devices") + "; tried:" +
         (tried.empty() ? std::string(" nothing") : tried) +
         (given ? "" : "\n  (name the device or image file with --disk PATH)");
  return std::nullopt;
}

}  // namespace kestrix::client
