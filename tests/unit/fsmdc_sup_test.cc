#include "sp/fsmdc_sup.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace {

using kestrix::test::LogCapture;
using Lines = std::vector<std::string>;

// An 8-byte aligned, zero-filled byte buffer of exactly n bytes (n % 8 == 0).
class Buffer {
 public:
  explicit Buffer(size_t n) : words_(n / 8, 0) {}
  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(words_.data()); }
  template <typename T>
  T* As(size_t offset = 0) {
    return reinterpret_cast<T*>(bytes() + offset);
  }
  void Put(size_t offset, std::initializer_list<uint8_t> b) {
    std::memcpy(bytes() + offset, b.begin(), b.size());
  }
  std::vector<uint8_t> Copy() const {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(words_.data());
    return {p, p + words_.size() * 8};
  }

 private:
  std::vector<uint64_t> words_;
};

// The byte vectors below are written in big-endian order, the order opposite
// to the little-endian hosts these tests run on.
class FsmdcTransTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::endian::native != std::endian::little) GTEST_SKIP() << "little-endian host only";
  }
};

TEST_F(FsmdcTransTest, VolInfoConvertsFixedPartAndEachDisk) {
  Buffer b(VOLINFO_FIXED_SIZE + 3 * FSDISK_SIZE);
  b.Put(0, {0x00, 0x00, 0x01, 0x08});   // msgLen 264
  b.Put(8, {0x00, 0x00, 0x00, 0x07});   // FStype
  b.Put(12, {0xFF, 0xFF, 0xFF, 0xFE});  // GlomType -2
  b.Put(16, {0x00, 0x01, 0x00, 0x00});  // GlomInfo
  b.Put(20, {0x00, 0x00, 0x00, 0x02});  // nDisks 2
  b.Put(24, {0x00, 0x00, 0x10, 0x00});  // BlockSize
  b.Put(28, {0x11, 0x22, 0x33, 0x44});  // reserved
  b.Put(32, {0x01, 0x02, 0x03, 0x04});  // cookie
  b.Put(65, {0xA1, 0x00, 0x00, 0xB4, 0xB5});
  // Disk 0.
  b.Put(104, {0x00, 0x1A, 0x2B, 0x00});
  b.Put(120, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00});
  b.Put(128, {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00});
  b.Put(136, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0A});
  b.Put(144, {0x00, 0x00, 0x00, 0x04});
  b.Put(148, {0x00, 0x00, 0x00, 0x09});
  b.Put(152, {0xDE, 0xAD, 0xBE, 0xEF});
  // Disk 1.
  b.Put(200, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03});
  b.Put(224, {0x00, 0x00, 0x00, 0x10});
  // A third disk slot that nDisks does not cover.
  b.Put(264 + 16, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08});

  FSMDCSUP_TransVolInfo(b.As<VolInfo>());

  const VolInfo* v = b.As<VolInfo>();
  EXPECT_EQ(v->msgLen, 264);
  EXPECT_EQ(v->vendorStatus, 0);
  EXPECT_EQ(v->FStype, 7);
  EXPECT_EQ(v->GlomType, -2);
  EXPECT_EQ(v->GlomInfo, 65536);
  EXPECT_EQ(v->nDisks, 2u);
  EXPECT_EQ(v->BlockSize, 4096);
  const uint8_t* p = b.bytes();
  EXPECT_EQ(std::vector<uint8_t>(p + 28, p + 36),
            std::vector<uint8_t>({0x11, 0x22, 0x33, 0x44, 0x01, 0x02, 0x03, 0x04}));
  EXPECT_EQ(std::vector<uint8_t>(p + 64, p + 70),
            std::vector<uint8_t>({0x00, 0xA1, 0x00, 0x00, 0xB4, 0xB5}));

  const FSDisk* d0 = VolInfoDiskConst(v, 0);
  EXPECT_EQ(std::vector<uint8_t>(d0->DiskID, d0->DiskID + 4),
            std::vector<uint8_t>({0x00, 0x1A, 0x2B, 0x00}));
  EXPECT_EQ(d0->IDoffset, 512);
  EXPECT_EQ(d0->BlockOffset, 4294967296LL);
  EXPECT_EQ(d0->nBlocks, 10);
  EXPECT_EQ(d0->IDlength, 4u);
  EXPECT_EQ(d0->reserved1, 9);
  EXPECT_EQ(std::vector<uint8_t>(d0->reserved2, d0->reserved2 + 4),
            std::vector<uint8_t>({0xDE, 0xAD, 0xBE, 0xEF}));
  const FSDisk* d1 = VolInfoDiskConst(v, 1);
  EXPECT_EQ(d1->IDoffset, 3);
  EXPECT_EQ(d1->IDlength, 16u);
  EXPECT_EQ(std::vector<uint8_t>(p + 280, p + 288),
            std::vector<uint8_t>({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));
}

