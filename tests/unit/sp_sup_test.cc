// Request and reply bodies, and the volume and map descriptions inside them:
// byte-order converters and dumps.
#include "sp/sp_sup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "sp/fsmdc_sup.h"
#include "support/test_util.h"
#include "support/wire_buffer.h"

// Messages are built as aggregates whose unnamed trailing fields are zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using kestrix::test::Buffer;
using kestrix::test::Fields;
using kestrix::test::Puts;

// convert turns exactly the fields put (written in the other byte order, the
// marker 1 in it too), and nothing when the marker reads 1.
template <typename T>
void ExpectConverted(void (*convert)(T*), size_t n, Puts puts) {
  auto message = [&](bool turned) {
    Buffer b = kestrix::test::Fields(n, puts, turned);
    std::memcpy(b.bytes(), "\x00\x00\x00\x01", 4);
    b.As<LanHeader>()->length = static_cast<FSULONG>(n);  // the header, converted before
    return b;
  };
  Buffer b = message(false), same = b;
  same.As<LanHeader>()->byteOrder = 1;
  const std::vector<uint64_t> before = same.words;
  convert(same.As<T>());
  EXPECT_EQ(same.words, before) << "marker 1";
  convert(b.As<T>());
  EXPECT_EQ(b.words, message(true).words);
}

// Path units turn after the terminator too. Reply tables are walked by their
// converted counts but never past the header length (each Buffer is exactly
// that long): a huge nDisks, 1000000 verbose extents, room for one.
TEST(SpSupTransTest, FromTheOtherByteOrder) {
  if (std::endian::native != std::endian::little) GTEST_SKIP() << "little-endian host only";
  ExpectConverted(SPSUP_TransLanGetVolume, sizeof(GetVolumeMsg),
                  {{84, "=01020304"}, {180, "002F 0061 0000 0000 0000 1234"}, {2226, "ABCD"}});
  ExpectConverted(SPSUP_TransLanGetInitialMap, sizeof(GetInitialMapMsg),
                  {{48, "00000000000003E8 FFFFFFFFFFFFFFFE 00007530 00000001 00000008 =5A5B"},
                   {112, "0041 0000 0078"}, {2158, "0102"}});
  ExpectConverted(SPSUP_TransLanGetExtendedMap, sizeof(GetExtendedMapMsg),
                  {{48, "FFFFFFFFFFFFFFFE 0000000000000100 0000000000002000 0000000100000000 "
                        "00001388 DEADBEEF 00000002"}});
  ExpectConverted(SPSUP_TransLanSetSize, sizeof(SetSizeMsg),
                  {{48, "0000000100000000 0000000A 0000002A"}});
  ExpectConverted(SPSUP_TransLanClose, sizeof(CloseMsg), {{48, "0000000000001388 00000007"}});

  ExpectConverted(SPSUP_TransLanGetVolumeResp, 352,
                  {{48, "00000005"}, {108, "00000002"}, {208, "0000000000000001"},
                   {288, "0000000000000002"}});
  ExpectConverted(SPSUP_TransLanGetVolumeResp, SP_GETVOLUME_REPLY_SIZE,
                  {{108, "FFFFFFFE"}, {232, "00000004"}});
  ExpectConverted(SPSUP_TransLanGetInitialMapResp, SP_GETINITIALMAP_REPLY_SIZE,
                  {{48, "00000001 00007530 0000002A"}, {96, "=1020"}, {128, "=3040"},
                   {184, "00000001 00000000"}, {224, "0000000000000005 0000000000000006"}});
  ExpectConverted(SPSUP_TransLanGetExtendedMapResp, SP_GETEXTENDEDMAP_REPLY_SIZE,
                  {{52, "00002710"}, {112, "000F4240 00000001"}, {152, "0000000000000009"}});
  ExpectConverted(SPSUP_TransLanSetSizeResp, SP_SETSIZE_REPLY_SIZE, {{48, "00000190 00000064"}});
  ExpectConverted(SPSUP_TransLanCloseResp, SP_CLOSE_REPLY_SIZE, {{48, "00000197"}});
}

