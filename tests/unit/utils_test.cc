// The UTF-16 and UTF-8 converters, byte for byte.
#include "utils/utils.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/test_util.h"

namespace {

using Units = std::vector<FSUNI>;

// The count is the bytes stored, at most the capacity; bytes past it are
// dropped, but the walk and its log lines go on to the end.
TEST(Utf16ToUtf8Test, EncodesCutsAndLogsBrokenSurrogates) {
  const std::string invalid = "Error utf16array_to_utf8asciz: invalid surrogate d83d , 0041 \n";
  const std::string noData =
      "Error utf16array_to_utf8asciz: surrogate found with no data left in source string\n";
  kestrix::test::LogCapture log;
  for (const auto& [in, cap, count, want, logged] :
       std::vector<std::tuple<Units, int32_t, int32_t, std::string, std::string>>{
           {{0x41, 0xE9, 0x20AC}, 64, 6, "A\xC3\xA9\xE2\x82\xAC", ""},
           {{0xD83D, 0xDE00, 0xD83D, 0xDE01}, 64, 8, "\xF0\x9F\x98\x80\xF0\x9F\x98\x81", ""},
           {{0xDBFF, 0xDFFF}, 64, 4, "\xF4\x8F\xBF\xBF", ""},
           {{0xD83D, 0x41}, 64, 4, "\xED\xA0\xBD" "A", invalid},
           {{0x41, 0xD83D}, 64, 4, "A\xED\xA0\xBD", noData},
           {{0xDE00, 0x41}, 64, 4, "\xED\xB8\x80" "A", ""},  // a lone low surrogate
           {{'a', 'b', 'c'}, 3, 3, "ab", ""},
           {{'a', 'b', 'c'}, 4, 3, "abc", ""},
           {{'a', 0xE9}, 3, 3, "a\xC3", ""},  // cut inside a two-byte form
           {{'a', 'b', 0xD83D}, 2, 2, "a", noData}}) {
    std::string out(cap + 4, '\x7f');
    log.Clear();
    EXPECT_EQ(utf16array_to_utf8asciz(in.data(), int32_t(in.size()), out.data(), cap), count);
    EXPECT_EQ(out.c_str(), want);
    EXPECT_EQ(out[cap], '\x7f') << "wrote past the capacity";
    EXPECT_EQ(log.Text(), logged) << want;
  }
  char untouched = 'x';  // no room at all: nothing is written
  EXPECT_EQ(utf16array_to_utf8asciz(Units{'a'}.data(), 1, &untouched, 0), 0);
  EXPECT_EQ(fsuni2mb(&untouched, Units{'a', 0}.data(), 0), &untouched);
  EXPECT_EQ(untouched, 'x');
}

// Room for K - 1 units only: the terminator always fits.
TEST(Utf8ToUtf16Test, DecodesAndRejectsMalformedInputOrTooLittleRoom) {
  for (const auto& [in, cap, count, want] :
       std::vector<std::tuple<std::string, int32_t, int32_t, Units>>{
           {"A\xC3\xA9\xE2\x82\xAC", 8, 3, {0x41, 0xE9, 0x20AC}},
           {"\xF0\x9F\x98\x80", 8, 2, {0xD83D, 0xDE00}}, {"\xC0\x80", 8, 1, {0}}, {"", 8, 0, {}},
           {"\x80", 8, -1, {}}, {"a\xC3", 8, -1, {}}, {"\xC3" "A", 8, -1, {}}, {"abc", 3, -1, {}},
           {"\xE2\x82", 8, -1, {}}, {"\xF0\x9F\x98" "A", 8, -1, {}}, {"a", 0, -1, {}},
           {"\xF8\x88\x80\x80", 8, -1, {}}, {"\xF0\x9F\x98\x80", 2, -1, {}}}) {
    Units out(cap + 2, 0xEEEE);
    const int32_t n = utf8array_to_utf16asciz(in.data(), int32_t(in.size()), out.data(), cap);
    EXPECT_EQ(out[cap], 0xEEEE) << "wrote past the capacity";
    EXPECT_EQ(n, count) << in;
    if (n == count && n >= 0) { EXPECT_EQ(Units(out.begin(), out.begin() + n), want) << in; }
  }
  // mb2fsuni terminates what it converted, even after a failure.
  for (const auto& [in, cap, want] : std::vector<std::tuple<std::string, int, Units>>{
           {"abc", 4, {'a', 'b', 'c', 0, 9}}, {"abc", 3, {'a', 'b', 0, 9, 9}},
           {"abc", 0, {9, 9, 9, 9, 9}}, {"a\x80z", 5, {'a', 0, 9, 9, 9}},
           {"\x80", 5, {0, 9, 9, 9, 9}}}) {
    FSUNI out[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(mb2fsuni(out, in.c_str(), cap), out);
    EXPECT_EQ(Units(out, out + 5), want) << in << " into " << cap;
  }
}

}  // namespace
