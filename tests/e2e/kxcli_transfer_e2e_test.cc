// kestrix-cli read and write against kestrixd with localfs on real ext4 and
// XFS images: file bytes moved straight on the disk match what the
// filesystem holds, with maps too large for one reply; a local change of a
// file being written waits for the writer.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "e2e/e2e_util.h"
#include "plugins/localfs/localfs.h"
#include "support/loop_mount.h"

namespace kestrix::test {
namespace {

class KxCliTransferE2E : public ::testing::TestWithParam<FsKind> {
 protected:
  void SetUp() override {
    share_ = std::make_unique<LocalfsShare>(daemon_, GetParam());
    if (!share_->ok()) GTEST_SKIP() << share_->fs->skipReason();
    fs_ = share_->fs.get();
    exp_ = share_->exp;
    bs_ = share_->blockSize;
    daemon_.SetEnv("MAXDGRAM", "1024");  // room for 22 extents a reply
  }
  // Exit status, the JSON summary flattened, and what went to standard error.
  std::tuple<int, std::map<std::string, std::string>, std::string> Cli(std::vector<std::string> args) {
    args.insert(args.end(), {"--json", "-p", std::to_string(daemon_.port())});
    RunResult r = RunToExit(KESTRIX_CLI, args, {});
    return {r.exitStatus, FlatJson(r.standardOutput), r.standardError};
  }
  // Block b of each file written at block b * step, synced one by one: two
  // files written in turn get fragmented, a step of 2 leaves holes between.
  void Blocks(std::vector<std::string> names, int count, int step) {
    std::vector<int> fds;
    for (const std::string& n : names) fds.push_back(open((exp_ + "/" + n).c_str(), O_WRONLY | O_CREAT, 0644));
    for (int b = 0; b < count; ++b) {
      for (int fd : fds) {
        ASSERT_EQ(pwrite(fd, std::string(bs_, static_cast<char>('A' + b % 26)).data(), bs_, b * step * bs_), bs_);
        fsync(fd);
      }
    }
    for (int fd : fds) close(fd);
  }

