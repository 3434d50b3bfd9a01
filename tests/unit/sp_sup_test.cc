#include "sp/sp_sup.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace {

using kestrix::test::CountOf;
using kestrix::test::LogCapture;
using Lines = std::vector<std::string>;

// An 8-byte aligned, zero-filled buffer of n bytes rounded up to 8.
class Buffer {
 public:
  explicit Buffer(size_t n) : words_((n + 7) / 8, 0) {}
  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(words_.data()); }
  size_t size() const { return words_.size() * 8; }
  template <typename T>
  T* As(size_t offset = 0) {
    return reinterpret_cast<T*>(bytes() + offset);
  }
  void Put(size_t offset, std::initializer_list<uint8_t> b) {
    std::memcpy(bytes() + offset, b.begin(), b.size());
  }
  std::vector<uint8_t> Range(size_t from, size_t to) {
    return {bytes() + from, bytes() + to};
  }

 private:
  std::vector<uint64_t> words_;
};

// The byte vectors are big-endian: the other order on the little-endian
// hosts these tests run on. The marker 1 written big-endian starts each.
class SpSupTransTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::endian::native != std::endian::little) GTEST_SKIP() << "little-endian host only";
  }
  static Buffer Foreign(size_t n) {
    Buffer b(n);
    b.Put(0, {0x00, 0x00, 0x00, 0x01});
    b.Put(28, {0x00, 0x00, 0x08, 0xB4});  // header: converted elsewhere
    return b;
  }
};

TEST_F(SpSupTransTest, GetVolumeSwapsAllPathUnits) {
  Buffer b = Foreign(sizeof(GetVolumeMsg));
  b.Put(84, {0x01, 0x02, 0x03, 0x04});  // cookie
  b.Put(180, {0x00, 0x2F, 0x00, 0x61, 0x00, 0x00});
  b.Put(180 + 10, {0x12, 0x34});         // after the terminator
  b.Put(180 + 2046, {0xAB, 0xCD});       // the last unit
  const std::vector<uint8_t> head = b.Range(0, 180);

  SPSUP_TransLanGetVolume(b.As<GetVolumeMsg>());
  const GetVolumeMsg* m = b.As<GetVolumeMsg>();
  EXPECT_EQ(b.Range(0, 180), head);
  EXPECT_EQ(m->path[0], 0x2F);
  EXPECT_EQ(m->path[1], 0x61);
  EXPECT_EQ(m->path[2], 0);
  EXPECT_EQ(m->path[5], 0x1234);
  EXPECT_EQ(m->path[1023], 0xABCD);
}

TEST_F(SpSupTransTest, GetInitialMapFieldsAndNameArea) {
  Buffer b = Foreign(sizeof(GetInitialMapMsg));
  b.Put(48, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0xE8});
  b.Put(56, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  b.Put(64, {0x00, 0x00, 0x75, 0x30, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x08});
  b.Put(76, {0x5A, 0x5B});
  b.Put(112, {0x00, 0x41, 0x00, 0x00, 0x00, 0x78, 0x00, 0x00});
  b.Put(112 + 2046, {0x01, 0x02});

  SPSUP_TransLanGetInitialMap(b.As<GetInitialMapMsg>());
  const GetInitialMapMsg* m = b.As<GetInitialMapMsg>();
  EXPECT_EQ(m->filesize, 1000);
  EXPECT_EQ(m->allocsize, -1);
  EXPECT_EQ(m->lease, 30000u);
  EXPECT_EQ(m->intention, 1u);
  EXPECT_EQ(m->flag, 8u);
  EXPECT_EQ(b.Range(76, 78), std::vector<uint8_t>({0x5A, 0x5B}));
  EXPECT_EQ(m->names[0], 'A');
  EXPECT_EQ(m->names[2], 'x');
  EXPECT_EQ(m->names[1023], 0x0102);
}

