// Header conversion and dumps.
#include "utils/lan_sup.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "support/test_util.h"

namespace kestrix {
namespace {

using Raw = std::array<uint8_t, 48>;

TEST(LanSupTest, MarkerOneLeavesTheHeaderByteForByte) {
  Raw raw;
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(i * 7 + 3);
  std::memcpy(raw.data(), "\x01\x00\x00\x00", 4);
  Raw before = raw;
  LANSUP_TransLanHeader(reinterpret_cast<LanHeader*>(raw.data()));
  EXPECT_EQ(raw, before);
}

TEST(LanSupTest, OtherOrderReversesExactlyTheSixFields) {
  // Written by a big-endian sender: marker 00 00 00 01.
  const Raw wire = {
      0x00, 0x00, 0x00, 0x01,                          // byteOrder
      0x00, 0x00, 0x00, 0xE6,                          // revision 230
      1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,  // messageID
      0xFF, 0xFF, 0xFF, 0xFD,                          // functionCode -3
      0x00, 0x00, 0x01, 0x02,                          // length 258
      0x00, 0x00, 0x00, 0x01,                          // flags 1
      0x00, 0x00, 0x00, 0x08,                          // result 8
      0xAA, 0xBB,                                      // reserved
      0x00, 0x2F,                                      // pathSeparator '/'
      0xC1, 0xC2, 0xC3, 0xC4};                         // reserved
  Raw raw = wire;
  auto* h = reinterpret_cast<LanHeader*>(raw.data());
  LANSUP_TransLanHeader(h);
  EXPECT_EQ(h->revision, 230);
  EXPECT_EQ(h->functionCode, -3);
  EXPECT_EQ(h->length, 258u);
  EXPECT_EQ(h->flags, 1u);
  EXPECT_EQ(h->result, 8);
  EXPECT_EQ(h->pathSeparator, u'/');
  // Marker, message ID and reserved bytes untouched.
  EXPECT_EQ(std::memcmp(raw.data(), wire.data(), 4), 0);
  EXPECT_EQ(std::memcmp(raw.data() + 8, wire.data() + 8, 16), 0);
  EXPECT_EQ(std::memcmp(raw.data() + 40, wire.data() + 40, 2), 0);
  EXPECT_EQ(std::memcmp(raw.data() + 44, wire.data() + 44, 4), 0);

  // Any marker other than 1 means the other order, and stays as it was.
  for (uint32_t marker : {0u, 2u}) {
    LanHeader other{};
    other.byteOrder = marker;
    other.length = 0x30000000;
    LANSUP_TransLanHeader(&other);
    EXPECT_EQ(other.length, 0x30u) << marker;
    EXPECT_EQ(other.byteOrder, marker);
  }
}

TEST(LanSupTest, DumpWritesFiveLinesAtLevel4) {
  test::LogCapture log(4);
  LanHeader h{};
  h.functionCode = -2;
  h.length = 300;
  h.revision = 230;
  h.result = 0;
  h.messageID[0] = 0x12;
  h.messageID[1] = 0xA0;
  LANSUP_DumpLanHeader(&h);
  EXPECT_EQ(log.Text(),
            "SP functionCode -2\nSP length 300\nSP messageID 12 A\nSP revision 230\n"
            "SP result 0\n");
  log.Clear();
  std::memset(h.messageID, 0, sizeof h.messageID);
  LANSUP_PrintLanHeader(&h);
  EXPECT_EQ(test::SplitLines(log.Text()).at(0), "Print Header information for message");
  EXPECT_NE(log.Text().find("Print messageID \n"), std::string::npos);

  log.SetLevel(3);
  log.Clear();
  LANSUP_DumpLanHeader(&h);
  EXPECT_EQ(log.Text(), "");
}

}  // namespace
}  // namespace kestrix
