// kestrix-cli read and write against kestrixd with localfs on real ext4 and
// XFS images: file bytes moved straight on the disk match what the
// filesystem holds, in either byte order. Fragmented files, holes and maps
// too large for one reply are moved by the same engine in
// remote_file_e2e_test.cc.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>


#include "e2e/e2e_util.h"
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
  }
  // Exit status, the JSON summary flattened, and what went to standard error.
  using Json = std::map<std::string, std::string>;
  std::tuple<int, Json, std::string> Cli(std::vector<std::string> args) {
    args.insert(args.end(), {"--json", "-p", std::to_string(daemon_.port())});
    RunResult r = RunToExit(KESTRIX_CLI, args, {});
    return {r.exitStatus, FlatJson(r.standardOutput), r.standardError};
  }

  std::unique_ptr<LocalfsShare> share_;  // outlives the daemon, which holds its files
  LoopMount* fs_ = nullptr;
  std::string exp_;
  int64_t bs_ = 4096;
  DaemonProcess daemon_;
  TempDir out_;
};

TEST_P(KxCliTransferE2E, FilesReadAndWrittenOnTheDiskMatchTheFilesystem) {
  WriteFile(exp_ + "/text", Random(10007, 5));  // ends inside a block
  WriteFile(exp_ + "/empty", "");
  int fd = open((exp_ + "/prealloc").c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(fallocate(fd, 0, 0, 16 * bs_), 0);  // unwritten, then data in the middle
  ASSERT_EQ(pwrite(fd, "written", 7, 5 * bs_ + 3), 7);
  close(fd);
  ASSERT_TRUE(daemon_.Start({"-l", "4"})) << daemon_.Log();

  for (std::string name : {"text", "empty", "prealloc"}) {
    for (const char* order : {"", "--swapped"}) {
      std::vector<std::string> args = {"read", "data", name, "--disk", fs_->image(),
                                       "-o", out_.File(name)};
      if (*order) args.push_back(order);
      auto [status, json, err] = Cli(args);
      const std::string want = ReadFile(exp_ + "/" + name);
      ASSERT_EQ(status, 0) << name << " " << order << ": " << err;
      EXPECT_EQ(ReadFile(out_.File(name)) == want, true) << name << " " << order;
      EXPECT_EQ(json["/read"], std::to_string(want.size())) << name;
    }
  }

  // Grow, shrink and empty files; the filesystem then holds the new bytes.
  const std::string grown = Random(300000, 7);
  for (auto [name, data] : {std::pair<std::string, std::string>{"text", grown},
                            {"prealloc", grown.substr(0, 5000)}, {"prealloc", ""}}) {
    WriteFile(out_.File("in"), data);
    auto [status, json, err] =
        Cli({"write", "data", name, "-i", out_.File("in"), "--disk", fs_->device()});
    ASSERT_EQ(status, 0) << name << ": " << err;
    EXPECT_EQ(json["/written"], std::to_string(data.size()));
    EXPECT_EQ(ReadFile(exp_ + "/" + name) == data, true) << name;
  }

  // A range shared with another file (a reflink copy) is refused, and no
  // half-written output stays behind.
  int src = open((exp_ + "/text").c_str(), O_RDONLY);
  int dst = open((exp_ + "/shared").c_str(), O_WRONLY | O_CREAT, 0644);
  bool cloned = ioctl(dst, FICLONE, src) == 0;
  close(src);
  close(dst);
  if (cloned) {
    auto [status, json, err] =
        Cli({"read", "data", "shared", "--disk", fs_->image(), "-o", out_.File("s")});
    EXPECT_EQ(status, 4);
    EXPECT_NE(json["/error"].find("not addressable"), std::string::npos) << err;
    EXPECT_NE(access(out_.File("s").c_str(), F_OK), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Filesystems, KxCliTransferE2E,
                         ::testing::Values(FsKind::kExt4, FsKind::kXfs),
                         [](const auto& info) { return std::string(FsName(info.param)); });

}  // namespace
}  // namespace kestrix::test