TEST_F(SpSupTransTest, GetExtendedMapSetSizeAndClose) {
  Buffer e = Foreign(sizeof(GetExtendedMapMsg));
  e.Put(48, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  e.Put(56, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00});
  e.Put(64, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x20, 0x00});
  e.Put(72, {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00});
  e.Put(80, {0x00, 0x00, 0x13, 0x88, 0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x00, 0x00, 0x02});
  SPSUP_TransLanGetExtendedMap(e.As<GetExtendedMapMsg>());
  const GetExtendedMapMsg* em = e.As<GetExtendedMapMsg>();
  EXPECT_EQ(em->filesize, -1);
  EXPECT_EQ(em->allocation, 256);
  EXPECT_EQ(em->start, 8192);
  EXPECT_EQ(em->length, 4294967296LL);
  EXPECT_EQ(em->lease, 5000u);
  EXPECT_EQ(em->key, 0xDEADBEEFu);
  EXPECT_EQ(em->flag, 2u);

  Buffer s = Foreign(sizeof(SetSizeMsg));
  s.Put(48, {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00});
  s.Put(56, {0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x2A});
  SPSUP_TransLanSetSize(s.As<SetSizeMsg>());
  EXPECT_EQ(s.As<SetSizeMsg>()->filesize, 4294967296LL);
  EXPECT_EQ(s.As<SetSizeMsg>()->lease, 10u);
  EXPECT_EQ(s.As<SetSizeMsg>()->key, 42u);

  Buffer c = Foreign(sizeof(CloseMsg));
  c.Put(48, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x13, 0x88, 0x00, 0x00, 0x00, 0x07});
  SPSUP_TransLanClose(c.As<CloseMsg>());
  EXPECT_EQ(c.As<CloseMsg>()->filesize, 5000);
  EXPECT_EQ(c.As<CloseMsg>()->key, 7u);
  // The header is not theirs to convert.
  EXPECT_EQ(c.Range(28, 32), std::vector<uint8_t>({0x00, 0x00, 0x08, 0xB4}));
}

TEST_F(SpSupTransTest, MarkerOfOneLeavesEveryMessageAlone) {
  using Convert = void (*)(void*);
  const Convert converters[] = {
      [](void* m) { SPSUP_TransLanGetVolume(static_cast<GetVolumeMsg*>(m)); },
      [](void* m) { SPSUP_TransLanGetInitialMap(static_cast<GetInitialMapMsg*>(m)); },
      [](void* m) { SPSUP_TransLanGetExtendedMap(static_cast<GetExtendedMapMsg*>(m)); },
      [](void* m) { SPSUP_TransLanSetSize(static_cast<SetSizeMsg*>(m)); },
      [](void* m) { SPSUP_TransLanClose(static_cast<CloseMsg*>(m)); },
      [](void* m) { SPSUP_TransLanGetVolumeResp(static_cast<GetVolumeReply*>(m)); },
      [](void* m) { SPSUP_TransLanGetInitialMapResp(static_cast<GetInitialMapReply*>(m)); },
      [](void* m) { SPSUP_TransLanGetExtendedMapResp(static_cast<GetExtendedMapReply*>(m)); },
      [](void* m) { SPSUP_TransLanSetSizeResp(static_cast<SetSizeReply*>(m)); },
      [](void* m) { SPSUP_TransLanCloseResp(static_cast<CloseReply*>(m)); },
  };
  int index = 0;
  for (Convert convert : converters) {
    Buffer b(4096);
    for (size_t i = 0; i < b.size(); ++i) b.bytes()[i] = static_cast<uint8_t>(i * 7 + 3);
    b.As<LanHeader>()->byteOrder = 1;
    const std::vector<uint8_t> before = b.Range(0, b.size());
    convert(b.bytes());
    EXPECT_EQ(b.Range(0, b.size()), before) << "converter " << index;
    ++index;
  }
}

