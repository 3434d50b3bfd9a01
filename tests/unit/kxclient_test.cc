#include "client/kxclient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

namespace {

using namespace kestrix::client;

// A GetVolume reply cut to `size` bytes, its integers reversed when `swapped`:
// nDisks disks (at most 3), or the error text.
Bytes Reply(size_t size, uint32_t nDisks, bool swapped, const std::u16string& text = u"") {
  Bytes b(512, 0);
  auto put = [&](size_t at, auto value) {
    Write(b, at, value);
    if (swapped) std::reverse(b.begin() + at, b.begin() + at + sizeof value);
  };
  const int32_t status = text.empty() ? 0 : 17;
  put(0, 1u), put(4, 230), put(24, -1), put(28, uint32_t(size)), put(48, status), put(92, status);
  put(96, 7), put(100, -2), put(108, nDisks), put(112, 4096), b[151] = 0xDF;  // cookie's end
  for (size_t i = 0; i < text.size(); ++i) put(192 + 2 * i, uint16_t{text[i]});
  for (uint32_t i = 0, at = 192; text.empty() && i < std::min(nDisks, 3u); ++i, at += 80)
    b[at] = 0x10 * (i + 1), put(at + 24, 5000000000LL), put(at + 32, -3LL), put(at + 40, 4 + i);
  b.resize(size);
  return b;
}

TEST(KxClientTest, GetVolumeReplyInEitherByteOrderWithinTheDatagram) {
  for (bool swapped : {false, true}) {
    const GetVolumeInfo v = ParseGetVolumeReply(Reply(352, 2, swapped)).value();
    const VolumeDisk d = v.disks.at(1);
    EXPECT_EQ(std::tuple(v.header.swapped, v.header.revision, v.header.length, v.glomType, v.nDisks,
                         v.blockSize, v.cookie[31], v.disks.size(), d.diskId[0], d.blockOffset,
                         d.nBlocks, d.idLength),
              std::tuple(swapped, 230, 352u, -2, 2u, 4096, 0xDF, 2u, 0x20, 5000000000LL, -3, 5u));
    const auto e = ParseGetVolumeReply(Reply(294, 0, swapped, {u"gone\u00e9\0x", 7})).value();
    EXPECT_EQ(std::tuple(e.result, e.errorText), std::tuple(17, "gone\xc3\xa9")) << swapped;
  }
  // Only what the datagram holds is read: one of three disks, half a unit.
  const auto c = ParseGetVolumeReply(Reply(351, 3, false)).value();
  EXPECT_EQ(std::tuple(c.nDisks, c.disks.size(), c.disksTruncated), std::tuple(3u, 1u, true));
  EXPECT_TRUE(ParseGetVolumeReply(Reply(192, 1, false)).value().disksTruncated);
  EXPECT_EQ(ParseGetVolumeReply(Reply(197, 0, false, u"abc")).value().errorText, "ab");
  EXPECT_FALSE(ParseGetVolumeReply(Reply(191, 0, false)).has_value());
  EXPECT_FALSE(ParseHeader(Bytes(47, 0)).has_value());
}

}  // namespace
