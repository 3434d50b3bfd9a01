// kestrix-cli against a small responder on loopback that plays the daemon
// for a volume of two disk images: a file across both disks and a hole is
// read and written in place, and forged replies (from another port, with
// another message ID or function code, extents outside their disk, a huge
// BlockOffset, a disk larger than its image, a short or twice-found disk
// ID) are refused with not a byte of either image changed.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "e2e/e2e_util.h"
#include "fsmdc.h"
#include "fsvalidity.h"
#include "spmsgs.h"

namespace kestrix::test {
namespace {

using client::Write;

constexpr int64_t kBlock = 4096, kDiskBytes = 64 * kBlock, kSize = 5 * kBlock + 100;

struct Volume {
  int64_t blockOffset = 1, nBlocks = 60;
  uint32_t idLength = 16;
  // The file: disk 0 at its block 2, a hole, then disk 1 at its block 1.
  std::vector<VerboseExtent> extents = {
      {.LogicalByteAddr = 0, .PhysicalByteAddr = 2 * kBlock, .nBytes = 2 * kBlock,
       .VolumeOrdinal = 0, .validity = FS_VALIDITY_DATA},
      {.LogicalByteAddr = 2 * kBlock, .PhysicalByteAddr = 0, .nBytes = kBlock,
       .VolumeOrdinal = 0, .validity = FS_VALIDITY_HOLE},
      {.LogicalByteAddr = 3 * kBlock, .PhysicalByteAddr = kBlock, .nBytes = kSize - 3 * kBlock,
       .VolumeOrdinal = 1, .validity = FS_VALIDITY_DATA}};
  bool otherPort = false, decoys = false;  // replies from another port; wrong ID and code first
};

// Answers every request of one kestrix-cli run from the volume above.
class Responder {
 public:
  explicit Responder(Volume v)
      : v_(std::move(v)), fd_(Bound()), other_(Bound()), thread_([this] { Run(); }) {}
  ~Responder() {
    stop_ = true;
    thread_.join();
    close(fd_);
    close(other_);
  }
  uint16_t port() const { return Port(fd_); }

 private:
  static int Bound() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    return fd;
  }
  static uint16_t Port(int fd) {
    sockaddr_in a{};
    socklen_t n = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
    return ntohs(a.sin_port);
  }
  Bytes Map(Bytes reply, size_t at, int64_t start, int64_t length) {
    const int64_t end = length < 0 ? kSize : std::min(kSize, start + length);
    std::vector<VerboseExtent> in;
    for (VerboseExtent e : v_.extents) {
      const int64_t from = std::max(e.LogicalByteAddr, start);
      const int64_t to = std::min(e.LogicalByteAddr + e.nBytes, end);
      if (to <= from) continue;
      e.PhysicalByteAddr += from - e.LogicalByteAddr;
      e.LogicalByteAddr = from;
      e.nBytes = to - from;
      in.push_back(e);
    }
    const FSMapInfo m{.fileSize = kSize, .allocation = kSize, .msgLen = 64, .vendorStatus = 0,
                      .nExtents = static_cast<FSLONG>(in.size()),
                      .extentType = FS_EXTENT_VERBOSE, .fileOffset = start,
                      .fileBytes = std::max<int64_t>(end - start, 0), .reserved = {}};
    reply.resize(at + 64 + 32 * in.size());
    std::memcpy(reply.data() + at, &m, sizeof m);
    std::memcpy(reply.data() + at + 64, in.data(), 32 * in.size());
    return reply;
  }
  Bytes Answer(const Bytes& q) {
    const int32_t code = client::HeaderOf(q)->functionCode;
    Bytes r(q.begin(), q.begin() + 48);
    r.resize(88, 0);
    Write<int32_t>(r, 24, -code);
    Write<uint32_t>(r, 52, 60000);  // lease
    if (code == SP_FUNC_GETVOLUME) {
      r.resize(SP_GETVOLUME_TEXT_OFFSET + 2 * FSDISK_SIZE, 0);
      const VolInfo vi{.msgLen = VOLINFO_FIXED_SIZE + 2 * FSDISK_SIZE, .vendorStatus = 0,
                       .FStype = 1, .GlomType = 0, .GlomInfo = 0, .nDisks = 2,
                       .BlockSize = kBlock, .reserved = {}, .Cookie = {}, .fsSystem = {}};
      std::memcpy(r.data() + SP_GETVOLUME_VOLINFO_OFFSET, &vi, sizeof vi);
      for (int i = 0; i < 2; ++i) {
        FSDisk d{.DiskID = {}, .IDoffset = 0, .BlockOffset = v_.blockOffset,
                 .nBlocks = v_.nBlocks, .IDlength = v_.idLength, .reserved1 = 0, .reserved2 = {}};
        std::memcpy(d.DiskID, i ? "second-disk-0001" : "first-disk-00001", 16);
        std::memcpy(r.data() + SP_GETVOLUME_TEXT_OFFSET + i * FSDISK_SIZE, &d, sizeof d);
      }
    } else if (code == SP_FUNC_GETINITIALMAP) {
      r = Map(r, SP_GETINITIALMAP_MAP_OFFSET, 0, -1);
      Write<uint32_t>(r, 56, 7);  // key
    } else if (code == SP_FUNC_GETEXTENDEDMAP) {
      if (client::Read<int64_t>(q, 56) > 0) {  // an allocation fills the hole
        v_.extents[1].PhysicalByteAddr = 4 * kBlock;
        v_.extents[1].validity = FS_VALIDITY_DATA;
      }
      r = Map(r, SP_GETEXTENDEDMAP_MAP_OFFSET, client::Read<int64_t>(q, 64),
              client::Read<int64_t>(q, 72));
    }
    Write<uint32_t>(r, 28, static_cast<uint32_t>(r.size()));
    return r;
  }
  void Run() {
    for (pollfd p{fd_, POLLIN, 0}; !stop_;) {
      if (poll(&p, 1, 50) <= 0) continue;
      Bytes q(65536);
      sockaddr_in from{};
      socklen_t n = sizeof from;
      q.resize(std::max<ssize_t>(
          recvfrom(fd_, q.data(), q.size(), 0, reinterpret_cast<sockaddr*>(&from), &n), 0));
      if (q.size() < 48) continue;
      const Bytes good = Answer(q);
      auto send = [&](const Bytes& r) {
        sendto(v_.otherPort ? other_ : fd_, r.data(), r.size(), 0,
               reinterpret_cast<sockaddr*>(&from), n);
      };
      if (v_.decoys) {  // each pointing at the start of disk 0, its identifier
        Bytes decoy = good;
        if (decoy.size() > 160 + 64 + 8) Write<int64_t>(decoy, decoy.size() - 24, -kBlock);
        decoy[8] ^= 1;
        send(decoy);
        decoy[8] ^= 1;
        Write<int32_t>(decoy, 24, -SP_FUNC_SETSIZE);
        send(decoy);
      }
      send(good);
    }
  }