TEST_F(SpSupTransTest, ReplyConvertersUseConvertedCounts) {
  Buffer v = Foreign(352);
  v.As<LanHeader>()->length = 352;  // header already in host order
  v.Put(48, {0x00, 0x00, 0x00, 0x05});
  v.Put(108, {0x00, 0x00, 0x00, 0x02});
  v.Put(192 + 16, {0, 0, 0, 0, 0, 0, 0, 0x01});
  v.Put(272 + 16, {0, 0, 0, 0, 0, 0, 0, 0x02});
  SPSUP_TransLanGetVolumeResp(v.As<GetVolumeReply>());
  EXPECT_EQ(v.As<GetVolumeReply>()->result, 5);
  EXPECT_EQ(v.As<GetVolumeReply>()->volInfo.nDisks, 2u);
  EXPECT_EQ(v.As<FSDisk>(192)->IDoffset, 1);
  EXPECT_EQ(v.As<FSDisk>(272)->IDoffset, 2);

  Buffer i = Foreign(SP_GETINITIALMAP_REPLY_SIZE);
  i.As<LanHeader>()->length = SP_GETINITIALMAP_REPLY_SIZE;
  i.Put(48, {0, 0, 0, 1, 0, 0, 0x75, 0x30, 0, 0, 0, 0x2A});
  i.Put(96, {0x10, 0x20});
  i.Put(128, {0x30, 0x40});
  i.Put(184, {0, 0, 0, 1, 0, 0, 0, 0});  // one compact extent
  i.Put(224, {0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 6});
  SPSUP_TransLanGetInitialMapResp(i.As<GetInitialMapReply>());
  const GetInitialMapReply* ir = i.As<GetInitialMapReply>();
  EXPECT_EQ(ir->result, 1);
  EXPECT_EQ(ir->lease, 30000u);
  EXPECT_EQ(ir->key, 42u);
  EXPECT_EQ(i.Range(96, 98), std::vector<uint8_t>({0x10, 0x20}));
  EXPECT_EQ(i.Range(128, 130), std::vector<uint8_t>({0x30, 0x40}));
  EXPECT_EQ(ir->map.nExtents, 1);
  EXPECT_EQ(i.As<CompactExtent>(224)->BlockOffset, 5);
  EXPECT_EQ(i.As<CompactExtent>(224)->nBlocks, 6);

  Buffer s = Foreign(SP_SETSIZE_REPLY_SIZE);
  s.Put(48, {0, 0, 0x01, 0x90, 0, 0, 0, 0x64});
  SPSUP_TransLanSetSizeResp(s.As<SetSizeReply>());
  EXPECT_EQ(s.As<SetSizeReply>()->result, 400);
  EXPECT_EQ(s.As<SetSizeReply>()->lease, 100u);

  Buffer c = Foreign(SP_CLOSE_REPLY_SIZE);
  c.Put(48, {0, 0, 0x01, 0x97});
  SPSUP_TransLanCloseResp(c.As<CloseReply>());
  EXPECT_EQ(c.As<CloseReply>()->result, 407);
}

// A library's huge count must not walk the converter past the reply.
TEST_F(SpSupTransTest, ReplyConvertersStopAtTheHeaderLength) {
  Buffer e = Foreign(SP_GETEXTENDEDMAP_REPLY_SIZE);
  e.As<LanHeader>()->length = SP_GETEXTENDEDMAP_REPLY_SIZE;
  e.Put(48, {0, 0, 0, 0, 0, 0, 0x27, 0x10});
  e.Put(112, {0x00, 0x0F, 0x42, 0x40, 0x00, 0x00, 0x00, 0x01});  // 1000000 verbose
  e.Put(152, {0, 0, 0, 0, 0, 0, 0, 0x09});
  SPSUP_TransLanGetExtendedMapResp(e.As<GetExtendedMapReply>());
  EXPECT_EQ(e.As<GetExtendedMapReply>()->lease, 10000u);
  EXPECT_EQ(e.As<GetExtendedMapReply>()->map.nExtents, 1000000);
  EXPECT_EQ(e.As<VerboseExtent>(152)->LogicalByteAddr, 9);

  Buffer v = Foreign(SP_GETVOLUME_REPLY_SIZE);
  v.As<LanHeader>()->length = SP_GETVOLUME_REPLY_SIZE;
  v.Put(108, {0xFF, 0xFF, 0xFF, 0xFF});
  v.Put(192 + 40, {0, 0, 0, 4});
  SPSUP_TransLanGetVolumeResp(v.As<GetVolumeReply>());
  EXPECT_EQ(v.As<FSDisk>(192)->IDlength, 4u);
}

