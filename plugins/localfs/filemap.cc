// FIEMAP walks, the verbose-extent map written into a reply, and the
// zero-filling that turns an allocation into written extents.
#include "plugins/localfs/filemap.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "fsmdc.h"
#include "fsvalidity.h"
#include "plugins/localfs/lfs_util.h"
#include "plugins/localfs/localfs.h"

namespace localfs {

namespace {

constexpr uint32_t kBatch = 256;                // extents asked of the kernel per call
constexpr size_t kZeroChunk = size_t{1} << 20;  // bytes of zeros written per call

// Extents whose blocks a client must not use: their location is unknown or
// not yet fixed, their bytes are not stored as they read, or they belong to
// other files as well.
constexpr uint32_t kNoAddressFlags = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC |
                                     FIEMAP_EXTENT_ENCODED | FIEMAP_EXTENT_DATA_ENCRYPTED |
                                     FIEMAP_EXTENT_NOT_ALIGNED | FIEMAP_EXTENT_DATA_INLINE |
                                     FIEMAP_EXTENT_DATA_TAIL | FIEMAP_EXTENT_SHARED;

uint32_t Validity(uint32_t flags, bool realtime) {
  if (realtime || (flags & kNoAddressFlags) != 0) return FS_VALIDITY_NO_ADDRESS;
  return (flags & FIEMAP_EXTENT_UNWRITTEN) != 0 ? FS_VALIDITY_UNWRITTEN : FS_VALIDITY_DATA;
}

// Files on an XFS realtime device have addresses on that other device.
bool OnRealtimeDevice(int fd) {
  struct fsxattr attr = {};
  return ioctl(fd, FS_IOC_FSGETXATTR, &attr) == 0 && (attr.fsx_xflags & FS_XFLAG_REALTIME) != 0;
}

// A struct fiemap followed by room for kBatch extents.
class FiemapBuffer {
 public:
  FiemapBuffer()
      : words_((sizeof(struct fiemap) + kBatch * sizeof(struct fiemap_extent) + 7) / 8) {}
  struct fiemap* get() {
    return reinterpret_cast<struct fiemap*>(words_.data());
  }

 private:
  std::vector<uint64_t> words_;
};

}  // namespace

int WalkExtents(int fd, int64_t start, int64_t end, bool sync,
                const std::function<bool(const Extent&)>& visit) {
  const bool realtime = OnRealtimeDevice(fd);
  FiemapBuffer buffer;
  struct fiemap* fm = buffer.get();
  int64_t pos = start;
  auto hole = [&](int64_t upTo) {
    Extent h{pos, 0, upTo - pos, FS_VALIDITY_HOLE};
    pos = upTo;
    return visit(h);
  };
  for (bool first = true; pos < end; first = false) {
    memset(fm, 0, sizeof *fm);
    fm->fm_start = static_cast<uint64_t>(pos);
    fm->fm_length = static_cast<uint64_t>(end - pos);
    fm->fm_flags = first && sync ? FIEMAP_FLAG_SYNC : 0;
    fm->fm_extent_count = kBatch;
    if (ioctl(fd, FS_IOC_FIEMAP, fm) != 0) return -errno;
    const int64_t before = pos;
    bool last = fm->fm_mapped_extents < kBatch;
    for (uint32_t i = 0; i < fm->fm_mapped_extents && pos < end; ++i) {
      const struct fiemap_extent& fe = fm->fm_extents[i];
      const int64_t lo = std::max(static_cast<int64_t>(fe.fe_logical), pos);
      const int64_t hi = std::min(static_cast<int64_t>(fe.fe_logical + fe.fe_length), end);
      last = last || (fe.fe_flags & FIEMAP_EXTENT_LAST) != 0;
      if (hi <= lo) continue;
      if (lo > pos && !hole(lo)) return 0;
      const uint32_t validity = Validity(fe.fe_flags, realtime);
      const int64_t physical =
          validity == FS_VALIDITY_NO_ADDRESS
              ? 0
              : static_cast<int64_t>(fe.fe_physical) + (lo - static_cast<int64_t>(fe.fe_logical));
      pos = hi;
      if (!visit(Extent{lo, physical, hi - lo, validity})) return 0;
    }
    if (last) break;
    if (pos == before) return -EIO;  // a full batch that does not advance
  }
  if (pos < end) hole(end);
  return 0;
}

int WriteMap(int fd, int64_t start, int64_t length, uint8_t* out, uint32_t room, std::string* why) {
  struct stat st;
  if (fstat(fd, &st) != 0) {
    *why = "cannot read the file's size: " + ErrnoText(errno);
    return LOCALFS_IO_ERROR;
  }
  int64_t end = st.st_size, rangeEnd = 0;
  if (length >= 0 && !__builtin_add_overflow(start, length, &rangeEnd))
    end = std::min(end, rangeEnd);

  const size_t fit = (room - FSMAPINFO_FIXED_SIZE) / VERBOSE_EXTENT_SIZE;
  size_t n = 0;
  int64_t covered = start;
  bool partial = false;
  if (start < end) {
    int error = WalkExtents(fd, start, end, true, [&](const Extent& e) {
      if (n == fit) {
        partial = true;
        return false;
      }
      VerboseExtent v = {e.logical, e.physical, e.bytes, 0, e.validity};
      memcpy(out + FSMAPINFO_FIXED_SIZE + n * VERBOSE_EXTENT_SIZE, &v, sizeof v);
      ++n;
      covered = e.logical + e.bytes;
      return true;
    });
    if (error != 0) {
      *why = "FIEMAP failed: " + ErrnoText(-error);
      return LOCALFS_IO_ERROR;
    }
  }
  FSMapInfo m = {};
  m.fileSize = st.st_size;
  m.allocation = static_cast<FS64LONG>(st.st_blocks) * 512;
  m.msgLen = static_cast<FSLONG>(FSMAPINFO_FIXED_SIZE + n * VERBOSE_EXTENT_SIZE);
  m.vendorStatus = partial ? LOCALFS_PARTIAL : 0;
  m.nExtents = static_cast<FSLONG>(n);
  m.extentType = FS_EXTENT_VERBOSE;
  m.fileOffset = start;
  m.fileBytes = covered - start;
  memcpy(out, &m, sizeof m);
  return m.vendorStatus;
}

int AllocateWritten(int fd, int64_t end) {
  if (end <= 0) return 0;
  if (fallocate(fd, 0, 0, end) != 0 && errno != EOPNOTSUPP) return -errno;
  if (fallocate(fd, FALLOC_FL_UNSHARE_RANGE, 0, end) != 0 && errno != EOPNOTSUPP &&
      errno != EINVAL) {
    return -errno;
  }
  std::vector<Extent> unwritten;
  int error = WalkExtents(fd, 0, end, true, [&](const Extent& e) {
    if (e.validity == FS_VALIDITY_HOLE || e.validity == FS_VALIDITY_UNWRITTEN)
      unwritten.push_back(e);
    return true;
  });
  if (error != 0) return error;
  std::vector<char> zeros;
  for (const Extent& e : unwritten) {
    for (int64_t done = 0; done < e.bytes;) {
      const size_t chunk = static_cast<size_t>(std::min<int64_t>(e.bytes - done, kZeroChunk));
      if (zeros.size() < chunk) zeros.resize(chunk);
      ssize_t wrote = pwrite(fd, zeros.data(), chunk, e.logical + done);
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote <= 0) return wrote < 0 ? -errno : -EIO;
      done += wrote;
    }
  }
  return fdatasync(fd) == 0 ? 0 : -errno;
}

}  // namespace localfs