LanHeader Header(FSLONG code, FSULONG length) { return {1, 3, {1, 2}, code, length}; }

void PutText(FSUNI* area, const std::u16string& text) { std::copy(text.begin(), text.end(), area); }

// Each kind's dump by the lines that matter: texts narrowed and cut, and the
// last line, since tables that claim more entries than the length holds are
// walked no further.
TEST(SpSupDumpTest, EachMessageKindAsText) {
  GetVolumeMsg vm{Header(1, sizeof(GetVolumeMsg))};
  PutText(vm.path, u"share\\dir \u00e9");
  GetInitialMapMsg im{Header(2, sizeof(GetInitialMapMsg)), -1, 4096, 30000, 1, 8};
  PutText(im.names, u"A\u4142" + std::u16string(300, u'q') + u'\0' + u"x.dat");
  GetExtendedMapMsg em{Header(3, 92), -1, 5000000000LL, 8192, 0, 5000, 0xBEEF, 2};
  SetSizeMsg sm{Header(4, 64), 1000, 0, 0x2a};
  CloseMsg cm{Header(5, 60), -1, 0xffffffff};
  Buffer vr(SP_GETVOLUME_REPLY_SIZE), ir(SP_GETINITIALMAP_REPLY_SIZE),
      er(SP_GETEXTENDEDMAP_REPLY_SIZE);
  *vr.As<GetVolumeReply>() = {Header(-1, 272), 0, {}, {184, 0, 2, 0, 0, 1000000, 512, {}, {0xC0}}};
  *vr.As<FSDisk>(192) = {{0x5A}, 0, 0, 100, 1};
  *ir.As<GetInitialMapReply>() = {Header(-2, 256), 1, 60000, 0x1f, {}, {0xAB}, {0, 0xCD},
                                  {4096, 0, 0, 0, 0, FS_EXTENT_SIMPLE}};
  *er.As<GetExtendedMapReply>() = {Header(-3, 184), 0, 10000, {},
                                   {0, 0, 0, 0, 1000000, FS_EXTENT_VERBOSE}};
  *er.As<VerboseExtent>(152) = {1, 2, 3, 4, 5};
  SetSizeReply sr{Header(-4, SP_SETSIZE_REPLY_SIZE), 400, 7};
  CloseReply cr{Header(-5, SP_CLOSE_REPLY_SIZE), -380};
  const LanHeader h7 = Header(7, 2132), h0 = Header(0, 48);
  const struct { const void* msg; std::vector<std::string> lines; } cases[] = {
      {&vm, {"SP --- GetVolume Message ---", "SP messageID 01 02", "SP path share\\dir \xC3\xA9"}},
      {&im,
       {"SP share: [ABA" + std::string(253, 'q') + "]",
        "SP filename:[" + std::string(47, 'q') + "]", "SP allocsize 4096"}},
      {&em, {"SP key beef", "SP flag 2"}},
      {&sm, {"SP --- SetSize Message ---", "SP filesize 1000"}},
      {&cm, {"SP key ffffffff", "SP filesize -1"}},
      {vr.bytes(), {"SP nDisks 1000000", "SP DiskID 5A ", "SP nBlocks 100"}},
      {ir.bytes(), {"SP volumeCookie 00 CD", "SP extentType 2"}},
      {er.bytes(), {"SP nExtents 1000000", "SP VolumeOrdinal 4", "SP validity 5"}},
      {&sr, {"SP --- SetSize Reply Message ---", "SP lease 7"}},
      {&cr, {"SP result -380"}},
      {&h7, {}}, {&h0, {}}, {nullptr, {}}};  // no dump for other codes
  kestrix::test::LogCapture log;
  for (const auto& [msg, want] : cases) {
    log.Clear();
    SPSUP_DumpMessage(static_cast<const LanHeader*>(msg), 0);
    const auto got = log.Lines();
    for (const std::string& line : want)
      EXPECT_EQ(std::count(got.begin(), got.end(), line), 1) << line;
    EXPECT_EQ(got.empty() ? "" : got.back(), want.empty() ? "" : want.back());
  }
}