// A map of three extents of the given type, big-endian, in a buffer with a
// marked tail after the third verbose-sized extent.
Buffer MapWithThreeExtents(uint8_t type) {
  Buffer b(FSMAPINFO_FIXED_SIZE + 4 * VERBOSE_EXTENT_SIZE);
  b.Put(0, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x30, 0x00});  // fileSize 12288
  b.Put(8, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x40, 0x00});  // allocation
  b.Put(16, {0x00, 0x00, 0x00, 0x60});                          // msgLen 96
  b.Put(20, {0xFF, 0xFF, 0xFF, 0xFF});                          // vendorStatus -1
  b.Put(24, {0x00, 0x00, 0x00, 0x03});                          // nExtents
  b.Put(28, {0x00, 0x00, 0x00, type});                          // extentType
  b.Put(32, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00});
  b.Put(40, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x20, 0x00});
  b.Put(48, {0x77, 0x66});                                      // reserved
  // Eight-byte words 1, 2, 3, ... from byte 64 to byte 191.
  for (uint8_t i = 0; i < 16; ++i) b.Put(64 + 8 * i + 7, {static_cast<uint8_t>(i + 1)});
  return b;
}

TEST_F(FsmdcTransTest, MapInfoSimpleExtentsConvertBytes64To135) {
  Buffer b = MapWithThreeExtents(FS_EXTENT_SIMPLE);
  const std::vector<uint8_t> before = b.Copy();
  FSMDCSUP_TransMapInfo(b.As<FSMapInfo>());

  const FSMapInfo* m = b.As<FSMapInfo>();
  EXPECT_EQ(m->fileSize, 12288);
  EXPECT_EQ(m->allocation, 16384);
  EXPECT_EQ(m->msgLen, 96);
  EXPECT_EQ(m->vendorStatus, -1);
  EXPECT_EQ(m->nExtents, 3);
  EXPECT_EQ(m->extentType, 2u);
  EXPECT_EQ(m->fileOffset, 4096);
  EXPECT_EQ(m->fileBytes, 8192);
  EXPECT_EQ(b.bytes()[48], 0x77);
  const SimpleExtent* e = b.As<SimpleExtent>(64);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(e[i].VolOrd, 3 * i + 1);
    EXPECT_EQ(e[i].VolSliceBlock, 3 * i + 2);
    EXPECT_EQ(e[i].NBlocks, 3 * i + 3);
  }
  EXPECT_EQ(std::vector<uint8_t>(b.bytes() + 136, b.bytes() + 192),
            std::vector<uint8_t>(before.begin() + 136, before.end()));
}

TEST_F(FsmdcTransTest, MapInfoVerboseExtentsConvertBytes64To159) {
  Buffer b = MapWithThreeExtents(FS_EXTENT_VERBOSE_ALT);
  const std::vector<uint8_t> before = b.Copy();
  FSMDCSUP_TransMapInfo(b.As<FSMapInfo>());

  const VerboseExtent* e = b.As<VerboseExtent>(64);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(e[i].LogicalByteAddr, 4 * i + 1);
    EXPECT_EQ(e[i].PhysicalByteAddr, 4 * i + 2);
    EXPECT_EQ(e[i].nBytes, 4 * i + 3);
    // The last word holds the two 4-byte fields, each reversed on its own.
    EXPECT_EQ(e[i].VolumeOrdinal, 0u);
    EXPECT_EQ(e[i].validity, static_cast<FSULONG>(4 * i + 4));
  }
  EXPECT_EQ(std::vector<uint8_t>(b.bytes() + 160, b.bytes() + 192),
            std::vector<uint8_t>(before.begin() + 160, before.end()));
}

