// Volume and map descriptions: byte-order converters and dumps.
#include "sp/fsmdc_sup.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>

#include "support/test_util.h"
#include "support/wire_buffer.h"

namespace {

using kestrix::test::Buffer;
using kestrix::test::Puts;

// n bytes holding the fields put; `turned`: as the converter should leave them.
Buffer Fields(size_t n, Puts puts, bool turned) {
  Buffer b(n);
  kestrix::test::PutFields(b, puts, turned);
  return b;
}

// Two disks by the converted nDisks; the third slot stays. The map words 1 to
// 16 from byte 64 turn up to `end` for the known extent types (the last word
// of a verbose extent as two 4-byte fields); the rest stays.
TEST(FsmdcTransTest, VolInfoAndMapInfoFromTheOtherByteOrder) {
  if (std::endian::native != std::endian::little) GTEST_SKIP() << "little-endian host only";
  const Puts volume = {
      {0, "00000108 00000000 00000007 FFFFFFFE 00010000 00000002 00001000 =11223344 =01020304"},
      {65, "=A10000B4B5"}, {104, "=001A2B00"}, {200, "0000000000000003"}, {224, "00000010"},
      {120, "0000000000000200 0000000100000000 000000000000000A 00000004 00000009 =DEADBEEF"},
      {280, "=0102030405060708"}};
  Buffer v = Fields(VOLINFO_FIXED_SIZE + 3 * FSDISK_SIZE, volume, false);
  FSMDCSUP_TransVolInfo(v.As<VolInfo>());
  EXPECT_EQ(v.words, Fields(VOLINFO_FIXED_SIZE + 3 * FSDISK_SIZE, volume, true).words);

  for (auto [type, n, end] : {std::tuple<FSULONG, FSLONG, uint64_t>{FS_EXTENT_SIMPLE, 3, 136},
                              {FS_EXTENT_COMPACT, 3, 112}, {FS_EXTENT_VERBOSE_ALT, 3, 160},
                              {4, 3, 64}, {99, 3, 64}, {FS_EXTENT_COMPACT, -3, 64}}) {
    char fixed[128];
    std::snprintf(fixed, sizeof fixed, "0000000000003000 0000000000004000 00000060 FFFFFFFE "
                  "%08X %08X 0000000000001000 0000000000002000 =7766", n, type);
    Buffer b = Fields(192, {{0, fixed}}, false), want = Fields(192, {{0, fixed}}, true);
    for (uint64_t w = 0; w < 16; ++w) {
      b.words[8 + w] = (w + 1) << 56;
      const bool split = (type == FS_EXTENT_VERBOSE || type == FS_EXTENT_VERBOSE_ALT) && w % 4 == 3;
      want.words[8 + w] = 64 + 8 * w >= end ? (w + 1) << 56 : split ? (w + 1) << 32 : w + 1;
    }
    FSMDCSUP_TransMapInfo(b.As<FSMapInfo>());
    EXPECT_EQ(b.words, want.words) << "type " << type << ", " << n << " extents";
  }
}

// The dumps, by the lines that matter: IDs by IDlength (at most 16 bytes),
// the error text, and each extent type's fields.
TEST(FsmdcDumpTest, VolInfoAndMapInfo) {
  Buffer b(VOLINFO_FIXED_SIZE + 2 * FSDISK_SIZE);
  *b.As<VolInfo>() = {264, 0, 7, -2, 65536, 2, 4096, {}, {0x01, 0, 0, 0x04}, {}};
  *b.As<FSDisk>(104) = {{0x00, 0x1A, 0x2B, 0x00}, 512, 4294967296LL, 10, 4, 0, {}};
  *b.As<FSDisk>(184) = {{0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA, 0xFB,
                         0xFC, 0xFD, 0xFE, 0xFF}, 512, 4294967296LL, 10, 40, 0, {}};
  kestrix::test::LogCapture log;
  FSMDCSUP_DumpVolInfo(b.As<VolInfo>());
  for (const char* line : {"SP Cookie 01 00 00 04\n", "SP DiskID 00 1A 2B 00 \nSP IDlength 4\n",
                           "SP DiskID F0 F1 F2 F3 F4 F5 F6 F7 F8 F9 FA FB FC FD FE FF \n",
                           "SP BlockOffset 4294967296\nSP nBlocks 10\n"})
    EXPECT_TRUE(log.Contains(line)) << line;
  *b.As<VolInfo>() = {0, 7, 0, 0, 0, 0, 0, {}, {}, {}};
  std::memcpy(b.bytes() + VOLINFO_FIXED_SIZE, u"disk \u00e9", 14);
  log.Clear();
  FSMDCSUP_DumpVolInfo(b.As<VolInfo>());
  EXPECT_TRUE(log.Text().ends_with("SP Cookie \nSP vError disk \xC3\xA9\n")) << log.Text();
  // The same extents read by each type; VolOrd prints its low 32 bits.
  b.As<VerboseExtent>(64)[0] = {4294967297LL, 7, 8, 2, 1};
  b.As<VerboseExtent>(64)[1] = {9, 5, 6, 3, 0};
  for (auto [type, n, tail] : {std::tuple<FSULONG, FSLONG, std::string>{FS_EXTENT_VERBOSE, 2,
           "SP nBytes 8\nSP validity 1\nSP VolumeOrdinal 3\nSP LogicalByteAddr 9\n"
           "SP PhysicalByteAddr 5\nSP nBytes 6\nSP validity 0\n"},
       {FS_EXTENT_SIMPLE, 2, "SP VolOrd 2\nSP VolSliceBlock 9\nSP NBlocks 5\n"},
       {FS_EXTENT_COMPACT, 1, "SP extentType 0\nSP BlockOffset 4294967297\nSP nBlocks 7\n"},
       {4, 2, "SP extentType 4\n"}}) {
    *b.As<FSMapInfo>() = {5000000000LL, 8192, 128, 3, n, type, 0, -1, {}};
    log.Clear();
    FSMDCSUP_DumpFSMapInfo(b.As<FSMapInfo>());
    EXPECT_TRUE(log.Text().starts_with("SP msgLen 128\nSP vendorStatus 3\nSP fileSize 5000000000\n"));
    EXPECT_TRUE(log.Text().ends_with(tail)) << log.Text();
  }
}

}  // namespace