// ---- dumps ----

void SetHeader(LanHeader* h, FSLONG code, FSULONG length) {
  h->byteOrder = 1;
  h->revision = 3;
  h->messageID[0] = 0x01;
  h->messageID[1] = 0x02;
  h->functionCode = code;
  h->length = length;
}

// The title, the five header lines and the body lines, as the log file
// shows them.
Lines Dump(const std::string& title, int code, unsigned length,
           std::initializer_list<std::string> body) {
  Lines out = {"SP " + title,
               "SP functionCode " + std::to_string(code),
               "SP length " + std::to_string(length),
               "SP messageID 01 02",
               "SP revision 3",
               "SP result 0"};
  for (const std::string& l : body) out.push_back("SP " + l);
  return out;
}

void PutText(FSUNI* area, const std::u16string& text) {
  for (char16_t unit : text) *area++ = unit;
}

TEST(SpSupDumpTest, GetVolumeRequest) {
  Buffer b(sizeof(GetVolumeMsg));
  GetVolumeMsg* m = b.As<GetVolumeMsg>();
  SetHeader(&m->header, 1, sizeof(GetVolumeMsg));
  PutText(m->path, u"share\\dir \u00e9");
  LogCapture log;
  SPSUP_DumpMessage(&m->header, 0);
  EXPECT_EQ(log.Lines(),
            Dump("--- GetVolume Message ---", 1, 2228, {"path share\\dir \xC3\xA9"}));
}

TEST(SpSupDumpTest, GetInitialMapRequestNameLines) {
  Buffer b(sizeof(GetInitialMapMsg));
  GetInitialMapMsg* m = b.As<GetInitialMapMsg>();
  SetHeader(&m->header, 2, sizeof(GetInitialMapMsg));
  m->filesize = -1;
  m->allocsize = 4096;
  m->lease = 30000;
  m->intention = 1;
  m->flag = 8;
  PutText(m->names, std::u16string(u"AB") + u'\0' + u"x.dat");
  LogCapture log;
  SPSUP_DumpMessage(&m->header, 0);
  EXPECT_EQ(log.Lines(), Dump("--- GetInitialMap Message ---", 2, 2160,
                              {"share: [AB]", "filename:[x.dat]", "lease 30000", "intention 1",
                               "flag 8", "filesize -1", "allocsize 4096"}));
}

TEST(SpSupDumpTest, GetInitialMapShareLineIsCutAt256Characters) {
  Buffer b(sizeof(GetInitialMapMsg));
  GetInitialMapMsg* m = b.As<GetInitialMapMsg>();
  SetHeader(&m->header, 2, sizeof(GetInitialMapMsg));
  std::u16string share;
  for (int i = 0; i < 300; ++i) share += static_cast<char16_t>('a' + i % 26);
  PutText(m->names, share + u'\0' + u"f");
  std::string narrow;
  for (char16_t c : share) narrow += static_cast<char>(c);

  LogCapture log;
  SPSUP_DumpGetInitialMapMsg(m);
  const Lines lines = log.Lines();
  ASSERT_GE(lines.size(), 8u);
  EXPECT_EQ(lines[6], "SP share: [" + narrow.substr(0, 256) + "]");
  // The file-name walk carries on inside the share name.
  EXPECT_EQ(lines[7], "SP filename:[" + narrow.substr(256) + "]");
}

