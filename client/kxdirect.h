// Direct I/O at depth: a batch of transfers between aligned buffers and
// disks opened with O_DIRECT, several in flight at once, through io_uring
// or, where the kernel refuses a ring (or KESTRIX_IO=threads asks for it),
// through a pool of threads doing pread and pwrite.
#ifndef KESTRIX_CLIENT_KXDIRECT_H_
#define KESTRIX_CLIENT_KXDIRECT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrix::client {

// One transfer: offset, length and buffer aligned as the disk demands.
struct DiskIo {
  int fd = -1;
  int64_t at = 0;
  uint8_t* buf = nullptr;
  size_t len = 0;
  bool write = false;
};

class DirectIo {
 public:
  // At most depth transfers in flight per Run.
  explicit DirectIo(unsigned depth);
  ~DirectIo();
  DirectIo(const DirectIo&) = delete;
  DirectIo& operator=(const DirectIo&) = delete;

  // Runs every transfer and waits for all of them. False when one failed or
  // came up short, with *why saying which (the others still ran to their
  // end). Several threads may run batches at once.
  bool Run(const std::vector<DiskIo>& ios, std::string* why);
  const char* backend() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A buffer aligned for direct I/O (4096 bytes), freed with the object.
class AlignedBuffer {
 public:
  explicit AlignedBuffer(size_t bytes = 0) { Resize(bytes); }
  ~AlignedBuffer();
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  void Resize(size_t bytes);  // contents are not kept
  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXDIRECT_H_
