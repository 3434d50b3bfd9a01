// Volume probe: the mount behind a directory (from /proc/self/mountinfo),
// its block device, and the superblock fields a client needs to find the
// disk: the filesystem UUID with its offset on the device, the block size
// and the device size.
#include "plugins/localfs/volume.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "plugins/localfs/lfs_util.h"
#include "plugins/localfs/localfs.h"

namespace localfs {

namespace {

// Where each filesystem keeps its superblock, its magic and its UUID.
constexpr uint64_t kExt4SuperOffset = 1024;
constexpr size_t kExt4MagicAt = 0x38, kExt4LogBlockAt = 0x18, kExt4UuidAt = 0x68;
constexpr uint64_t kXfsSuperOffset = 0;
constexpr size_t kXfsBlockSizeAt = 4, kXfsUuidAt = 32;
constexpr size_t kSuperBytes = 1024;

uint32_t Le(const uint8_t* p, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}
uint32_t Be32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// mountinfo escapes blanks and backslashes in paths as \ooo.
std::string Unescape(const std::string& field) {
  auto octal = [](char c) { return c >= '0' && c <= '7'; };
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && octal(field[i + 1]) && octal(field[i + 2]) &&
        octal(field[i + 3])) {
      out += static_cast<char>(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) |
                               (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

struct Mount {
  std::string fsName, source, options;  // options: the filesystem's own
};

// The mountinfo entry of a mount ID.
bool FindMount(uint64_t mountId, Mount* m) {
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::vector<std::string> f;
    for (std::string w; fields >> w;) f.push_back(w);
    if (f.size() < 10 || f[0] != std::to_string(mountId)) continue;
    for (size_t i = 6; i + 2 < f.size(); ++i) {
      if (f[i] != "-") continue;
      m->fsName = f[i + 1];
      m->source = Unescape(f[i + 2]);
      if (i + 3 < f.size()) m->options = f[i + 3];
      return true;
    }
  }
  return false;
}

// Opens path when it is the block device dev; else says why not.
UniqueFd OpenIfDevice(const std::string& path, dev_t dev, std::string* why) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st;
  if (!fd.ok()) {
    *why = "cannot open " + path + ": " + ErrnoText(errno);
  } else if (fstat(fd.get(), &st) != 0 || !S_ISBLK(st.st_mode) || st.st_rdev != dev) {
    *why = path + " is not its block device";
    fd.Reset();
  }
  return fd;
}

// The block device of a mount: its source, or else the device node that
// sysfs names for the device number.
UniqueFd OpenDevice(const Mount& m, dev_t dev, std::string* path, std::string* why) {
  if (UniqueFd fd = OpenIfDevice(m.source, dev, why); fd.ok()) {
    *path = m.source;
    return fd;
  }
  std::ifstream uevent("/sys/dev/block/" + std::to_string(major(dev)) + ":" +
                       std::to_string(minor(dev)) + "/uevent");
  for (std::string line; std::getline(uevent, line);) {
    if (line.rfind("DEVNAME=", 0) != 0 || "/dev/" + line.substr(8) == m.source) continue;
    *path = "/dev/" + line.substr(8);
    return OpenIfDevice(*path, dev, why);
  }
  return UniqueFd();
}

// Reads the superblock's UUID and block size.
int ReadSuperblock(int deviceFd, Volume* v, std::string* why) {
  const bool ext4 = v->fsType == LOCALFS_FSTYPE_EXT4;
  const uint64_t at = ext4 ? kExt4SuperOffset : kXfsSuperOffset;
  uint8_t sb[kSuperBytes];
  if (pread(deviceFd, sb, sizeof sb, static_cast<off_t>(at)) != static_cast<ssize_t>(sizeof sb)) {
    *why = "cannot read the superblock on " + v->device;
    return LOCALFS_IO_ERROR;
  }
  if (ext4) {
    const uint32_t logBlock = Le(sb + kExt4LogBlockAt, 4);
    if (Le(sb + kExt4MagicAt, 2) != EXT4_SUPER_MAGIC || logBlock > 6) {
      *why = "no ext4 superblock on " + v->device;
      return LOCALFS_IO_ERROR;
    }
    v->blockSize = 1024u << logBlock;
    v->uuidOffset = at + kExt4UuidAt;
  } else {
    if (Be32(sb) != XFS_SUPER_MAGIC) {
      *why = "no XFS superblock on " + v->device;
      return LOCALFS_IO_ERROR;
    }
    v->blockSize = Be32(sb + kXfsBlockSizeAt);
    v->uuidOffset = at + kXfsUuidAt;
  }
  memcpy(v->uuid, sb + (v->uuidOffset - at), sizeof v->uuid);
  if (v->blockSize == 0) {
    *why = "a block size of 0 on " + v->device;
    return LOCALFS_IO_ERROR;
  }
  return 0;
}

}  // namespace

int ProbeVolume(int dirFd, Volume* v, std::string* why) {
  struct statx sx;
  struct statfs sf;
  if (statx(dirFd, "", AT_EMPTY_PATH, STATX_MNT_ID, &sx) != 0 || fstatfs(dirFd, &sf) != 0 ||
      !(sx.stx_mask & STATX_MNT_ID)) {
    *why = "cannot query the mount: " + ErrnoText(errno);
    return LOCALFS_IO_ERROR;
  }
  v->dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
  Mount m;
  if (!FindMount(sx.stx_mnt_id, &m)) {
    *why = "its mount is not in /proc/self/mountinfo";
    return LOCALFS_IO_ERROR;
  }
  v->fsName = m.fsName;
  if (sf.f_type == EXT4_SUPER_MAGIC) {
    v->fsType = LOCALFS_FSTYPE_EXT4;
  } else if (sf.f_type == XFS_SUPER_MAGIC) {
    v->fsType = LOCALFS_FSTYPE_XFS;
  } else {
    *why = "it is on " + m.fsName + ", not ext4 or XFS";
    return LOCALFS_NOT_SERVED;
  }
  UniqueFd device = OpenDevice(m, v->dev, &v->device, why);
  if (!device.ok()) {
    *why = "no block device for " + m.fsName + " on " + m.source + " (" + *why + ")";
    return LOCALFS_NOT_SERVED;
  }
  if (int status = ReadSuperblock(device.get(), v, why); status != 0) return status;
  uint64_t bytes = 0;
  if (ioctl(device.get(), BLKGETSIZE64, &bytes) != 0) {
    *why = "cannot read the size of " + v->device + ": " + ErrnoText(errno);
    return LOCALFS_IO_ERROR;
  }
  v->deviceBytes = bytes;
  return 0;
}

bool MountJournalsData(int fd) {
  struct statx sx;
  Mount m;
  if (statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &sx) != 0 || !(sx.stx_mask & STATX_MNT_ID) ||
      !FindMount(sx.stx_mnt_id, &m))
    return false;
  return ("," + m.options + ",").find(",data=journal,") != std::string::npos;
}

}  // namespace localfs
