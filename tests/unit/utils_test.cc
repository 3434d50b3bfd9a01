#include "utils/utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace {

using kestrix::test::LogCapture;
using Units = std::vector<FSUNI>;

// Converts units into a capacity of cap bytes; returns the stored text and
// puts the function's result into *count.
std::string ToUtf8(const Units& u, int32_t cap, int32_t* count) {
  std::string out(cap + 4, '\x7f');
  *count = utf16array_to_utf8asciz(u.data(), static_cast<int32_t>(u.size()), out.data(), cap);
  EXPECT_EQ(out[cap], '\x7f') << "wrote past the capacity";
  return out.c_str();
}

std::string ToUtf8(const Units& u) {
  int32_t count;
  return ToUtf8(u, 64, &count);
}

TEST(Utf16ToUtf8Test, EncodesOneTwoThreeAndFourByteForms) {
  LogCapture log;
  int32_t count;
  EXPECT_EQ(ToUtf8({0x0041, 0x00E9, 0x20AC}, 64, &count), "A\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(count, 6);
  EXPECT_EQ(ToUtf8({0xD83D, 0xDE00}), "\xF0\x9F\x98\x80");
  EXPECT_EQ(ToUtf8({0xD83D, 0xDE00, 0xD83D, 0xDE01}), "\xF0\x9F\x98\x80\xF0\x9F\x98\x81");
  EXPECT_EQ(ToUtf8({0xDBFF, 0xDFFF}), "\xF4\x8F\xBF\xBF");
  EXPECT_EQ(log.Text(), "");
}

TEST(Utf16ToUtf8Test, BrokenSurrogates) {
  LogCapture log;
  EXPECT_EQ(ToUtf8({0xD83D, 0x0041}), "\xED\xA0\xBD" "A");
  EXPECT_EQ(log.Text(), "Error utf16array_to_utf8asciz: invalid surrogate d83d , 0041 \n");
  log.Clear();
  EXPECT_EQ(ToUtf8({0x0041, 0xD83D}), "A\xED\xA0\xBD");
  EXPECT_EQ(log.Text(),
            "Error utf16array_to_utf8asciz: surrogate found with no data left in source "
            "string\n");
  log.Clear();
  EXPECT_EQ(ToUtf8({0xDE00, 0x0041}), "\xED\xB8\x80" "A");
  EXPECT_EQ(log.Text(), "");
}

TEST(Utf16ToUtf8Test, CutsAtCapacityButWalksToTheEnd) {
  LogCapture log;
  int32_t count;
  EXPECT_EQ(ToUtf8({'a', 'b', 'c'}, 3, &count), "ab");
  EXPECT_EQ(count, 3);
  EXPECT_EQ(ToUtf8({'a', 'b', 'c'}, 4, &count), "abc");
  EXPECT_EQ(count, 3);
  // The cut falls inside the two-byte form of U+00E9.
  EXPECT_EQ(ToUtf8({'a', 0x00E9}, 3, &count), "a\xC3");
  EXPECT_EQ(count, 3);
  // Bytes past the capacity are dropped, but later messages are still logged.
  EXPECT_EQ(ToUtf8({'a', 'b', 0xD83D}, 2, &count), "a");
  EXPECT_EQ(count, 2);
  EXPECT_TRUE(log.Contains("no data left"));
  // No room at all: nothing is written.
  char untouched = 'x';
  EXPECT_EQ(utf16array_to_utf8asciz(Units{'a'}.data(), 1, &untouched, 0), 0);
  EXPECT_EQ(untouched, 'x');
  EXPECT_EQ(fsuni2mb(&untouched, Units{'a', 0}.data(), 0), &untouched);
  EXPECT_EQ(untouched, 'x');
}

TEST(Utf16ToUtf8Test, Fsuni2mbConvertsUpToTheZeroUnit) {
  const Units s = {'h', 0x00E9, 0, 'x'};
  char out[16];
  EXPECT_EQ(fsuni2mb(out, s.data(), sizeof out), out);
  EXPECT_STREQ(out, "h\xC3\xA9");
  EXPECT_EQ(fsunilength(s.data()), 2u);
  EXPECT_EQ(fsunilength(s.data() + 2), 0u);
  EXPECT_EQ(kestrix::fsuninlength(s.data(), 1), 1u);
  EXPECT_EQ(kestrix::fsuninlength(s.data(), 8), 2u);
}

// Converts bytes into a capacity of cap units; the result is returned in
// *count and the units stored (without the guard) are returned.
Units ToUtf16(const std::string& s, int32_t cap, int32_t* count) {
  Units out(cap + 2, 0xEEEE);
  *count = utf8array_to_utf16asciz(s.data(), static_cast<int32_t>(s.size()), out.data(), cap);
  EXPECT_EQ(out[cap], 0xEEEE) << "wrote past the capacity";
  return Units(out.begin(), out.begin() + (*count > 0 ? *count : 0));
}

TEST(Utf8ToUtf16Test, DecodesAndRejectsMalformedInput) {
  int32_t n;
  EXPECT_EQ(ToUtf16("A\xC3\xA9\xE2\x82\xAC", 8, &n), (Units{0x41, 0xE9, 0x20AC}));
  EXPECT_EQ(ToUtf16("\xF0\x9F\x98\x80", 8, &n), (Units{0xD83D, 0xDE00}));
  EXPECT_EQ(ToUtf16("\xC0\x80", 8, &n), (Units{0}));  // overlong, no error
  EXPECT_EQ(ToUtf16("", 8, &n), Units{});
  EXPECT_EQ(n, 0);
  for (const char* bad : {"\x80", "a\xC3", "\xC3" "A", "\xE2\x82", "\xF0\x9F\x98" "A", "\xF8"}) {
    ToUtf16(bad, 8, &n);
    EXPECT_EQ(n, -1) << bad;
  }
  // Room for K - 1 units only: the terminator always fits.
  ToUtf16("abc", 3, &n);
  EXPECT_EQ(n, -1);
  ToUtf16("\xF0\x9F\x98\x80", 2, &n);
  EXPECT_EQ(n, -1);
  ToUtf16("a", 0, &n);
  EXPECT_EQ(n, -1);
}

TEST(Utf8ToUtf16Test, Mb2fsuniTerminatesEvenAfterFailure) {
  FSUNI out[5] = {9, 9, 9, 9, 9};
  EXPECT_EQ(mb2fsuni(out, "abc", 4), out);
  EXPECT_EQ(Units(out, out + 5), (Units{'a', 'b', 'c', 0, 9}));
  std::fill(out, out + 5, 9);
  mb2fsuni(out, "abc", 3);
  EXPECT_EQ(Units(out, out + 4), (Units{'a', 'b', 0, 9}));
  std::fill(out, out + 5, 9);
  mb2fsuni(out, "a\x80z", 5);
  EXPECT_EQ(Units(out, out + 3), (Units{'a', 0, 9}));
  std::fill(out, out + 5, 9);
  mb2fsuni(out, "abc", 0);
  EXPECT_EQ(out[0], 9);
}

TEST(FsunicpyTest, CopiesWithinTheDestinationSize) {
  const Units src = {'a', 'b', 'c', 0};
  FSUNI out[4] = {9, 9, 9, 9};
  fsunicpy(out, src.data(), 6);  // room for two units and the 0 unit
  EXPECT_EQ(Units(out, out + 4), (Units{'a', 'b', 0, 9}));
  fsunicpy(out, src.data(), 8);
  EXPECT_EQ(Units(out, out + 4), (Units{'a', 'b', 'c', 0}));
  out[0] = 9;
  fsunicpy(out, src.data(), 1);
  EXPECT_EQ(out[0], 9);
}

TEST(ByteOrderTest, DoendianAndFsuniAreas) {
  unsigned char b[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  doendian(b, 0);
  doendian(b, 1);
  doendian(b, -4);
  EXPECT_EQ(std::string(b, b + 9), std::string("\1\2\3\4\5\6\7\x8\x9", 9));
  doendian(b, 8);
  EXPECT_EQ(std::string(b, b + 9), std::string("\x8\7\6\5\4\3\2\1\x9", 9));
  endianizeFsUniArray(b, 5);
  EXPECT_EQ(std::string(b, b + 9), std::string("\7\x8\5\6\4\3\2\1\x9", 9));
  endianizeFsUniArray(b, -2);
  EXPECT_EQ(b[0], 7);
}

TEST(BytesToStringTest, TrimsTrailingZeroDigitsAndBlanks) {
  char out[64];
  auto hex = [&](std::vector<unsigned char> v) {
    return std::string(bytesToString(v.data(), static_cast<int32_t>(v.size()), out));
  };
  EXPECT_EQ(hex({0x12, 0x00, 0x00}), "12");
  EXPECT_EQ(hex({0x10}), "1");
  EXPECT_EQ(hex({0x00, 0x00}), "");
  EXPECT_EQ(hex({0xAB, 0xCD}), "AB CD");
  EXPECT_EQ(hex({0x00, 0x0F, 0xA0}), "00 0F A");
}

TEST(CheckDataSizesTest, ReportsEachTypeAtSpLevel) {
  LogCapture log(4);
  EXPECT_EQ(checkDataSizes(), 0);
  EXPECT_EQ(log.Text(),
            "SP size of FSLONG should be 4, is 4\n"
            "SP size of FSULONG should be 4, is 4\n"
            "SP size of FS64LONG should be 8, is 8\n"
            "SP size of FSUNI should be 2, is 2\n"
            "SP size of FS128LONG should be 16, is 16\n");
}

}  // namespace
