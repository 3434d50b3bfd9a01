// The transfer engine against kestrixd with localfs on real ext4 and XFS
// images: ranges at unaligned places across extents, holes and the end of
// the file; kestrix-cli writes from pipes larger than its memory, a file
// that is missing, a daemon restarted mid-write, and a lease kept across
// the time its purge would have come.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "client/kxfile.h"
#include "e2e/e2e_util.h"
#include "support/loop_mount.h"

namespace kestrix::test {
namespace {

// Writes all of data to fd; false when the reader went away.
bool Feed(int fd, const std::string& data) {
  for (size_t done = 0; done < data.size();) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

class RemoteFileE2E : public ::testing::TestWithParam<FsKind> {
 protected:
  void SetUp() override { Mount(GetParam(), 640, ""); }
  void Mount(FsKind kind, int mib, const std::string& conf) {
    share_ = std::make_unique<LocalfsShare>(daemon_, kind, mib, conf);
    if (!share_->ok()) GTEST_SKIP() << share_->fs->skipReason();
    fs_ = share_->fs.get();
    exp_ = share_->exp;
    bs_ = share_->blockSize;
    daemon_.SetEnv("MAXDGRAM", "1024");  // room for 22 extents a reply
    ASSERT_TRUE(daemon_.Start({"-l", "4"})) << daemon_.Log();
  }
  client::FileOptions Options(bool write) {
    client::FileOptions o;
    o.daemon.port = daemon_.port();
    o.disks = {fs_->device()};
    o.write = write;
    return o;
  }
  std::vector<std::string> Cli(std::vector<std::string> args) {
    args.insert(args.end(),
                {"--json", "-p", std::to_string(daemon_.port()), "--disk", fs_->device()});
    return args;
  }

  std::unique_ptr<LocalfsShare> share_;  // outlives the daemon, which holds its files
  LoopMount* fs_ = nullptr;
  std::string exp_;
  int64_t bs_ = 4096;
  DaemonProcess daemon_;
};

TEST_P(RemoteFileE2E, RangesMoveInPlaceAcrossExtentsHolesAndTheEnd) {
  // Blocks of "sparse" alternate with those of "filler" on the disk, and
  // every third block of "sparse" is a hole: more extents than one reply holds.
  int sparse = open((exp_ + "/sparse").c_str(), O_WRONLY | O_CREAT, 0644);
  int filler = open((exp_ + "/filler").c_str(), O_WRONLY | O_CREAT, 0644);
  for (int b = 0; b < 90; ++b) {
    const std::string block = Random(bs_, b);
    if (b % 3 != 2) {
      ASSERT_EQ(pwrite(sparse, block.data(), bs_, b * bs_), bs_);
    }
    ASSERT_EQ(pwrite(filler, block.data(), bs_, b * bs_), bs_);
    fsync(sparse), fsync(filler);
  }
  ASSERT_EQ(ftruncate(sparse, 90 * bs_ - 1000), 0);
  close(sparse), close(filler);
  std::string model = ReadFile(exp_ + "/sparse");

  // Read in odd pieces into unaligned buffers, the last one asked for past the end.
  auto readWhole = [&] {
    std::string error, whole;
    std::unique_ptr<client::RemoteFile> file =
        client::RemoteFile::Open("data", "sparse", Options(false), &error);
    EXPECT_TRUE(file) << error;
    for (size_t at = 0, piece = 12345; file && at < model.size(); at += piece) {
      std::string buf(piece + 1, '\0');
      ssize_t n = file->Read(static_cast<int64_t>(at), buf.data() + 1, piece);
      EXPECT_EQ(n, static_cast<ssize_t>(std::min(piece, model.size() - at))) << file->error();
      whole += buf.substr(1, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    EXPECT_EQ(whole == model, true);
    return file ? file->stats() : client::FileStats{};
  };
  client::FileStats s = readWhole();
  EXPECT_GT(s.mapReplies, 1);
  EXPECT_EQ(s.zeroBytes, 30 * bs_ - 1000);

  std::string error;
  std::unique_ptr<client::RemoteFile> file =
      client::RemoteFile::Open("data", "sparse", Options(true), &error);
  ASSERT_TRUE(file) << error;
  const struct {
    int64_t offset, length;
  } rows[] = {
      {0, 1},                       // the first byte
      {bs_ - 3, 7},                 // across a block boundary
      {2 * bs_ + 100, 5 * bs_},     // from inside a hole over data and holes
      {10 * bs_ - 1, 40 * bs_ + 2},  // many extents, unaligned at both ends
      {90 * bs_ - 1005, 12},         // over the end of the file
      {93 * bs_ + 7, 100},           // past the end, leaving a gap of zeros
  };
  unsigned seed = 100;
  for (const auto& row : rows) {
    const std::string data = Random(static_cast<size_t>(row.length), ++seed);
    ASSERT_EQ(file->Write(row.offset, data.data(), data.size()), row.length) << file->error();
    if (model.size() < static_cast<size_t>(row.offset + row.length))
      model.resize(row.offset + row.length, '\0');
    model.replace(row.offset, row.length, data);
    std::string back(row.length + 1, '\0');  // read into an unaligned buffer
    ASSERT_EQ(file->Read(row.offset, back.data() + 1, row.length), row.length) << file->error();
    EXPECT_EQ(back.substr(1) == data, true) << "offset " << row.offset;
  }
  EXPECT_EQ(file->Size(), static_cast<int64_t>(model.size()));
  ASSERT_EQ(file->Close(), 0) << file->error();
  EXPECT_EQ(ReadFile(exp_ + "/sparse") == model, true);

  readWhole();
  file = client::RemoteFile::Open("data", "sparse", Options(false), &error);
  ASSERT_TRUE(file) << error;
  EXPECT_EQ(file->Write(0, "x", 1), -EBADF);
}

// Input that only a pipe gives (no size known), larger than kestrix-cli's
// buffers; a file missing on the share; a daemon restarted mid-write.
TEST_P(RemoteFileE2E, PipedWritesLandWholeOrFailBeforeReading) {
  const struct {
    std::string name, names, disk;  // --names DIR, or none; --disk, or the image's device
    size_t bytes;
    bool restart;
    int status;
    std::string error;
  } rows[] = {
      {"missing", "", "", 4096, false, 3, "first created through the share"},
      {"created", exp_, "", 3 << 20, false, 0, ""},
      {"created", exp_, "/dev/null", 4096, false, 4, "no disk holds"},
      {"large", exp_, "", 96 << 20, false, 0, ""},
      {"restarted", exp_, "", 40 << 20, true, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    int in[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC), 0);
    const std::string data = Random(row.bytes, static_cast<unsigned>(row.bytes));
    std::vector<std::string> args = Cli({"write", "data", row.name});
    if (!row.disk.empty()) args.back() = row.disk;
    if (!row.names.empty()) args.insert(args.end(), {"--names", row.names});
    const std::string before = ReadFile(exp_ + "/" + row.name);
    ASSERT_EQ(write(in[1], data.data(), 4096), 4096);  // waits in the pipe until read
    ChildProcess cli(KESTRIX_CLI, args, {}, in[0]);
    if (row.status != 0) {
      RunResult r = cli.Wait(10000);
      EXPECT_EQ(r.exitStatus, row.status);
      EXPECT_NE(FlatJson(r.standardOutput)["/error"].find(row.error), std::string::npos)
          << r.standardOutput;
      char left[4096];
      EXPECT_EQ(read(in[0], left, sizeof left), 4096);  // the input was not touched, nor the file
      EXPECT_EQ(ReadFile(exp_ + "/" + row.name) == before, true);
      close(in[0]), close(in[1]);
      continue;
    }
    std::thread feeder([&] {
      const size_t half = data.size() / 2;
      Feed(in[1], data.substr(4096, half - 4096));
      if (row.restart) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        daemon_.Stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        EXPECT_TRUE(daemon_.Start({"-l", "4"}));
      }
      Feed(in[1], data.substr(half));
      close(in[1]);
    });
    RunResult r = cli.Wait();
    feeder.join();
    close(in[0]);
    auto json = FlatJson(r.standardOutput);
    ASSERT_EQ(r.exitStatus, 0) << r.standardError;
    EXPECT_EQ(json["/written"], std::to_string(data.size()));
    EXPECT_EQ(ReadFile(exp_ + "/" + row.name) == data, true);
    if (row.restart) {
      EXPECT_GE(std::stoi(json["/reopens"]), 1);
    }
    if (row.bytes > (64 << 20)) {  // and read back whole through kestrix-cli
      TempDir out;
      RunResult back =
          RunToExit(KESTRIX_CLI, Cli({"read", "data", row.name, "-o", out.File("f")}), {});
      EXPECT_EQ(back.exitStatus, 0) << back.standardError;
      EXPECT_EQ(ReadFile(out.File("f")) == data, true);
    }
  }
}

// A daemon that falls silent (a dead host, here a frozen process: no
// refusal comes back) stops the writes once a renewal is overdue, although
// the write lease granted runs for an hour, and they fail once giveUpMs has
// passed without an answer, with nothing written.
TEST_P(RemoteFileE2E, ASilentDaemonEndsTransfersAfterTheGiveUpTime) {
  const std::string old(1 << 20, 'x');
  WriteFile(exp_ + "/f", old);
  sync();
  client::FileOptions o = Options(true);
  o.giveUpMs = 1000;
  o.daemon.timeoutMs = 1500;  // a renewal is given up after 3 s, later than it is overdue
  o.daemon.retries = 1;
  std::string error;
  std::unique_ptr<client::RemoteFile> file = client::RemoteFile::Open("data", "f", o, &error);
  ASSERT_TRUE(file) << error;
  kill(daemon_.pid(), SIGSTOP);
  // Past the next renewal (2 s after the open) and the 1 s it may take.
  std::this_thread::sleep_for(std::chrono::milliseconds(3500));
  EXPECT_EQ(file->Write(0, "y", 1), -EIO);
  kill(daemon_.pid(), SIGCONT);
  EXPECT_NE(file->error().find("gave up after 1000 ms"), std::string::npos) << file->error();
  file.reset();  // its lease ended, so that the local open below need not wait for it
  int fd = open((exp_ + "/f").c_str(), O_RDONLY);
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);  // the disk's bytes, not cached ones
  close(fd);
  EXPECT_EQ(ReadFile(exp_ + "/f") == old, true);
}

INSTANTIATE_TEST_SUITE_P(Filesystems, RemoteFileE2E, ::testing::Values(FsKind::kExt4, FsKind::kXfs),
                         [](const auto& info) { return std::string(FsName(info.param)); });

// A reader stalled by its consumer past the time a one-second lease would
// be purged keeps that lease: it reads on without having to open the file
// again, and the daemon purged nothing. One slow test (about 40 s).
class LeaseKeptE2E : public RemoteFileE2E {
 protected:
  void SetUp() override { Mount(FsKind::kExt4, 128, "max-read-lease 1\n"); }
};

TEST_F(LeaseKeptE2E, AStalledReadKeepsItsLeaseAcrossThePurge) {
  const std::string data = Random(48 << 20, 3);
  WriteFile(exp_ + "/slow", data);
  sync();
  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  ChildProcess cli(KESTRIX_CLI, Cli({"read", "data", "slow"}), {}, -1, out[1]);
  close(out[1]);
  std::string got;
  char buf[65536];
  for (ssize_t n; got.size() < (1 << 20) && (n = read(out[0], buf, sizeof buf)) > 0;)
    got.append(buf, n);
  std::this_thread::sleep_for(std::chrono::seconds(37));  // lease 1 s + 30 s grace + a purge period
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) got.append(buf, n);
  close(out[0]);
  RunResult r = cli.Wait();
  auto json = FlatJson(r.standardError);
  EXPECT_EQ(r.exitStatus, 0) << r.standardError;
  EXPECT_EQ(got == data, true);
  EXPECT_EQ(json["/reopens"], "0") << r.standardError;
  EXPECT_GT(std::stoi("0" + json["/renewals"]), 30) << r.standardError;
}

}  // namespace
}  // namespace kestrix::test
