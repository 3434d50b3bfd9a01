// GetVolume end to end: the real daemon with testfs plug-ins and an
// smb.conf of the test's own, asked over UDP.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::Read;

class GetVolumeE2E : public MapE2E {
 protected:
  // The result and the length of the reply to a request by path or cookie.
  std::pair<int, size_t> Get(const std::string& path, const std::string& cookie = "") {
    const Bytes reply = Ask(client::MakeGetVolumeRequest(path, CookieBytes(cookie).data()));
    return {Read<int32_t>(reply, 48), reply.size()};
  }
};

// The fields of a GetVolume reply the tests look at; the disk table starts
// at byte 192, 80 bytes a disk.
struct VolumeReply {
  int32_t result;
  size_t size;
  uint32_t headerLength;
  int32_t revision;
  uint32_t nDisks;
  uint8_t firstDiskIdByte;
  int64_t secondDiskBlocks;
  bool operator==(const VolumeReply&) const = default;
  friend std::ostream& operator<<(std::ostream& os, const VolumeReply& r) {
    return os << "result " << r.result << ", size " << r.size << ", length " << r.headerLength
              << ", revision " << r.revision << ", disks " << r.nDisks << ", first ID byte "
              << int{r.firstDiskIdByte} << ", second disk's blocks " << r.secondDiskBlocks;
  }
};

TEST_F(GetVolumeE2E, ServedByTheFirstLibraryThatAcceptsThenKnownByItsCookie) {
  for (const char* name : {"liba.so", "libb.so"}) Install("libtestfs.so", name, "");
  Start();
  const TestFs first = Fs(LoadOrder().at(0)), second = Fs(LoadOrder().at(1));
  first.Configure("version 228\nmiss FS_GetVolCookie 17\n");
  second.Configure("version 229\nvolume /export/data vol-b\nvol.nDisks 2\n");

  // Sent in the other byte order, the path with backslashes.
  Bytes request = client::MakeGetVolumeRequest("\\export\\data");
  client::SwapHeader(request);
  for (size_t i = 180; i < request.size(); i += 2) std::swap(request[i], request[i + 1]);
  const Bytes reply = Ask(request);
  const VolumeReply got = {.result = Read<int32_t>(reply, 48),
                           .size = reply.size(),
                           .headerLength = Read<uint32_t>(reply, 28),
                           .revision = Read<int32_t>(reply, 4),
                           .nDisks = Read<uint32_t>(reply, 88 + 20),
                           .firstDiskIdByte = reply[192],
                           .secondDiskBlocks = Read<int64_t>(reply, 192 + 80 + 32)};
  const VolumeReply want = {.result = 0,
                            .size = 352,
                            .headerLength = 352,
                            .revision = 229,  // the library's version
                            .nDisks = 2,
                            .firstDiskIdByte = 0x10,
                            .secondDiskBlocks = 200000};
  EXPECT_EQ(got, want);
  EXPECT_EQ(first.Calls("FS_GetVolCookie").at(0).Get("mount"), "/export/data");
  EXPECT_EQ(second.Calls("FS_GetVolByCookie").at(0).Get("vol"), "vol-b");
  EXPECT_EQ(second.Calls("FS_GetVolByCookie").at(0).Int("room"), 65536 - 272);
  EXPECT_EQ(
      CountOf(daemon_.Log(), "Error SP_LanGetVolume: FS_GetVolCookie call to lib[0] returned 17\n"),
      1);

  // Known by its cookie now: an empty path needs no share lookup and no FS_GetVolCookie.
  const int parses = CountOf(daemon_.Log(), "parseSmbConfFile: Opening");
  EXPECT_EQ(Get("", "vol-b"), std::pair(0, size_t{352}));
  EXPECT_EQ(first.CountCalls("FS_GetVolCookie") + second.CountCalls("FS_GetVolCookie"), 2);
  EXPECT_EQ(CountOf(daemon_.Log(), "parseSmbConfFile: Opening"), parses);
}

