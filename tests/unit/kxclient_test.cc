// The client library's request builders and reply parsers, on messages
// assembled byte by byte.
#include "client/kxclient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace kestrix::client {
namespace {

// Writes integers at fixed offsets, in host order or reversed as a writer of
// the other byte order would have stored them.
class ReplyBuilder {
 public:
  ReplyBuilder(size_t size, bool swapped) : bytes_(size, 0), swapped_(swapped) {}
  template <typename T>
  ReplyBuilder& Put(size_t offset, T value) {
    uint8_t raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    if (swapped_) std::reverse(raw, raw + sizeof(T));
    std::memcpy(bytes_.data() + offset, raw, sizeof(T));
    return *this;
  }
  Bytes bytes_;

 private:
  bool swapped_;
};

// A GetVolume reply of `size` bytes whose volume description declares
// nDisks disks and fills as many of them as fit.
Bytes VolumeReply(size_t size, uint32_t nDisks, bool swapped) {
  ReplyBuilder b(size, swapped);
  b.Put<uint32_t>(0, 1).Put<int32_t>(4, 230).Put<int32_t>(24, -1);
  b.Put<uint32_t>(28, static_cast<uint32_t>(size)).Put<int32_t>(48, 0);
  b.Put<int32_t>(88, 104 + 80 * static_cast<int32_t>(nDisks));  // msgLen
  b.Put<int32_t>(96, 7).Put<int32_t>(100, -2).Put<int32_t>(104, 5);
  b.Put<uint32_t>(108, nDisks).Put<int32_t>(112, 4096);
  for (int k = 0; k < 32; ++k) b.bytes_[120 + k] = static_cast<uint8_t>(0xC0 + k);
  for (uint32_t i = 0; 192 + 80 * (i + 1) <= size && i < nDisks; ++i) {
    size_t at = 192 + 80 * i;
    for (int k = 0; k < 16; ++k) b.bytes_[at + k] = static_cast<uint8_t>(0x10 * (i + 1) + k);
    b.Put<int64_t>(at + 16, 1000 * (i + 1)).Put<int64_t>(at + 24, 5000000000LL * (i + 1));
    b.Put<int64_t>(at + 32, -3).Put<uint32_t>(at + 40, 4 + i);
  }
  return b.bytes_;
}

TEST(KxClientTest, GetVolumeReplyInEitherByteOrder) {
  for (bool swapped : {false, true}) {
    SCOPED_TRACE(swapped ? "other byte order" : "host byte order");
    std::optional<GetVolumeInfo> v = ParseGetVolumeReply(VolumeReply(352, 2, swapped));
    ASSERT_TRUE(v.has_value());
    EXPECT_EQ(v->header.swapped, swapped);
    EXPECT_EQ(v->header.revision, 230);
    EXPECT_EQ(v->header.length, 352u);
    EXPECT_EQ(v->result, 0);
    EXPECT_EQ(v->msgLen, 264);
    EXPECT_EQ(v->fsType, 7);
    EXPECT_EQ(v->glomType, -2);
    EXPECT_EQ(v->glomInfo, 5);
    EXPECT_EQ(v->nDisks, 2u);
    EXPECT_EQ(v->blockSize, 4096);
    EXPECT_EQ(v->cookie[0], 0xC0);
    EXPECT_EQ(v->cookie[31], 0xDF);  // cookies are never reordered
    ASSERT_EQ(v->disks.size(), 2u);
    EXPECT_FALSE(v->disksTruncated);
    EXPECT_EQ(v->disks[1].diskId[0], 0x20);
    EXPECT_EQ(v->disks[1].diskId[15], 0x2F);
    EXPECT_EQ(v->disks[1].idOffset, 2000);
    EXPECT_EQ(v->disks[1].blockOffset, 10000000000LL);
    EXPECT_EQ(v->disks[1].nBlocks, -3);
    EXPECT_EQ(v->disks[1].idLength, 5u);
    EXPECT_TRUE(v->errorText.empty());
  }
}

TEST(KxClientTest, DisksBeyondTheDatagramAreNotRead) {
  // The 272-byte fallback reply has room for one disk only.
  std::optional<GetVolumeInfo> v = ParseGetVolumeReply(VolumeReply(272, 3, false));
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(v->nDisks, 3u);
  EXPECT_EQ(v->disks.size(), 1u);
  EXPECT_TRUE(v->disksTruncated);

  // No room for any disk: the fixed part alone still parses.
  v = ParseGetVolumeReply(VolumeReply(192, 1, false));
  ASSERT_TRUE(v.has_value());
  EXPECT_TRUE(v->disks.empty());
  EXPECT_TRUE(v->disksTruncated);
}

TEST(KxClientTest, ErrorTextStopsAtTerminatorOrEnd) {
  for (bool swapped : {false, true}) {
    ReplyBuilder b(294, swapped);
    b.Put<uint32_t>(0, 1).Put<int32_t>(24, -1).Put<uint32_t>(28, 294);
    b.Put<int32_t>(48, 17).Put<int32_t>(92, 17).Put<uint32_t>(108, 0);
    const std::u16string text = u"disk gone\u00e9";
    for (size_t i = 0; i < text.size(); ++i) b.Put<uint16_t>(192 + 2 * i, text[i]);
    b.Put<uint16_t>(192 + 2 * text.size() + 2, 'x');  // after the terminator
    std::optional<GetVolumeInfo> v = ParseGetVolumeReply(b.bytes_);
    ASSERT_TRUE(v.has_value());
    EXPECT_EQ(v->result, 17);
    EXPECT_EQ(v->vendorStatus, 17);
    EXPECT_EQ(v->errorText, "disk gone\xc3\xa9");
    EXPECT_TRUE(v->disks.empty());
  }
  // A text that runs to the end of the datagram without a terminator.
  ReplyBuilder b(197, false);
  b.Put<uint32_t>(0, 1).Put<int32_t>(24, -1).Put<int32_t>(92, 1);
  b.Put<uint16_t>(192, 'a').Put<uint16_t>(194, 'b');
  b.bytes_[196] = 'c';  // half a unit
  std::optional<GetVolumeInfo> v = ParseGetVolumeReply(b.bytes_);
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(v->errorText, "ab");
}

TEST(KxClientTest, OtherRepliesAreNotVolumes) {
  // The LAN server's bare error reply to a GetVolume request.
  ReplyBuilder lan(48, false);
  lan.Put<uint32_t>(0, 1).Put<int32_t>(24, -1).Put<uint32_t>(28, 48).Put<int32_t>(36, 8);
  EXPECT_FALSE(ParseGetVolumeReply(lan.bytes_).has_value());
  std::optional<ReplyHeader> h = ParseHeader(lan.bytes_);
  ASSERT_TRUE(h.has_value());
  EXPECT_EQ(h->result, 8);
  EXPECT_EQ(h->functionCode, -1);

  Bytes other = VolumeReply(352, 2, false);
  other[24] = static_cast<uint8_t>(-2);  // a GetInitialMap reply
  EXPECT_FALSE(ParseGetVolumeReply(other).has_value());
  EXPECT_FALSE(ParseHeader(Bytes(47, 0)).has_value());
}

TEST(KxClientTest, HexTextAndGetVolumeRequest) {
  EXPECT_EQ(ParseHex("0a:0B-ff 10", 32), (Bytes{0x0a, 0x0b, 0xff, 0x10}));
  EXPECT_EQ(ParseHex("", 32), Bytes{});
  EXPECT_FALSE(ParseHex("abc", 32).has_value());    // odd digit count
  EXPECT_FALSE(ParseHex("a b", 32).has_value());    // separator inside a pair
  EXPECT_FALSE(ParseHex("0x10", 32).has_value());
  EXPECT_FALSE(ParseHex("010203", 2).has_value());  // too many bytes
  const uint8_t id[] = {0x00, 0x7f, 0xa5};
  EXPECT_EQ(ToHex(id, 3), "007fa5");

  Bytes cookie(32);
  for (int i = 0; i < 32; ++i) cookie[i] = static_cast<uint8_t>(i + 1);
  Bytes request = MakeGetVolumeRequest("share\xc3\xa9", cookie.data());
  ASSERT_EQ(request.size(), 2228u);
  EXPECT_EQ(HeaderOf(request)->functionCode, 1);
  EXPECT_EQ(HeaderOf(request)->length, 2228u);
  EXPECT_EQ(std::memcmp(request.data() + 84, cookie.data(), 32), 0);
  EXPECT_EQ(Read<uint16_t>(request, 180), 's');
  EXPECT_EQ(Read<uint16_t>(request, 180 + 2 * 5), 0xe9);
  EXPECT_EQ(Read<uint16_t>(request, 180 + 2 * 6), 0);

  // An overlong path keeps its terminator in the last unit.
  request = MakeGetVolumeRequest(std::string(2000, 'p'));
  EXPECT_EQ(Read<uint16_t>(request, 180 + 2 * 1022), 'p');
  EXPECT_EQ(Read<uint16_t>(request, 180 + 2 * 1023), 0);
  EXPECT_EQ(Read<uint8_t>(request, 84), 0);
}

}  // namespace
}  // namespace kestrix::client