TEST_F(FsmdcTransTest, MapInfoLeavesUnknownTypesAndEmptyTablesAlone) {
  Buffer b = MapWithThreeExtents(4);
  const std::vector<uint8_t> before = b.Copy();
  FSMDCSUP_TransMapInfo(b.As<FSMapInfo>());
  EXPECT_EQ(b.As<FSMapInfo>()->extentType, 4u);
  EXPECT_EQ(b.As<FSMapInfo>()->nExtents, 3);
  EXPECT_EQ(std::vector<uint8_t>(b.bytes() + 64, b.bytes() + 192),
            std::vector<uint8_t>(before.begin() + 64, before.end()));

  Buffer n = MapWithThreeExtents(FS_EXTENT_COMPACT);
  n.Put(24, {0xFF, 0xFF, 0xFF, 0xFD});  // nExtents -3
  const std::vector<uint8_t> nbefore = n.Copy();
  FSMDCSUP_TransMapInfo(n.As<FSMapInfo>());
  EXPECT_EQ(n.As<FSMapInfo>()->nExtents, -3);
  EXPECT_EQ(std::vector<uint8_t>(n.bytes() + 64, n.bytes() + 192),
            std::vector<uint8_t>(nbefore.begin() + 64, nbefore.end()));
}

TEST_F(FsmdcTransTest, CompactExtentsAreSixteenBytes) {
  Buffer b = MapWithThreeExtents(FS_EXTENT_COMPACT);
  FSMDCSUP_TransMapInfo(b.As<FSMapInfo>());
  const CompactExtent* e = b.As<CompactExtent>(64);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(e[i].BlockOffset, 2 * i + 1);
    EXPECT_EQ(e[i].nBlocks, 2 * i + 2);
  }
  EXPECT_EQ(b.bytes()[64 + 48 + 7], 7);  // the fourth extent is untouched
}

// ---- dumps ----

Lines Prefixed(std::initializer_list<const char*> lines) {
  Lines out;
  for (const char* l : lines) out.push_back(std::string("SP ") + l);
  return out;
}

void FillDisk(FSDisk* d, std::initializer_list<uint8_t> id, FSULONG idLength) {
  std::memcpy(d->DiskID, id.begin(), id.size());
  d->IDlength = idLength;
  d->IDoffset = 512;
  d->BlockOffset = 4294967296LL;
  d->nBlocks = 10;
}

TEST(FsmdcDumpTest, VolInfoWithTwoDisks) {
  Buffer b(VOLINFO_FIXED_SIZE + 2 * FSDISK_SIZE);
  VolInfo* v = b.As<VolInfo>();
  v->msgLen = 264;
  v->FStype = 7;
  v->GlomType = -2;
  v->GlomInfo = 65536;
  v->BlockSize = 4096;
  v->nDisks = 2;
  v->Cookie[0] = 0x01;
  v->Cookie[3] = 0x04;
  FillDisk(VolInfoDisk(v, 0), {0x00, 0x1A, 0x2B, 0x00}, 4);
  // An IDlength beyond the 16-byte field prints 16 bytes; the bytes after
  // the field (offset 16 on) must not appear.
  FillDisk(VolInfoDisk(v, 1),
           {0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD,
            0xFE, 0xFF},
           40);

  LogCapture log;
  FSMDCSUP_DumpVolInfo(v);
  EXPECT_EQ(log.Lines(),
            Prefixed({"msgLen 264", "FStype 7", "vendorStatus 0", "GlomType -2",
                      "GlomInfo 65536", "BlockSize 4096", "Cookie 01 00 00 04", "nDisks 2",
                      "DiskID 00 1A 2B 00 ", "IDlength 4", "IDoffset 512",
                      "BlockOffset 4294967296", "nBlocks 10",
                      "DiskID F0 F1 F2 F3 F4 F5 F6 F7 F8 F9 FA FB FC FD FE FF ", "IDlength 40",
                      "IDoffset 512", "BlockOffset 4294967296", "nBlocks 10"}));
}

