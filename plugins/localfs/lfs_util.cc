// Helpers of the localfs library; see lfs_util.h.
#include "plugins/localfs/lfs_util.h"

#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "utils/utils.h"

namespace localfs {

std::string Escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7F || c == '\\') {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

bool Utf8FromFsuni(const FSUNI* text, std::string* out) {
  if (text == nullptr) return false;
  size_t units = 0;
  while (units < kMaxPathUnits && text[units] != 0) ++units;
  if (units == kMaxPathUnits) return false;
  // A unit takes at most three UTF-8 bytes, a surrogate pair four.
  std::vector<char> buffer(3 * units + 1);
  int32_t bytes = utf16array_to_utf8asciz(text, static_cast<int32_t>(units), buffer.data(),
                                          static_cast<int32_t>(buffer.size()));
  out->assign(buffer.data(), static_cast<size_t>(bytes));
  return true;
}

size_t WriteFsuni(uint8_t* at, size_t roomBytes, const std::string& text) {
  const size_t capacity = roomBytes / sizeof(FSUNI);
  if (capacity == 0) return 0;
  std::vector<FSUNI> units(capacity);
  mb2fsuni(units.data(), text.c_str(), static_cast<int32_t>(capacity));
  size_t n = 0;
  while (units[n] != 0) ++n;
  memcpy(at, units.data(), (n + 1) * sizeof(FSUNI));
  return (n + 1) * sizeof(FSUNI);
}

std::string ErrnoText(int error) {
  char buffer[128];
  return strerror_r(error, buffer, sizeof buffer);
}

std::string PathOf(int fd) {
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = readlink(link.c_str(), path, sizeof path);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : "descriptor " + std::to_string(fd);
}

}  // namespace localfs
