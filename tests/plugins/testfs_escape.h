// The %XX escaping of texts in testfs conf files and call records, shared by
// the plug-in and the test-side helper.
#ifndef KESTRIX_TESTS_PLUGINS_TESTFS_ESCAPE_H_
#define KESTRIX_TESTS_PLUGINS_TESTFS_ESCAPE_H_

#include <string>

namespace testfs {

// Blanks, control bytes, '%' and '=' become %XX.
inline std::string Escape(const std::string& in) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : in) {
    if (c <= 0x20 || c == '%' || c == 0x7f || c == '=') {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

inline int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

inline std::string Unescape(const std::string& in) {
  std::string out;
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] == '%' && i + 2 < in.size() && HexValue(in[i + 1]) >= 0 &&
        HexValue(in[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(in[i + 1]) * 16 + HexValue(in[i + 2]));
      i += 2;
    } else {
      out += in[i];
    }
  }
  return out;
}

}  // namespace testfs

#endif  // KESTRIX_TESTS_PLUGINS_TESTFS_ESCAPE_H_