TEST(SpSupDumpTest, WideCharactersNarrowToTwoBytes) {
  Buffer b(sizeof(GetInitialMapMsg));
  GetInitialMapMsg* m = b.As<GetInitialMapMsg>();
  SetHeader(&m->header, 2, sizeof(GetInitialMapMsg));
  PutText(m->names, std::u16string(u"\u4142") + u'\0' + u"y");
  LogCapture log;
  SPSUP_DumpGetInitialMapMsg(m);
  EXPECT_TRUE(log.Contains("SP share: [BA]\n"));
  EXPECT_TRUE(log.Contains("SP filename:[y]\n"));
}

TEST(SpSupDumpTest, GetExtendedMapSetSizeAndCloseRequests) {
  Buffer e(sizeof(GetExtendedMapMsg));
  GetExtendedMapMsg* em = e.As<GetExtendedMapMsg>();
  SetHeader(&em->header, 3, 92);
  em->filesize = -1;
  em->allocation = 5000000000LL;
  em->start = 8192;
  em->length = 0;
  em->lease = 5000;
  em->key = 0xBEEF;
  em->flag = 2;
  Buffer s(sizeof(SetSizeMsg));
  SetSizeMsg* sm = s.As<SetSizeMsg>();
  SetHeader(&sm->header, 4, 64);
  sm->filesize = 1000;
  sm->lease = 0;
  sm->key = 0x2a;
  Buffer c(sizeof(CloseMsg));
  CloseMsg* cm = c.As<CloseMsg>();
  SetHeader(&cm->header, 5, 60);
  cm->filesize = -1;
  cm->key = 0xffffffff;

  LogCapture log;
  SPSUP_DumpMessage(&em->header, 0);
  EXPECT_EQ(log.Lines(), Dump("--- GetExtendedMap Message ---", 3, 92,
                              {"lease 5000", "key beef", "filesize -1",
                               "allocation 5000000000", "start 8192", "length 0", "flag 2"}));
  log.Clear();
  SPSUP_DumpMessage(&sm->header, 0);
  EXPECT_EQ(log.Lines(),
            Dump("--- SetSize Message ---", 4, 64, {"key 2a", "lease 0", "filesize 1000"}));
  log.Clear();
  SPSUP_DumpMessage(&cm->header, 0);
  EXPECT_EQ(log.Lines(), Dump("--- Close Message ---", 5, 60, {"key ffffffff", "filesize -1"}));
}

TEST(SpSupDumpTest, GetVolumeReplyWalksNoFurtherThanItsLength) {
  // The library claims a million disks; the reply holds one.
  Buffer b(SP_GETVOLUME_REPLY_SIZE);
  GetVolumeReply* r = b.As<GetVolumeReply>();
  SetHeader(&r->header, -1, SP_GETVOLUME_REPLY_SIZE);
  r->result = 0;
  r->volInfo.msgLen = 184;
  r->volInfo.FStype = 2;
  r->volInfo.BlockSize = 512;
  r->volInfo.nDisks = 1000000;
  r->volInfo.Cookie[0] = 0xC0;
  FSDisk* d = VolInfoDisk(&r->volInfo, 0);
  d->DiskID[0] = 0x5A;
  d->IDlength = 1;
  d->nBlocks = 100;

  LogCapture log;
  SPSUP_DumpMessage(&r->header, SP_GETVOLUME_REPLY_SIZE);
  EXPECT_EQ(log.Lines(),
            Dump("--- GetVolume Reply Message ---", -1, 272,
                 {"result 0", "msgLen 184", "FStype 2", "vendorStatus 0", "GlomType 0",
                  "GlomInfo 0", "BlockSize 512", "Cookie C", "nDisks 1000000", "DiskID 5A ",
                  "IDlength 1", "IDoffset 0", "BlockOffset 0", "nBlocks 100"}));
}

