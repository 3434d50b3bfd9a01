// FIEMAP walks, the verbose-extent map written into a reply, and the
// zero-filling that turns an allocation into written extents.
#include "plugins/localfs/filemap.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "fsmdc.h"
#include "fsvalidity.h"
#include "plugins/localfs/lfs_util.h"
#include "plugins/localfs/localfs.h"

namespace localfs {

namespace {

constexpr uint32_t kBatch = 256;                // extents asked of the kernel per call
constexpr size_t kZeroChunk = size_t{1} << 20;  // bytes of zeros written per cached call
constexpr size_t kDirectChunk = size_t{4} << 20;  // bytes of zeros per direct write
constexpr int kDirectStreams = 8;                 // direct writes in flight
constexpr size_t kDirectAlign = 4096;

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

// Zeros through the page cache, a megabyte at a time.
int WriteZerosCached(int fd, int64_t at, int64_t bytes) {
  static const std::vector<char> zeros(kZeroChunk);
  for (int64_t done = 0; done < bytes;) {
    const size_t chunk = static_cast<size_t>(std::min<int64_t>(bytes - done, kZeroChunk));
    ssize_t wrote = pwrite(fd, zeros.data(), chunk, at + done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return wrote < 0 ? -errno : -EIO;
    done += wrote;
  }
  return 0;
}

// Lays zeros over allocated ranges of a file: by the device's write-zeroes
// while the filesystem accepts it, else by direct writes of a large aligned
// buffer of zeros (the file's descriptor is switched to direct I/O for the
// while: the library's lease forbids opening it again), and the unaligned
// tail of a range through the page cache. Several direct writes are kept in
// flight: one at a time leaves most devices idle between requests.
class ZeroFiller {
 public:
  ZeroFiller(int fd, int64_t block) : fd_(fd), block_(block) {}
  ~ZeroFiller() { Finish(); }

  int Fill(int64_t at, int64_t bytes) {
    if (bytes <= 0) return 0;
    if (writeZeroes_) {
      if (fallocate(fd_, kWriteZeroes, at, bytes) == 0) return 0;
      if (errno != EOPNOTSUPP && errno != EINVAL) return -errno;
      writeZeroes_ = false;
    }
    const int64_t aligned = bytes / block_ * block_;
    if (aligned > 0 && UseDirect()) return WriteDirect(at, aligned);
    return 0;  // what is left unwritten is found and filled by the caller
  }

  // Direct writes of zeros over [at, at + bytes), several in flight: each
  // stream takes the next chunk. A range the device cannot take directly
  // (EINVAL) is left for the caller to find.
  int WriteDirect(int64_t at, int64_t bytes) {
    std::atomic<int64_t> next{0};
    std::atomic<int> error{0};
    auto stream = [&] {
      for (int64_t from = next.fetch_add(kDirectChunk); from < bytes && error.load() == 0;
           from = next.fetch_add(kDirectChunk)) {
        const int64_t to = std::min<int64_t>(bytes, from + kDirectChunk);
        for (int64_t done = from; done < to;) {
          ssize_t wrote = pwrite(fd_, Zeros(), static_cast<size_t>(to - done), at + done);
          if (wrote < 0 && errno == EINTR) continue;
          if (wrote < 0 && errno == EINVAL) return;
          if (wrote <= 0) {
            error = wrote < 0 ? errno : EIO;
            return;
          }
          done += wrote;
        }
      }
    };
    std::vector<std::thread> streams;
    try {
      for (int i = 1; i < kDirectStreams; ++i) streams.emplace_back(stream);
    } catch (const std::system_error&) {
      // Fewer streams, same result.
    }
    stream();
    for (std::thread& t : streams) t.join();
    return -error.load();
  }

  // Puts the descriptor back as it was; 0 or -errno.
  int Finish() {
    if (flags_ < 0) return 0;
    int error = fcntl(fd_, F_SETFL, flags_) == 0 ? 0 : -errno;
    flags_ = -1;
    return error;
  }

 private:
  static constexpr int kWriteZeroes = 0x80;  // FALLOC_FL_WRITE_ZEROES, newer than the headers

  bool UseDirect() {
    if (flags_ >= 0) return true;
    int flags = fcntl(fd_, F_GETFL);
    if (flags < 0 || fcntl(fd_, F_SETFL, flags | O_DIRECT) != 0) return false;
    flags_ = flags & ~O_DIRECT;
    return true;
  }
  // One buffer of zeros for every call, aligned for any device.
  static const void* Zeros() {
    static const void* zeros = [] {
      void* p = nullptr;
      if (posix_memalign(&p, kDirectAlign, kDirectChunk) != 0) std::abort();
      memset(p, 0, kDirectChunk);
      return p;
    }();
    return zeros;
  }

  int fd_;
  int64_t block_;
  bool writeZeroes_ = true;
  int flags_ = -1;  // the descriptor's flags before direct I/O; -1 while off
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

int CheckRoom(int fd, int64_t end) {
  int64_t missing = 0;
  int error = WalkExtents(fd, 0, end, false, [&](const Extent& e) {
    if (e.validity == FS_VALIDITY_HOLE) missing += e.bytes;
    return true;
  });
  struct statfs sf;
  if (error != 0) return error;
  if (fstatfs(fd, &sf) != 0) return -errno;
  const auto room = static_cast<unsigned __int128>(sf.f_bavail) * sf.f_bsize;
  return static_cast<unsigned __int128>(missing) > room ? -ENOSPC : 0;
}

int AllocateWritten(int fd, int64_t end, int64_t budget, int64_t* grantedEnd) {
  *grantedEnd = std::max<int64_t>(end, 0);
  if (end <= 0) return 0;
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  const int64_t block = std::max<int64_t>(st.st_blksize, 512);
  // The ranges to fill, cut where the budget runs out (on a block boundary,
  // and never before a first block).
  std::vector<Extent> todo;
  int64_t planned = 0;
  int error = WalkExtents(fd, 0, end, true, [&](const Extent& e) {
    if (e.validity != FS_VALIDITY_HOLE && e.validity != FS_VALIDITY_UNWRITTEN) return true;
    Extent part = e;
    if (planned + part.bytes > budget) {
      part.bytes = std::max<int64_t>((budget - planned) / block * block, planned == 0 ? block : 0);
      *grantedEnd = std::min(end, part.logical + part.bytes);
    }
    planned += part.bytes;
    if (part.bytes > 0) todo.push_back(part);
    return *grantedEnd == end;
  });
  if (error != 0) return error;
  // Every block is there already, the last one reaching past the end of the
  // file: the size grows to the allocation all the same, as with a new
  // one, so that the map shows the range as data.
  if (todo.empty())
    return st.st_size < end && fallocate(fd, 0, 0, end) != 0 && errno != EOPNOTSUPP ? -errno : 0;
  const int64_t grant = *grantedEnd;
  // One allocation at a time: the disk is shared anyway, and the direct I/O
  // switch of a descriptor must not be undone under another fill.
  static std::mutex oneAtATime;
  std::lock_guard<std::mutex> guard(oneAtATime);
  if (fallocate(fd, 0, 0, grant) != 0 && errno != EOPNOTSUPP) return -errno;
  if (fallocate(fd, FALLOC_FL_UNSHARE_RANGE, 0, grant) != 0 && errno != EOPNOTSUPP &&
      errno != EINVAL) {
    return -errno;
  }
  ZeroFiller filler(fd, block);
  for (const Extent& e : todo) {
    if (int failed = filler.Fill(e.logical, std::min(e.logical + e.bytes, grant) - e.logical);
        failed != 0)
      return failed;
  }
  if (int failed = filler.Finish(); failed != 0) return failed;
  // Whatever way the zeros went, no range may stay unwritten: check, and
  // write what is left through the page cache.
  std::vector<Extent> left;
  error = WalkExtents(fd, 0, grant, true, [&](const Extent& e) {
    if (e.validity == FS_VALIDITY_HOLE || e.validity == FS_VALIDITY_UNWRITTEN) left.push_back(e);
    return true;
  });
  if (error != 0) return error;
  for (const Extent& e : left) {
    if (int failed = WriteZerosCached(fd, e.logical, e.bytes); failed != 0) return failed;
  }
  return fdatasync(fd) == 0 ? 0 : -errno;
}

}  // namespace localfs
