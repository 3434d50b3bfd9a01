// Request and reply bodies: byte-order converters and dumps.
#include "sp/sp_sup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "support/test_util.h"
#include "support/wire_buffer.h"

// Messages are built as aggregates whose unnamed trailing fields are zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using kestrix::test::Buffer;
using kestrix::test::Puts;

// convert turns exactly the fields put (written in the other byte order, the
// marker 1 in it too), and nothing when the marker reads 1.
template <typename T>
void ExpectConverted(void (*convert)(T*), size_t n, Puts puts) {
  auto message = [&](bool turned) {
    Buffer b(n);
    std::memcpy(b.bytes(), "\x00\x00\x00\x01", 4);
    b.As<LanHeader>()->length = static_cast<FSULONG>(n);  // the header, converted before
    kestrix::test::PutFields(b, puts, turned);
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
  Buffer vr(SP_GETVOLUME_REPLY_SIZE), ir(SP_GETINITIALMAP_REPLY_SIZE), er(SP_GETEXTENDEDMAP_REPLY_SIZE);
  *vr.As<GetVolumeReply>() = {Header(-1, 272), 0, {}, {184, 0, 2, 0, 0, 1000000, 512, {}, {0xC0}}};
  *vr.As<FSDisk>(192) = {{0x5A}, 0, 0, 100, 1};
  *ir.As<GetInitialMapReply>() = {Header(-2, 256), 1, 60000, 0x1f, {}, {0xAB}, {0, 0xCD},
                                  {4096, 0, 0, 0, 0, FS_EXTENT_SIMPLE}};
  *er.As<GetExtendedMapReply>() = {Header(-3, 184), 0, 10000, {}, {0, 0, 0, 0, 1000000, FS_EXTENT_VERBOSE}};
  *er.As<VerboseExtent>(152) = {1, 2, 3, 4, 5};
  SetSizeReply sr{Header(-4, SP_SETSIZE_REPLY_SIZE), 400, 7};
  CloseReply cr{Header(-5, SP_CLOSE_REPLY_SIZE), -380};
  const LanHeader h7 = Header(7, 2132), h0 = Header(0, 48);
  const struct { const void* msg; std::vector<std::string> lines; } cases[] = {
      {&vm, {"SP --- GetVolume Message ---", "SP messageID 01 02", "SP path share\\dir \xC3\xA9"}},
      {&im, {"SP share: [ABA" + std::string(253, 'q') + "]", "SP filename:[" + std::string(47, 'q') + "]",
             "SP allocsize 4096"}},
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
    for (const std::string& line : want) EXPECT_EQ(std::count(got.begin(), got.end(), line), 1) << line;
    EXPECT_EQ(got.empty() ? "" : got.back(), want.empty() ? "" : want.back());
  }
}

}  // namespace
