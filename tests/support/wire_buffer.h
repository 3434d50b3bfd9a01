// Byte vectors for converter tests: an aligned zero-filled buffer and a way to
// write fields as big-endian hex (the other byte order on little-endian hosts).
#ifndef KESTRIX_TESTS_SUPPORT_WIRE_BUFFER_H_
#define KESTRIX_TESTS_SUPPORT_WIRE_BUFFER_H_

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace kestrix::test {

// An 8-byte aligned, zero-filled buffer of n bytes rounded up to 8.
struct Buffer {
  explicit Buffer(size_t n) : words((n + 7) / 8, 0) {}
  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(words.data()); }
  template <typename T>
  T* As(size_t at = 0) { return reinterpret_cast<T*>(bytes() + at); }
  std::vector<uint64_t> words;
};

// Fields to write: at an offset, blank-separated hex fields, each big-endian.
// A field marked with a leading '=' is a byte string that no conversion turns.
using Puts = std::initializer_list<std::pair<size_t, std::string_view>>;

// n bytes holding the fields put; with `turned` each unmarked field is
// reversed, as the converter should leave it.
inline Buffer Fields(size_t n, Puts puts, bool turned) {
  Buffer b(n);
  for (auto [at, hex] : puts)
    for (size_t k = 0, end; k < hex.size(); k = end + 1) {
      end = std::min(hex.find(' ', k), hex.size());
      const bool keep = hex[k] == '=';
      uint8_t* field = b.bytes() + at;
      for (k += keep; k < end; k += 2)
        b.bytes()[at++] =
            static_cast<uint8_t>(std::stoi(std::string(hex.substr(k, 2)), nullptr, 16));
      if (turned && !keep) std::reverse(field, b.bytes() + at);
    }
  return b;
}

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_WIRE_BUFFER_H_
