// An open remote file: the one road by which file data moves between this
// machine and the shared disk. It holds the lease on the file, the map (as
// much of it as has been asked for), the disks the map's extents lie on, and
// a keeper that renews the lease well before it runs out. Every byte read or
// written is checked against a live lease and against the disk it names;
// kestrix-cli, kestrix-mount and the benchmarks all move data through here.
#ifndef KESTRIX_CLIENT_KXFILE_H_
#define KESTRIX_CLIENT_KXFILE_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/kxsession.h"

namespace kestrix::client {

struct FileOptions {
  ClientOptions daemon;            // the daemon to ask; the file keeps its own session
  std::vector<std::string> disks;  // devices or images to look in; none: the machine's
  bool write = false;              // open with the write intention
  uint32_t leaseMs = 0;            // lease to ask for; 0: the daemon's default
  // Where a lost lease (daemon restart, failover, expiry) is taken up again:
  // the file is opened anew by share and path and I/O goes on when it is the
  // same file (same file cookie); otherwise I/O fails with -ESTALE.
  bool reopen = true;
  // Called after each piece of a Read or Write with the bytes moved so far
  // (by every call on the file), one call at a time.
  std::function<void(int64_t done)> progress;
  // The size the file will have when it is known (a write from a regular
  // file): the allocation is asked for up to there at the first write.
  // -1: unknown; the allocation then grows in large steps.
  int64_t expectedSize = -1;
  // How long I/O waits for a daemon that does not confirm the lease (no
  // reply to renewals and reopens) before it fails with EIO.
  int giveUpMs = 30000;
  // Direct transfers in flight at once, and the largest one.
  unsigned depth = 8;
  size_t ioBytes = size_t{1} << 20;
};

// Why an Open failed, for a caller that tells the kinds apart.
struct OpenFailure {
  std::string error;
  int errnum = 0;       // a positive errno value
  int32_t result = 0;   // the daemon's result when it refused, else 0
  bool noReply = false;  // the daemon did not answer
};

// Counters of one open file, for reports and benchmarks.
struct FileStats {
  int64_t dataBytes = 0;  // moved to or from the disk
  int64_t zeroBytes = 0;  // holes and unwritten ranges read as zeros
  int mapReplies = 0;
  int extents = 0;
  int renewals = 0;
  int reopens = 0;
  int allocations = 0;  // requests that grew the allocation
  std::string disk;     // the devices or images of the volume's disks
  std::string backend;  // how direct I/O is done: io_uring or threads
  uint32_t key = 0;     // the lease key now held
  int32_t result = 0;   // the daemon's result behind the last failure, if any
  bool noReply = false;  // the last failure was a daemon that did not answer
};

class RemoteFile {
 public:
  // Opens share/path with a lease (GetInitialMap) and finds its volume's
  // disks. Nothing with *error set (and *errnum a positive errno value:
  // ENOENT when no library knows the file, EIO when the daemon does not
  // answer, ENODEV when a disk is not found or found twice, ...) on failure.
  static std::unique_ptr<RemoteFile> Open(const std::string& share, const std::string& path,
                                          const FileOptions& options, std::string* error,
                                          int* errnum = nullptr);
  // The same, with the kind of failure told apart.
  static std::unique_ptr<RemoteFile> Open(const std::string& share, const std::string& path,
                                          const FileOptions& options, OpenFailure* failure);
  // Closes the lease without changing the size when Close was not called.
  virtual ~RemoteFile() = default;

  // The file's size as this client sees it (what it has written included).
  virtual int64_t Size() const = 0;
  // Up to n bytes at offset into buf (short only at the end of the file):
  // the count, or a negative errno value with error() set. Read and Write
  // may be called from several threads at once.
  virtual ssize_t Read(int64_t offset, void* buf, size_t n) = 0;
  // n bytes at offset, in place on the disk, the allocation grown through
  // the daemon in large steps when the range passes it: n, or a negative
  // errno value with error() set. Nothing is written unless the lease is
  // alive and every extent it uses checked out against its disk.
  virtual ssize_t Write(int64_t offset, const void* buf, size_t n) = 0;
  // A new file size through the daemon (SetSize): 0 or a negative errno.
  virtual int Truncate(int64_t size) = 0;
  // Written data on stable storage and the size known to the daemon.
  virtual int Sync() = 0;
  // Ends the lease, with the final size for a file opened for writing.
  virtual int Close() = 0;

  virtual const std::string& error() const = 0;
  virtual FileStats stats() const = 0;
};

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXFILE_H_
