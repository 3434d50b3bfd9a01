// File data to and from the shared disk: the whole map first (initial map
// plus extended maps while it comes back partial), checked before any byte
// moves, then the extents read or written in order.
#include "client/kxtransfer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "client/kxdisk.h"
#include "fsmdc.h"
#include "fsvalidity.h"

namespace kestrix::client {

namespace {

constexpr size_t kChunk = 1 << 20;

const char* ValidityName(uint32_t validity) {
  switch (validity) {
    case FS_VALIDITY_DATA: return "data";
    case FS_VALIDITY_UNWRITTEN: return "unwritten";
    case FS_VALIDITY_HOLE: return "a hole";
    case FS_VALIDITY_NO_ADDRESS: return "not addressable";
    default: return "of unknown validity";
  }
}

std::string Range(int64_t from, int64_t length) {
  return "bytes " + std::to_string(from) + " to " + std::to_string(from + length - 1);
}

// What went wrong moving n bytes at logical byte `logical` of the file to or
// from disk byte `where`; `done` is what read or write returned.
std::string DiskFailure(const char* verb, int64_t logical, size_t n, int64_t where, ssize_t done) {
  const std::string why = done < 0 ? std::strerror(errno) : "end of the disk";
  return std::string(verb) + " " + Range(logical, static_cast<int64_t>(n)) + " at disk byte " +
         std::to_string(where) + ": " + why;
}

// One open file: its lease, its volume and the disks found for it so far.
class Transfer {
 public:
  Transfer(Client& client, const TransferOptions& options, TransferReport& report)
      : client_(client), options_(options), report_(report) {}
  ~Transfer() {
    if (open_) client_.Close(report_.key);  // a failed transfer leaves the size alone
    for (auto& [ordinal, fd] : fds_) close(fd);
  }

  bool Open(const std::string& share, const std::string& path, const OpenOptions& o) {
    std::optional<MapReply> m = client_.Open(share, path, o);
    if (!Answered(m, "open " + share + " " + path)) return false;
    open_ = true;
    report_.key = m->key;
    report_.fileSize = m->map.fileSize;
    std::optional<GetVolumeInfo> v = client_.GetVolumeByCookie(m->volumeCookie.data());
    if (!Answered(v, "the file's volume")) return false;
    if (v->vendorStatus != 0) return Fail(TransferReport::kResult, "the file's volume: " + v->errorText);
    volume_ = *v;
    return Take(*m);
  }

  // Maps of [0, end) until they cover it; false with the report set.
  bool MapTo(int64_t end) {
    while (covered_ < end) {
      std::optional<MapReply> m = client_.ExtendedMap(report_.key, covered_);
      if (!Answered(m, "the map from byte " + std::to_string(covered_))) return false;
      const int64_t before = covered_;
      if (!Take(*m)) return false;
      if (covered_ <= before)
        return Fail(TransferReport::kLocal, "the map from byte " + std::to_string(before) +
                                                " came back empty; the file cannot be covered");
    }
    return true;
  }

  // The extents clipped to [0, end), with gaps filled as holes.
  std::vector<MapExtent> Extents(int64_t end) const {
    std::vector<MapExtent> out;
    int64_t at = 0;
    for (const MapExtent& e : extents_) {
      int64_t from = std::max(e.logical, at), to = std::min(e.logical + e.length, end);
      if (from > at) out.push_back(Hole(at, std::min(from, end)));
      if (to <= from) continue;
      MapExtent piece = e;
      piece.physical += from - e.logical;
      piece.logical = from;
      piece.length = to - from;
      out.push_back(piece);
      at = to;
    }
    if (at < end) out.push_back(Hole(at, end));
    return out;
  }