TEST(SpSupDumpTest, GetInitialMapReplyTitleAndMap) {
  Buffer b(SP_GETINITIALMAP_REPLY_SIZE);
  GetInitialMapReply* r = b.As<GetInitialMapReply>();
  SetHeader(&r->header, -2, SP_GETINITIALMAP_REPLY_SIZE);
  r->result = 1;
  r->lease = 60000;
  r->key = 0x1f;
  r->fileCookie[0] = 0xAB;
  r->fileCookie[31] = 0x01;
  r->volumeCookie[1] = 0xCD;
  r->map.fileSize = 4096;
  r->map.nExtents = 1;
  r->map.extentType = FS_EXTENT_COMPACT;
  *b.As<CompactExtent>(224) = {8, 1};

  std::string cookie = "AB";
  for (int i = 1; i < 31; ++i) cookie += " 00";
  cookie += " 01";
  LogCapture log;
  SPSUP_DumpMessage(&r->header, SP_GETINITIALMAP_REPLY_SIZE);
  EXPECT_EQ(log.Lines(),
            Dump("--- GetInitalMap Reply Message ---", -2, 256,
                 {"result 1", "lease 60000", "key 1f", "fileCookie " + cookie,
                  "volumeCookie 00 CD", "msgLen 0", "vendorStatus 0", "fileSize 4096",
                  "allocation 0", "fileOffset 0", "fileBytes 0", "nExtents 1", "extentType 0",
                  "BlockOffset 8", "nBlocks 1"}));
}

TEST(SpSupDumpTest, GetExtendedMapReplyWalksNoFurtherThanItsLength) {
  Buffer b(SP_GETEXTENDEDMAP_REPLY_SIZE);
  GetExtendedMapReply* r = b.As<GetExtendedMapReply>();
  SetHeader(&r->header, -3, SP_GETEXTENDEDMAP_REPLY_SIZE);
  r->lease = 10000;
  r->map.nExtents = 0x7fffffff;
  r->map.extentType = FS_EXTENT_VERBOSE;
  LogCapture log;
  SPSUP_DumpGetExtendedMapReply(r, 0);
  const Lines lines = log.Lines();
  EXPECT_EQ(lines[0], "SP --- GetExtendedMap Reply Message ---");
  EXPECT_EQ(lines[6], "SP result 0");
  EXPECT_EQ(lines[7], "SP lease 10000");
  EXPECT_EQ(CountOf(log.Text(), "SP VolumeOrdinal"), 1);
  EXPECT_EQ(lines.size(), 6u + 2 + 8 + 5);
}

TEST(SpSupDumpTest, SetSizeAndCloseReplies) {
  Buffer s(SP_SETSIZE_REPLY_SIZE);
  SetSizeReply* sr = s.As<SetSizeReply>();
  SetHeader(&sr->header, -4, SP_SETSIZE_REPLY_SIZE);
  sr->result = 400;
  Buffer c(SP_CLOSE_REPLY_SIZE);
  CloseReply* cr = c.As<CloseReply>();
  SetHeader(&cr->header, -5, SP_CLOSE_REPLY_SIZE);
  cr->result = -380;

  LogCapture log;
  SPSUP_DumpMessage(&sr->header, SP_SETSIZE_REPLY_SIZE);
  EXPECT_EQ(log.Lines(),
            Dump("--- SetSize Reply Message ---", -4, 72, {"result 400", "lease 0"}));
  log.Clear();
  SPSUP_DumpMessage(&cr->header, SP_CLOSE_REPLY_SIZE);
  EXPECT_EQ(log.Lines(), Dump("--- Close Reply Message ---", -5, 88, {"result -380"}));
}

TEST(SpSupDumpTest, DumpMessagePrintsNothingForOtherCodes) {
  Buffer b(SP_SENDSTRINGCMD_REPLY_SIZE);
  LanHeader* h = b.As<LanHeader>();
  LogCapture log;
  for (int code : {7, 0, -7, 6, -6, 99}) {
    SetHeader(h, code, SP_SENDSTRINGCMD_REPLY_SIZE);
    SPSUP_DumpMessage(h, SP_SENDSTRINGCMD_REPLY_SIZE);
  }
  SPSUP_DumpMessage(nullptr, 0);
  EXPECT_EQ(log.Text(), "");
}