TEST_F(GetVolumeE2E, AnUnknownShareCookieOrVolumeIsRefused) {
  // The cookie the library leaves when it refuses names a known volume: still 405.
  Install("libtestfs.so", "liba.so",
          "volume /export/data vol-a\nmiss FS_GetVolCookie 2\nmisscookie vol-a\n");
  Start();
  for (auto [path, cookie, result] : {std::tuple{"data", "", 0},
                                      {"nosuch", "", 3},
                                      {"", "never-claimed", 405},
                                      {"/export/elsewhere", "", 405}})
    EXPECT_EQ(Get(path, cookie), std::pair(result, size_t{272})) << path << cookie;
  EXPECT_EQ(Fs("liba.so").CountCalls("FS_GetVolByCookie"), 1);
  EXPECT_TRUE(
      daemon_.WaitForLog("Error FTX1201W OSL_ShareNameToMountPoint failed name is : nosuch\n"));
}

// 1023 lone high surrogates cost one line, not one per unit.
TEST_F(GetVolumeE2E, ANameOfBrokenSurrogatesIsLoggedOnce) {
  Install("libtestfs.so", "liba.so", "volume /export/data vol-a\n");
  Start();
  Bytes broken = client::MakeGetVolumeRequest("");
  for (size_t i = 0; i < 1023; ++i) client::Write<uint16_t>(broken, 180 + 2 * i, 0xD800);
  EXPECT_EQ(Read<int32_t>(Ask(broken), 48), 3);
  EXPECT_EQ(CountOf(daemon_.Log(),
                    "Error utf16array_to_utf8asciz: 1022 invalid surrogates in one text, "
                    "the first d800 , d800 \n"),
            1);
  EXPECT_EQ(CountOf(daemon_.Log(), "utf16array_to_utf8asciz"), 2);
}

TEST_F(GetVolumeE2E, TheLibrarysErrorTextIsPassedOn) {
  Install("libtestfs.so", "liba.so",
          "volume /export/data vol-a\nvol.vendorStatus 7\nvol.nDisks 0\nvol.error 0123456789\n"
          "result FS_GetVolByCookie 7\n");
  Start();
  const Bytes text = Ask(client::MakeGetVolumeRequest("data"));
  EXPECT_EQ(std::tuple(Read<int32_t>(text, 48), text.size(), Read<uint16_t>(text, 192)),
            std::tuple(7, 294u, uint16_t{u'0'}));  // 272 + 2 x (10 + 1)
}

TEST_F(GetVolumeE2E, MaxDgramBoundsTheRoom) {
  // Set to the default it is the same as unset: the full room, no Error line.
  const struct { const char* maxdgram; size_t reply; int room; const char* line; } rows[] = {
      {nullptr, 65507, 65536 - 272, ""},  // more disks claimed than fit: cut to one datagram
      {"65536", 65507, 65536 - 272, ""},
      {"100", 1024, 1024 - 272, "Error MAXDGRAM 100 is outside 1024 to 65536; using 1024\n"},
  };
  Install("libtestfs.so", "liba.so", "volume /export/data vol-a\nvol.nDisks 4294967295\n");
  for (const auto& r : rows) {
    if (r.maxdgram != nullptr) daemon_.SetEnv("MAXDGRAM", r.maxdgram);
    Restart();
    const std::string log = daemon_.Log();
    const int lines = *r.line != 0 ? 1 : 0;
    EXPECT_EQ(Get("data"), std::pair(0, r.reply)) << (r.maxdgram ? r.maxdgram : "unset");
    EXPECT_EQ(Fs("liba.so").Calls("FS_GetVolByCookie").back().Int("room"), r.room);
    EXPECT_EQ(std::pair(CountOf(log, "MAXDGRAM"), CountOf(log, r.line)), std::pair(lines, lines))
        << log;
  }
}

}  // namespace
}  // namespace kestrix::test
