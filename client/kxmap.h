// The part of a file's map a client holds, and the checks a map reply
// passes before any of its extents is used: every extent inside the range
// asked for and inside the disk it names, in order, without overflow.
#ifndef KESTRIX_CLIENT_KXMAP_H_
#define KESTRIX_CLIENT_KXMAP_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "client/kxclient.h"

namespace kestrix::client {

// Where a volume disk's slice lies on the device or image found for it.
struct DiskSlice {
  int64_t start = 0;  // BlockOffset x BlockSize
  int64_t bytes = 0;  // nBlocks x BlockSize
};

// The slice of each disk of a volume, checked against the size of what was
// found for it; false with *why when a value is negative, overflows or
// reaches past the device.
bool SliceOf(const VolumeDisk& disk, int32_t blockSize, int64_t deviceBytes, DiskSlice* slice,
             std::string* why);

// Checks a map reply asked for [start, start + length) (length -1: to the
// end of the file): verbose extents only, all of them in the datagram, each
// inside the range the map says it covers, which lies inside the range
// asked; ascending and apart; data and unwritten extents inside their
// disk's slice. False with *why naming the first extent that fails.
bool CheckMap(const FileMap& map, int64_t start, int64_t length,
              const std::vector<DiskSlice>& slices, std::string* why);

// Extents known for ranges of the file, holes included, kept tiled: a
// range once covered by a reply is fully described until it is dropped.
class MapCache {
 public:
  // The pieces of [from, to) when every byte is covered, cut to the range;
  // otherwise false with *missing set to the first byte not covered.
  bool Lookup(int64_t from, int64_t to, std::vector<MapExtent>* out, int64_t* missing) const;
  // Takes a checked map: [map.fileOffset, + fileBytes) is covered from now on.
  void Add(const FileMap& map);
  void Clear() { tiles_.clear(); }
  size_t size() const { return tiles_.size(); }

 private:
  void Put(const MapExtent& e);
  std::map<int64_t, MapExtent> tiles_;  // by logical start
};

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXMAP_H_