  std::unique_ptr<LocalfsShare> share_;  // outlives the daemon, which holds its files
  LoopMount* fs_ = nullptr;
  std::string exp_;
  int64_t bs_ = 4096;
  DaemonProcess daemon_;
  TempDir out_;
};

TEST_P(KxCliTransferE2E, FilesReadAndWrittenOnTheDiskMatchTheFilesystem) {
  std::string text;
  for (int i = 0; text.size() < 10007; ++i) text += "line " + std::to_string(i) + "\n";
  WriteFile(exp_ + "/text", text.substr(0, 10007));
  WriteFile(exp_ + "/empty", "");
  Blocks({"fragmented", "filler"}, 12, 1);
  Blocks({"islands"}, 30, 2);  // 30 data blocks, each followed by a hole
  ASSERT_EQ(truncate((exp_ + "/islands").c_str(), 61 * bs_ - 5), 0);
  int fd = open((exp_ + "/prealloc").c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(fallocate(fd, 0, 0, 16 * bs_), 0);  // unwritten, then data in the middle
  ASSERT_EQ(pwrite(fd, "written", 7, 5 * bs_ + 3), 7);
  close(fd);
  ASSERT_TRUE(daemon_.Start({"-l", "4"})) << daemon_.Log();

  for (std::string name : {"text", "empty", "fragmented", "islands", "prealloc"}) {
    for (const char* order : {"", "--swapped"}) {
      std::vector<std::string> args = {"read", "data", name, "--disk", fs_->image(), "-o", out_.File(name)};
      if (*order) args.push_back(order);
      auto [status, json, err] = Cli(args);
      const std::string want = ReadFile(exp_ + "/" + name);
      ASSERT_EQ(status, 0) << name << " " << order << ": " << err;
      EXPECT_EQ(ReadFile(out_.File(name)) == want, true) << name << " " << order;
      EXPECT_EQ(json["/read"], std::to_string(want.size())) << name;
      if (name == "islands") { EXPECT_GT(std::stoi(json["/mapReplies"]), 1); }
    }
  }

  // Grow, shrink and empty files; the filesystem then holds the new bytes.
  std::mt19937 random(7);
  std::string grown(300000, '\0');
  for (char& c : grown) c = static_cast<char>(random());
  for (auto [name, data] : {std::pair<std::string, std::string>{"text", grown},
                            {"fragmented", grown.substr(0, 5000)}, {"islands", ""}}) {
    WriteFile(out_.File("in"), data);
    auto [status, json, err] = Cli({"write", "data", name, "-i", out_.File("in"), "--disk", fs_->device()});
    ASSERT_EQ(status, 0) << name << ": " << err;
    EXPECT_EQ(json["/written"], std::to_string(data.size()));
    EXPECT_EQ(ReadFile(exp_ + "/" + name) == data, true) << name;
  }

  // A range shared with another file (a reflink copy) is refused, and no
  // half-written output stays behind.
  int src = open((exp_ + "/text").c_str(), O_RDONLY);
  int dst = open((exp_ + "/shared").c_str(), O_WRONLY | O_CREAT, 0644);
  bool cloned = ioctl(dst, FICLONE, src) == 0;
  close(src), close(dst);
  if (cloned) {
    auto [status, json, err] = Cli({"read", "data", "shared", "--disk", fs_->image(), "-o", out_.File("s")});
    EXPECT_EQ(status, 4);
    EXPECT_NE(json["/error"].find("not addressable"), std::string::npos) << err;
    EXPECT_NE(access(out_.File("s").c_str(), F_OK), 0);
  }
  // A disk that is not the volume's is named in the error.
  auto [status, json, err] = Cli({"read", "data", "fragmented", "--disk", "/dev/null"});
  EXPECT_EQ(std::tuple(status, err.find("/dev/null") != std::string::npos), std::tuple(4, true)) << err;
}

// A local truncation of a file that a client is writing waits until the
// client closes it; meanwhile the client's renewals are refused.
TEST_P(KxCliTransferE2E, ALocalTruncationWaitsForTheWritersClose) {
  const std::string doc = exp_ + "/doc";
  WriteFile(doc, std::string(3 * bs_, 'd'));
  ASSERT_TRUE(daemon_.Start({"-l", "4"})) << daemon_.Log();
  client::Endpoint endpoint("127.0.0.1", daemon_.port());
  uint64_t id = 0;
  auto result = [&](client::Bytes request) {
    client::Write(request, 8, ++id);
    return client::Read<int32_t>(endpoint.Transact(request).value_or(client::Bytes(64, 0)), 48);
  };
  client::Bytes open = client::MakeGetInitialMapRequest("data", "doc", {.intention = 2});
  client::Write(open, 8, ++id);
  auto writer = client::ParseMapReply(endpoint.Transact(open).value_or(client::Bytes()));
  ASSERT_TRUE(writer && writer->result == 0);
  std::atomic<int> truncated{1};
  std::thread local([&] { truncated = truncate(doc.c_str(), 0); });
  EXPECT_TRUE(PollUntil([&] { return result(client::MakeGetExtendedMapRequest(writer->key, 0, 0)) == LOCALFS_WITHDRAWN; }, 5000));
  EXPECT_EQ(result(client::MakeSetSizeRequest(writer->key, bs_)), LOCALFS_WITHDRAWN);
  EXPECT_EQ(truncated, 1);
  EXPECT_EQ(result(client::MakeCloseRequest(writer->key)), 0);
  local.join();
  EXPECT_EQ(std::tuple(truncated.load(), ReadFile(doc)), std::tuple(0, std::string()));
}

INSTANTIATE_TEST_SUITE_P(Filesystems, KxCliTransferE2E, ::testing::Values(FsKind::kExt4, FsKind::kXfs),
                         [](const auto& info) { return std::string(FsName(info.param)); });

}  // namespace
}  // namespace kestrix::test
