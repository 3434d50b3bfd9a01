// Small helpers of the localfs library: an owning file descriptor, log-safe
// rendering of client text, and FSUNI conversions in and out.
#ifndef KESTRIX_PLUGINS_LOCALFS_LFS_UTIL_H_
#define KESTRIX_PLUGINS_LOCALFS_LFS_UTIL_H_

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "fstypes.h"

namespace localfs {

// Closes its descriptor when it goes out of scope.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }
  void Reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// Text that came from a client, made safe for one log line: control bytes,
// DEL and backslashes become \xNN.
std::string Escaped(std::string_view text);

// The longest path taken from a client, in units.
inline constexpr size_t kMaxPathUnits = 4096;

// Converts a zero-terminated FSUNI text to UTF-8. False when the pointer is
// null or no terminator comes within kMaxPathUnits units.
bool Utf8FromFsuni(const FSUNI* text, std::string* out);

// Writes text as zero-terminated FSUNI at `at`, cut to fit roomBytes. Returns
// the bytes written, terminator included (0 when not even that fits).
size_t WriteFsuni(uint8_t* at, size_t roomBytes, const std::string& text);

// The path of an open file, for log lines.
std::string PathOf(int fd);

// "strerror" of an errno value, thread-safe.
std::string ErrnoText(int error);

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_LFS_UTIL_H_