  Volume v_;
  int fd_, other_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST(ForgedRepliesE2E, OnlyRepliesThatFitTheirDisksMoveData) {
  TempDir dir;
  const std::string disks[] = {dir.File("d0"), dir.File("d1"), dir.File("clone")};
  const std::string ids[] = {"first-disk-00001", "second-disk-0001", "first-disk-00001"};
  for (int i = 0; i < 3; ++i)
    WriteFile(disks[i], ids[i] + std::string(kDiskBytes - 16, static_cast<char>('a' + i)));
  std::string data(kSize, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
  WriteFile(dir.File("in"), data);

  const struct {
    std::string name;
    std::function<void(Volume&)> forge;
    int status;
    std::string error;
    bool clone = false;
  } rows[] = {
      {.name = "across two disks and a hole", .forge = [](Volume&) {}, .status = 0, .error = ""},
      {.name = "decoy replies first", .forge = [](Volume& v) { v.decoys = true; },
       .status = 0, .error = ""},
      {.name = "replies from another port", .forge = [](Volume& v) { v.otherPort = true; },
       .status = 2, .error = "no reply"},
      {.name = "extent past its disk",
       .forge = [](Volume& v) { v.extents[0].PhysicalByteAddr = 59 * kBlock; },
       .status = 4, .error = "outside its disk"},
      {.name = "negative physical",
       .forge = [](Volume& v) { v.extents[0].PhysicalByteAddr = -kBlock; },
       .status = 4, .error = "outside its disk"},
      {.name = "huge BlockOffset", .forge = [](Volume& v) { v.blockOffset = INT64_MAX / 1024; },
       .status = 4, .error = "cannot exist"},
      {.name = "disk larger than its image",
       .forge = [](Volume& v) { v.nBlocks = int64_t{1} << 28; },
       .status = 4, .error = "past the end of the disk"},
      {.name = "one-byte disk ID", .forge = [](Volume& v) { v.idLength = 1; },
       .status = 4, .error = "to tell disks apart"},
      {.name = "disk ID on two devices", .forge = [](Volume&) {},
       .status = 4, .error = disks[0] + " " + disks[2], .clone = true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Volume v;
    row.forge(v);
    Responder responder(v);
    std::vector<std::string> on = {"--disk", disks[0], "--disk", disks[1], "-t", "300", "-r", "1",
                                   "--json", "-p", std::to_string(responder.port())};
    if (row.clone) on.insert(on.end(), {"--disk", disks[2]});
    const std::string before[] = {ReadFile(disks[0]), ReadFile(disks[1])};
    std::vector<std::string> args = {"write", "data", "f", "-i", dir.File("in")};
    args.insert(args.end(), on.begin(), on.end());
    RunResult w = RunToExit(KESTRIX_CLI, args, {});
    EXPECT_EQ(w.exitStatus, row.status) << w.standardError;
    if (row.status != 0) {
      EXPECT_NE(FlatJson(w.standardOutput)["/error"].find(row.error), std::string::npos)
          << w.standardOutput;
      EXPECT_TRUE(ReadFile(disks[0]) == before[0]) << "disk 0 changed";
      EXPECT_TRUE(ReadFile(disks[1]) == before[1]) << "disk 1 changed";
      continue;
    }
    // The bytes lie where the map put them (the hole allocated at disk 0's
    // block 5), and every other byte of both images is as it was.
    std::string want0 = before[0], want1 = before[1];
    want0.replace(3 * kBlock, 2 * kBlock, data.substr(0, 2 * kBlock));
    want0.replace(5 * kBlock, kBlock, data.substr(2 * kBlock, kBlock));
    want1.replace(2 * kBlock, kSize - 3 * kBlock, data.substr(3 * kBlock));
    EXPECT_EQ(ReadFile(disks[0]) == want0, true);
    EXPECT_EQ(ReadFile(disks[1]) == want1, true);
    std::vector<std::string> read = {"read", "data", "f", "-o", dir.File("out")};
    read.insert(read.end(), on.begin(), on.end());
    RunResult r = RunToExit(KESTRIX_CLI, read, {});
    EXPECT_EQ(r.exitStatus, 0) << r.standardError;
    EXPECT_EQ(ReadFile(dir.File("out")) == data, true);
  }
}

}  // namespace
}  // namespace kestrix::test
