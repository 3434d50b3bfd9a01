// Map checks and the tiled cache of extents.
#include "client/kxmap.h"

#include <algorithm>

#include "fsmdc.h"
#include "fsvalidity.h"

namespace kestrix::client {

namespace {

constexpr size_t kMaxTiles = 1 << 16;  // beyond this the cache starts again

std::string ExtentText(size_t i, const MapExtent& e) {
  return "extent " + std::to_string(i) + " (logical " + std::to_string(e.logical) + ", physical " +
         std::to_string(e.physical) + ", " + std::to_string(e.length) + " bytes, disk " +
         std::to_string(e.volumeOrdinal) + ", validity " + std::to_string(e.validity) + ")";
}

bool Addressed(uint32_t validity) {
  return validity == FS_VALIDITY_DATA || validity == FS_VALIDITY_UNWRITTEN;
}

}  // namespace

bool SliceOf(const VolumeDisk& disk, int32_t blockSize, int64_t deviceBytes, DiskSlice* slice,
             std::string* why) {
  int64_t end = 0;
  if (blockSize <= 0 || disk.blockOffset < 0 || disk.nBlocks < 0 ||
      __builtin_mul_overflow(disk.blockOffset, int64_t{blockSize}, &slice->start) ||
      __builtin_mul_overflow(disk.nBlocks, int64_t{blockSize}, &slice->bytes) ||
      __builtin_add_overflow(slice->start, slice->bytes, &end)) {
    *why = "the volume names a disk slice that cannot exist (BlockOffset " +
           std::to_string(disk.blockOffset) + ", nBlocks " + std::to_string(disk.nBlocks) +
           ", BlockSize " + std::to_string(blockSize) + ")";
    return false;
  }
  if (end > deviceBytes) {
    *why = "the volume's disk slice ends at byte " + std::to_string(end) +
           ", past the end of the disk found for it (" + std::to_string(deviceBytes) + " bytes)";
    return false;
  }
  return true;
}

bool CheckMap(const FileMap& map, int64_t start, int64_t length,
              const std::vector<DiskSlice>& slices, std::string* why) {
  if (map.nExtents > 0 && map.extentType != FS_EXTENT_VERBOSE &&
      map.extentType != FS_EXTENT_VERBOSE_ALT) {
    *why = "the map has extents of type " + std::to_string(map.extentType) + ", not byte extents";
    return false;
  }
  if (map.extentsTruncated) {
    *why = "the map reply holds fewer extents than it names";
    return false;
  }
  if (map.fileSize < 0 || map.allocation < -1) {
    *why = "the map gives the file a size of " + std::to_string(map.fileSize) + " and an allocation of " +
           std::to_string(map.allocation) + " bytes";
    return false;
  }
  int64_t asked = INT64_MAX, covered = 0;
  if (length >= 0 && __builtin_add_overflow(start, length, &asked)) asked = INT64_MAX;
  if (map.fileOffset != start || map.fileBytes < 0 ||
      __builtin_add_overflow(map.fileOffset, map.fileBytes, &covered) || covered > asked) {
    *why = "the map covers " + std::to_string(map.fileBytes) + " bytes from byte " +
           std::to_string(map.fileOffset) + ", not a part of the range asked for from byte " +
           std::to_string(start);
    return false;
  }
  int64_t at = map.fileOffset;
  for (size_t i = 0; i < map.extents.size(); ++i) {
    const MapExtent& e = map.extents[i];
    int64_t end = 0, physicalEnd = 0;
    if (e.logical < at || e.length <= 0 || __builtin_add_overflow(e.logical, e.length, &end) ||
        end > covered) {
      *why = ExtentText(i, e) + " lies outside the map's range or overlaps the one before";
      return false;
    }
    if (e.validity < FS_VALIDITY_DATA || e.validity > FS_VALIDITY_NO_ADDRESS) {
      *why = ExtentText(i, e) + " is of an unknown kind";
      return false;
    }
    if (Addressed(e.validity) &&
        (e.volumeOrdinal >= slices.size() || e.physical < 0 ||
         __builtin_add_overflow(e.physical, e.length, &physicalEnd) ||
         physicalEnd > slices[e.volumeOrdinal].bytes)) {
      *why = ExtentText(i, e) + " lies outside its disk (" +
             (e.volumeOrdinal < slices.size()
                  ? std::to_string(slices[e.volumeOrdinal].bytes) + " bytes)"
                  : "the volume has " + std::to_string(slices.size()) + " disks)");
      return false;
    }
    at = end;
  }
  return true;
}

bool MapCache::Lookup(int64_t from, int64_t to, std::vector<MapExtent>* out,
                      int64_t* missing) const {
  out->clear();
  auto it = tiles_.upper_bound(from);
  if (it != tiles_.begin()) --it;
  int64_t at = from;
  for (; at < to && it != tiles_.end(); ++it) {
    const MapExtent& e = it->second;
    if (e.logical + e.length <= at) continue;
    if (e.logical > at) break;
    MapExtent piece = e;
    const int64_t end = std::min(e.logical + e.length, to);
    piece.physical += at - e.logical;
    piece.logical = at;
    piece.length = end - at;
    out->push_back(piece);
    at = end;
  }
  *missing = at;
  return at >= to;
}

void MapCache::Put(const MapExtent& e) { tiles_[e.logical] = e; }

void MapCache::Add(const FileMap& map) {
  const int64_t from = map.fileOffset, to = map.fileOffset + map.fileBytes;
  if (to <= from) return;
  if (tiles_.size() > kMaxTiles) tiles_.clear();
  // Tiles reaching into [from, to) are cut back to what lies outside it.
  auto it = tiles_.upper_bound(from);
  if (it != tiles_.begin()) --it;
  while (it != tiles_.end() && it->second.logical < to) {
    MapExtent e = it->second;
    const int64_t end = e.logical + e.length;
    if (end <= from) {
      ++it;
      continue;
    }
    it = tiles_.erase(it);
    if (e.logical < from) {
      MapExtent head = e;
      head.length = from - e.logical;
      Put(head);
    }
    if (end > to) {
      MapExtent tail = e;
      tail.physical += to - e.logical;
      tail.logical = to;
      tail.length = end - to;
      Put(tail);
    }
  }
  int64_t at = from;
  auto hole = [&](int64_t upTo) {
    MapExtent h;
    h.logical = at;
    h.length = upTo - at;
    h.validity = FS_VALIDITY_HOLE;
    Put(h);
  };
  for (const MapExtent& e : map.extents) {
    if (e.logical > at) hole(e.logical);
    Put(e);
    at = e.logical + e.length;
  }
  if (at < to) hole(to);
}

}  // namespace kestrix::client