// Every body line of each dump, in order, after the title and the five
// header lines: the order is interface, whatever the layout rows say.
TEST(SpSupDumpTest, BodyLinesInTheirOrder) {
  GetInitialMapMsg im{Header(2, sizeof(GetInitialMapMsg)), -1, 4096, 30000, 1, 8};
  PutText(im.names, {u"s\0f", 3});
  GetExtendedMapMsg em{Header(3, 92), -1, 5000000000LL, 8192, 0, 5000, 0xBEEF, 2};
  SetSizeMsg sm{Header(4, 64), 1000, 9, 0x2a};
  CloseMsg cm{Header(5, 60), -1, 0xffffffff};
  Buffer vr(SP_GETVOLUME_REPLY_SIZE), ir(SP_GETINITIALMAP_REPLY_SIZE);
  *vr.As<GetVolumeReply>() = {Header(-1, 272), 0, {}, {184, 0, 2, 3, 4, 1, 512, {}, {0xC1}}};
  *vr.As<FSDisk>(192) = {{0x5A}, 6, 7, 100, 1};
  *ir.As<GetInitialMapReply>() = {Header(-2, 256), 1, 60000, 0x1f, {}, {0xAB}, {0, 0xCD},
                                  {4096, 8, 16, 0, 0, FS_EXTENT_SIMPLE, 32, 64}};
  SetSizeReply sr{Header(-4, SP_SETSIZE_REPLY_SIZE), 400, 7};
  const struct {
    const void* msg;
    std::vector<std::string> body;
  } cases[] = {
      {&im, {"SP share: [s]", "SP filename:[f]", "SP lease 30000", "SP intention 1", "SP flag 8",
             "SP filesize -1", "SP allocsize 4096"}},
      {&em, {"SP lease 5000", "SP key beef", "SP filesize -1", "SP allocation 5000000000",
             "SP start 8192", "SP length 0", "SP flag 2"}},
      {&sm, {"SP key 2a", "SP lease 9", "SP filesize 1000"}},
      {&cm, {"SP key ffffffff", "SP filesize -1"}},
      {vr.bytes(), {"SP result 0", "SP msgLen 184", "SP FStype 2", "SP vendorStatus 0",
                    "SP GlomType 3", "SP GlomInfo 4", "SP BlockSize 512", "SP Cookie C1",
                    "SP nDisks 1", "SP DiskID 5A ", "SP IDlength 1", "SP IDoffset 6",
                    "SP BlockOffset 7", "SP nBlocks 100"}},
      {ir.bytes(), {"SP result 1", "SP lease 60000", "SP key 1f", "SP fileCookie AB",
                    "SP volumeCookie 00 CD", "SP msgLen 16", "SP vendorStatus 0",
                    "SP fileSize 4096", "SP allocation 8", "SP fileOffset 32", "SP fileBytes 64",
                    "SP nExtents 0", "SP extentType 2"}},
      {&sr, {"SP result 400", "SP lease 7"}},
  };
  kestrix::test::LogCapture log;
  for (const auto& [msg, body] : cases) {
    log.Clear();
    SPSUP_DumpMessage(static_cast<const LanHeader*>(msg), 0);
    const auto got = log.Lines();
    ASSERT_GE(got.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(got.begin() + 6, got.end()), body) << got[0];
  }
}

// Two disks by the converted nDisks; the third slot stays. The map words 1 to
// 16 from byte 64 turn up to `end` for the known extent types (the last word
// of a verbose extent as two 4-byte fields); the rest stays.
TEST(FsmdcTransTest, EmbeddedStructsAreSwappedFromTheOtherByteOrder) {
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
TEST(FsmdcDumpTest, DumpsPrintEveryEmbeddedField) {
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
    EXPECT_TRUE(
        log.Text().starts_with("SP msgLen 128\nSP vendorStatus 3\nSP fileSize 5000000000\n"));
    EXPECT_TRUE(log.Text().ends_with(tail)) << log.Text();
  }
}

}  // namespace