// ---- reply lengths ----

TEST(SpSupLengthTest, GetVolumeFromDisksOrText) {
  Buffer b(65536);
  GetVolumeReply* r = b.As<GetVolumeReply>();
  using kestrix::GetVolumeReplyLength;
  r->volInfo.nDisks = 2;
  EXPECT_EQ(GetVolumeReplyLength(r, 65536), 352u);
  r->volInfo.nDisks = 3;
  EXPECT_EQ(GetVolumeReplyLength(r, 65536), 432u);
  // 192 + 80 * 0xFFFFFFFF wraps to 112 in 32 bits.
  r->volInfo.nDisks = 0xFFFFFFFF;
  EXPECT_EQ(GetVolumeReplyLength(r, 65536), 65536u);
  r->volInfo.nDisks = 0;
  EXPECT_EQ(GetVolumeReplyLength(r, 65536), 274u);
  EXPECT_EQ(GetVolumeReplyLength(r, SP_GETVOLUME_REPLY_SIZE), 272u);
  PutText(b.As<FSUNI>(SP_GETVOLUME_TEXT_OFFSET), u"0123456789");
  EXPECT_EQ(GetVolumeReplyLength(r, 65536), 294u);
}

TEST(SpSupLengthTest, TextIsCountedOnlyInsideTheBuffer) {
  // No terminator anywhere in a 272-byte buffer: 40 units fit after 192.
  Buffer b(SP_GETVOLUME_REPLY_SIZE);
  for (int i = 0; i < 40; ++i) b.As<FSUNI>(192)[i] = 'z';
  EXPECT_EQ(kestrix::GetVolumeReplyLength(b.As<GetVolumeReply>(), SP_GETVOLUME_REPLY_SIZE), 272u);

  Buffer e(SP_GETEXTENDEDMAP_REPLY_SIZE);
  for (int i = 0; i < 16; ++i) e.As<FSUNI>(152)[i] = 'z';
  const GetExtendedMapReply* r = e.As<GetExtendedMapReply>();
  EXPECT_EQ(kestrix::GetExtendedMapReplyWantedLength(r, SP_GETEXTENDEDMAP_REPLY_SIZE),
            160 + 2 * 17);
  EXPECT_EQ(kestrix::GetExtendedMapReplyLength(r, SP_GETEXTENDEDMAP_REPLY_SIZE), 184u);
}

TEST(SpSupLengthTest, MapRepliesAddMsgLenAndText) {
  Buffer b(65536);
  GetExtendedMapReply* e = b.As<GetExtendedMapReply>();
  e->map.msgLen = 64;
  EXPECT_EQ(kestrix::GetExtendedMapReplyLength(e, 65536), 226u);
  e->map.msgLen = 0;
  EXPECT_EQ(kestrix::GetExtendedMapReplyLength(e, 65536), 162u);
  // A map too large for the buffer: reported in full, capped in the length.
  e->map.msgLen = 70000;
  EXPECT_EQ(kestrix::GetExtendedMapReplyWantedLength(e, 65536), 70162);
  EXPECT_EQ(kestrix::GetExtendedMapReplyLength(e, 65536), 65536u);
  // A negative msgLen never cuts into the fixed part.
  e->map.msgLen = -100000;
  EXPECT_EQ(kestrix::GetExtendedMapReplyLength(e, 65536), sizeof(GetExtendedMapReply));

  Buffer i(65536);
  GetInitialMapReply* r = i.As<GetInitialMapReply>();
  r->map.msgLen = 96;
  PutText(i.As<FSUNI>(224), u"abc");
  EXPECT_EQ(kestrix::GetInitialMapReplyLength(r, 65536), 160u + 96 + 8);
  r->map.msgLen = 0x7fffffff;
  EXPECT_EQ(kestrix::GetInitialMapReplyLength(r, 65536), 65536u);
}

}  // namespace