TEST(FsmdcDumpTest, VolInfoWithErrorTextPrintsNoDisks) {
  Buffer b(VOLINFO_FIXED_SIZE + 32);
  VolInfo* v = b.As<VolInfo>();
  v->vendorStatus = 7;
  const char16_t text[] = u"disk \u00e9";
  std::memcpy(b.bytes() + VOLINFO_FIXED_SIZE, text, sizeof(text));

  LogCapture log;
  FSMDCSUP_DumpVolInfo(v);
  EXPECT_EQ(log.Lines(), Prefixed({"msgLen 0", "FStype 0", "vendorStatus 7", "GlomType 0",
                                   "GlomInfo 0", "BlockSize 0", "Cookie ",
                                   "vError disk \xC3\xA9"}));
}

TEST(FsmdcDumpTest, MapInfoWithVerboseExtents) {
  Buffer b(FSMAPINFO_FIXED_SIZE + 2 * VERBOSE_EXTENT_SIZE);
  FSMapInfo* m = b.As<FSMapInfo>();
  m->fileSize = 5000000000LL;
  m->allocation = 8192;
  m->msgLen = 128;
  m->vendorStatus = 3;
  m->nExtents = 2;
  m->extentType = FS_EXTENT_VERBOSE;
  m->fileOffset = 0;
  m->fileBytes = -1;
  VerboseExtent* e = b.As<VerboseExtent>(64);
  e[0] = {0, 1048576, 4096, 2, 1};
  e[1] = {4096, 2097152, 4096, 3, 0};

  LogCapture log;
  FSMDCSUP_DumpFSMapInfo(m);
  EXPECT_EQ(log.Lines(),
            Prefixed({"msgLen 128", "vendorStatus 3", "fileSize 5000000000", "allocation 8192",
                      "fileOffset 0", "fileBytes -1", "nExtents 2", "extentType 1",
                      "VolumeOrdinal 2", "LogicalByteAddr 0", "PhysicalByteAddr 1048576",
                      "nBytes 4096", "validity 1", "VolumeOrdinal 3", "LogicalByteAddr 4096",
                      "PhysicalByteAddr 2097152", "nBytes 4096", "validity 0"}));
}

TEST(FsmdcDumpTest, SimpleAndCompactExtentLines) {
  Buffer b(FSMAPINFO_FIXED_SIZE + SIMPLE_EXTENT_SIZE + 8);
  FSMapInfo* m = b.As<FSMapInfo>();
  m->nExtents = 1;
  m->extentType = FS_EXTENT_SIMPLE;
  *b.As<SimpleExtent>(64) = {4294967297LL, 77, 88};

  LogCapture log;
  FSMDCSUP_DumpFSMapInfo(m);
  Lines lines = log.Lines();
  ASSERT_EQ(lines.size(), 11u);
  EXPECT_EQ(Lines(lines.begin() + 8, lines.end()),
            Prefixed({"VolOrd 1", "VolSliceBlock 77", "NBlocks 88"}));

  log.Clear();
  const CompactExtent c = {123, 45};
  FSMDCSUP_DumpCompactExtent(&c);
  EXPECT_EQ(log.Lines(), Prefixed({"BlockOffset 123", "nBlocks 45"}));
}

TEST(FsmdcDumpTest, UnknownExtentTypePrintsOnlyTheFixedPart) {
  Buffer b(FSMAPINFO_FIXED_SIZE + 64);
  FSMapInfo* m = b.As<FSMapInfo>();
  m->nExtents = 2;
  m->extentType = 4;
  LogCapture log;
  FSMDCSUP_DumpFSMapInfo(m);
  Lines lines = log.Lines();
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[7], "SP extentType 4");
}

}  // namespace
