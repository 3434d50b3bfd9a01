// The block map of a file from the kernel's FIEMAP: verbose extents with
// device byte addresses and a validity (fsvalidity.h) each, holes included,
// and the turning of holes and unwritten ranges into written zeros.
#ifndef KESTRIX_PLUGINS_LOCALFS_FILEMAP_H_
#define KESTRIX_PLUGINS_LOCALFS_FILEMAP_H_

#include <cstdint>
#include <functional>
#include <string>

namespace localfs {

struct Extent {
  int64_t logical = 0;   // byte offset in the file
  int64_t physical = 0;  // byte offset on the device; 0 for holes and no address
  int64_t bytes = 0;
  uint32_t validity = 0;
};

// Visits the extents of [start, end) in file order, holes included, each cut
// to the range, until visit returns false. sync writes the file's dirty
// pages first, so that delayed allocations get their blocks. Returns 0 or
// -errno.
int WalkExtents(int fd, int64_t start, int64_t end, bool sync,
                const std::function<bool(const Extent&)>& visit);

// Writes an FSMapInfo of the range (length < 0: to the end of the file) at
// `out` within room bytes (at least the 64-byte fixed part). Extents stop at
// the file size. Returns 0, LOCALFS_PARTIAL when not every extent fit (the
// map then covers exactly the extents written), or a status with *why.
int WriteMap(int fd, int64_t start, int64_t length, uint8_t* out, uint32_t room, std::string* why);

// -ENOSPC when the blocks that [0, end) lacks exceed the filesystem's free
// space; else 0 (or -errno when the file cannot be examined).
int CheckRoom(int fd, int64_t end);

// Makes [0, end) allocated and written: holes are allocated, extents shared
// with other files unshared, and every hole and unwritten range filled with
// zeros, so that no range reads as zeros over what a client writes on the
// disk; bytes already written are never touched. At most `budget` bytes are
// filled in one call: *grantedEnd says how far the range got (end when all
// of it). The file grows to *grantedEnd when it is shorter. Zeros are laid
// by the device's write-zeroes where the filesystem offers it, else written
// directly in large requests. Returns 0 or -errno.
int AllocateWritten(int fd, int64_t end, int64_t budget, int64_t* grantedEnd);

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_FILEMAP_H_
