// Moving a file's data straight between this machine and the shared disk:
// the daemon hands out the map under a lease, the bytes go to and from the
// disk at the map's physical addresses, and the lease is closed again.
#ifndef KESTRIX_CLIENT_KXTRANSFER_H_
#define KESTRIX_CLIENT_KXTRANSFER_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/kxsession.h"

namespace kestrix::client {

struct TransferOptions {
  std::vector<std::string> disks;  // devices or images to look in; none: the machine's
  std::function<void(int64_t done, int64_t total)> progress;  // after each piece
};

struct TransferReport {
  enum Failure { kNone, kNoReply, kResult, kLocal };
  Failure failure = kNone;
  int32_t result = 0;  // the daemon's result (kResult: the refusing one)
  std::string error;   // what went wrong, for a person
  std::string disk;    // the device or image the data went through
  uint32_t key = 0;
  int64_t fileSize = 0;
  int64_t dataBytes = 0;  // moved to or from the disk
  int64_t zeroBytes = 0;  // holes and unwritten ranges read as zeros
  int mapReplies = 0;
  int extents = 0;
  bool ok() const { return failure == kNone; }
};

// Writes exactly the file's bytes to outFd: data extents from the disk,
// zeros for holes and unwritten ranges. A range that is not addressable on
// the disk fails the read before anything is written.
TransferReport ReadFileData(Client& client, const std::string& share, const std::string& path,
                            const TransferOptions& options, int outFd);

// Replaces an existing file's contents with data: opens it for writing with
// the new size as file and allocation size, writes every byte in place on
// the disk, syncs the disk and closes with the final size.
TransferReport WriteFileData(Client& client, const std::string& share, const std::string& path,
                             const TransferOptions& options, const std::string& data);

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXTRANSFER_H_