  // The open descriptor of the disk behind a volume ordinal.
  int Disk(uint32_t ordinal, bool writing) {
    if (auto it = fds_.find(ordinal); it != fds_.end()) return it->second;
    if (ordinal >= volume_.disks.size()) {
      Fail(TransferReport::kLocal, "the map names disk " + std::to_string(ordinal) +
                                       " of a volume with " + std::to_string(volume_.disks.size()));
      return -1;
    }
    std::string why;
    std::optional<std::string> path = FindDisk(volume_.disks[ordinal], options_.disks, &why);
    if (!path) {
      Fail(TransferReport::kLocal, why);
      return -1;
    }
    int fd = open(path->c_str(), (writing ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
      Fail(TransferReport::kLocal, "cannot open " + *path + (writing ? " for writing" : "") + ": " +
                                       std::strerror(errno));
      return -1;
    }
    report_.disk = report_.disk.empty() ? *path : report_.disk + "," + *path;
    fds_[ordinal] = fd;
    return fd;
  }

  // Where a verbose extent's first byte lies on its disk.
  int64_t DiskOffset(const MapExtent& e) const {
    return volume_.disks[e.volumeOrdinal].blockOffset * volume_.blockSize + e.physical;
  }

  // Syncs the disks written, so the data is on them before the Close.
  bool Sync() {
    for (auto& [ordinal, fd] : fds_) {
      if (fdatasync(fd) != 0)
        return Fail(TransferReport::kLocal, "syncing the disk: " + std::string(std::strerror(errno)));
      posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    }
    return true;
  }

  bool Close(int64_t size) {
    open_ = false;
    std::optional<StatusReply> s = client_.Close(report_.key, size);
    return Answered(s, "close");
  }

  bool Fail(TransferReport::Failure failure, const std::string& error) {
    report_.failure = failure;
    report_.error = error;
    return false;
  }

  void Progress(int64_t done, int64_t total) const {
    if (options_.progress) options_.progress(done, total);
  }

 private:
  static MapExtent Hole(int64_t from, int64_t to) {
    MapExtent e;
    e.logical = from;
    e.length = to - from;
    e.validity = FS_VALIDITY_HOLE;
    return e;
  }

  // A reply came and carries a result that is not an error.
  template <typename T>
  bool Answered(const std::optional<T>& reply, const std::string& what) {
    if (!reply) {
      return Fail(client_.replied() ? TransferReport::kLocal : TransferReport::kNoReply,
                  what + ": " + client_.error());
    }
    if (reply->result != 0 && reply->result != 1) {
      report_.result = reply->result;
      return Fail(TransferReport::kResult, what + ": result " + std::to_string(reply->result) +
                                               " (" + ResultName(reply->result) + ")");
    }
    return true;
  }

  bool Take(const MapReply& m) {
    ++report_.mapReplies;
    const FileMap& f = m.map;
    if (!m.hasMap) return Fail(TransferReport::kLocal, "a map reply without a map");
    if (f.vendorStatus != 0 && f.vendorStatus != 1)
      return Fail(TransferReport::kResult, "the map: library status " +
                                               std::to_string(f.vendorStatus) + " " + f.text);
    if (f.nExtents > 0 && f.extentType != FS_EXTENT_VERBOSE && f.extentType != FS_EXTENT_VERBOSE_ALT)
      return Fail(TransferReport::kLocal, "the map has extents of type " +
                                              std::to_string(f.extentType) + ", not byte extents");
    if (f.extentsTruncated)
      return Fail(TransferReport::kLocal, "the map reply holds fewer extents than it names");
    extents_.insert(extents_.end(), f.extents.begin(), f.extents.end());
    report_.extents += static_cast<int>(f.extents.size());
    covered_ = std::max(covered_, f.fileOffset + f.fileBytes);
    return true;
  }

  Client& client_;
  const TransferOptions& options_;
  TransferReport& report_;
  GetVolumeInfo volume_;
  std::vector<MapExtent> extents_;
  std::map<uint32_t, int> fds_;
  int64_t covered_ = 0;
  bool open_ = false;
};

bool WriteAll(int fd, const char* data, size_t n) {
  while (n > 0) {
    ssize_t done = write(fd, data, n);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    data += done;
    n -= static_cast<size_t>(done);
  }
  return true;
}

}  // namespace

TransferReport ReadFileData(Client& client, const std::string& share, const std::string& path,
                            const TransferOptions& options, int outFd) {
  TransferReport report;
  Transfer t(client, options, report);
  if (!t.Open(share, path, OpenOptions{}) || !t.MapTo(report.fileSize)) return report;
  const std::vector<MapExtent> extents = t.Extents(report.fileSize);
  for (const MapExtent& e : extents) {
    if (e.validity == FS_VALIDITY_NO_ADDRESS || e.validity > FS_VALIDITY_NO_ADDRESS || e.validity == 0) {
      t.Fail(TransferReport::kLocal, Range(e.logical, e.length) + " of " + path + " are " +
                                         ValidityName(e.validity) +
                                         " on the disk; the file cannot be read there");
      return report;
    }
    if (e.validity == FS_VALIDITY_DATA && t.Disk(e.volumeOrdinal, false) < 0) return report;
  }
  std::string buffer(kChunk, '\0');
  int64_t done = 0;
  for (const MapExtent& e : extents) {
    for (int64_t at = 0; at < e.length;) {
      const size_t n = static_cast<size_t>(std::min<int64_t>(kChunk, e.length - at));
      if (e.validity == FS_VALIDITY_DATA) {
        const int fd = t.Disk(e.volumeOrdinal, false);
        const int64_t where = t.DiskOffset(e) + at;
        // Cached blocks of the device may predate the file's last write.
        posix_fadvise(fd, where, static_cast<off_t>(n), POSIX_FADV_DONTNEED);
        ssize_t got = pread(fd, buffer.data(), n, where);
        if (got != static_cast<ssize_t>(n)) {
          t.Fail(TransferReport::kLocal, DiskFailure("reading", e.logical + at, n, where, got));
          return report;
        }
        report.dataBytes += static_cast<int64_t>(n);
      } else {
        std::fill_n(buffer.begin(), n, '\0');
        report.zeroBytes += static_cast<int64_t>(n);
      }
      if (!WriteAll(outFd, buffer.data(), n)) {
        t.Fail(TransferReport::kLocal, "writing the output: " + std::string(std::strerror(errno)));
        return report;
      }
      at += static_cast<int64_t>(n);
      t.Progress(done += static_cast<int64_t>(n), report.fileSize);
    }
  }
  t.Close(-1);
  return report;
}

TransferReport WriteFileData(Client& client, const std::string& share, const std::string& path,
                             const TransferOptions& options, const std::string& data) {
  TransferReport report;
  Transfer t(client, options, report);
  const auto size = static_cast<int64_t>(data.size());
  OpenOptions o;
  o.intention = 0;
  o.fileSize = size;
  o.allocSize = size;
  if (!t.Open(share, path, o) || !t.MapTo(size)) return report;
  if (report.fileSize != size) {
    t.Fail(TransferReport::kLocal, "the file is " + std::to_string(report.fileSize) +
                                       " bytes after asking for " + std::to_string(size));
    return report;
  }
  const std::vector<MapExtent> extents = t.Extents(size);
  for (const MapExtent& e : extents) {
    if (e.validity != FS_VALIDITY_DATA) {
      t.Fail(TransferReport::kLocal, Range(e.logical, e.length) + " of " + path + " are " +
                                         ValidityName(e.validity) +
                                         " after the allocation; they cannot be written in place");
      return report;
    }
    if (t.Disk(e.volumeOrdinal, true) < 0) return report;
  }
  int64_t done = 0;
  for (const MapExtent& e : extents) {
    const int fd = t.Disk(e.volumeOrdinal, true);
    for (int64_t at = 0; at < e.length;) {
      const size_t n = static_cast<size_t>(std::min<int64_t>(kChunk, e.length - at));
      const int64_t where = t.DiskOffset(e) + at;
      ssize_t put = pwrite(fd, data.data() + e.logical + at, n, where);
      if (put != static_cast<ssize_t>(n)) {
        t.Fail(TransferReport::kLocal, DiskFailure("writing", e.logical + at, n, where, put));
        return report;
      }
      report.dataBytes += static_cast<int64_t>(n);
      at += static_cast<int64_t>(n);
      t.Progress(done += static_cast<int64_t>(n), size);
    }
  }
  if (t.Sync()) t.Close(size);
  return report;
}

}  // namespace kestrix::client
