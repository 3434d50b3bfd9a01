// kestrix-mount on real ext4 and XFS images, used as programs use a file
// system: what they write reads back through the mount and through the
// server's own file system after close; leases outlive their length and a
// daemon restart, and a daemon gone for good ends in EIO; fio verifies a
// mixed random job.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <random>

#include "e2e/e2e_util.h"
#include "support/loop_mount.h"

namespace kestrix::test {
namespace {

// The counters of the last "closed NAME:" line of the mount's log.
std::pair<int, int> RenewalsAndReopens(const std::string& log, const std::string& name) {
  int renewals = -1, reopens = -1;
  for (const std::string& line : SplitLines(log)) {
    if (line.find("closed " + name + ": ") == std::string::npos) continue;
    sscanf(line.c_str() + line.find("on the disk, "), "on the disk, %d renewals, %d reopens",
           &renewals, &reopens);
  }
  return {renewals, reopens};
}

class MountE2E : public ::testing::TestWithParam<FsKind> {
 protected:
  void SetUp() override {
    if (access("/dev/fuse", R_OK | W_OK) != 0 || FindProgram("fusermount3").empty())
      GTEST_SKIP() << "no FUSE on this machine: /dev/fuse or fusermount3 is missing";
    share_ = std::make_unique<LocalfsShare>(daemon_, GetParam());
    if (!share_->ok()) GTEST_SKIP() << share_->fs->skipReason();
    fs_ = share_->fs.get();
    exp_ = share_->exp;
    mkdir(mnt_.c_str(), 0755);
    ASSERT_TRUE(daemon_.Start({"-l", "4"})) << daemon_.Log();
  }
  // Unmounted and stopped even when the test failed half-way.
  void TearDown() override {
    if (pid_ <= 0) return;
    RunToExit(FindProgram("fusermount3"), {"-u", mnt_}, {});
    // A clean shutdown: leases closed, exit 0. A daemon gone for good costs
    // each open file the give-up time.
    const int status = WaitFor(pid_, 20000);
    EXPECT_EQ(status, 0) << ReadFile(log_);
    if (status < 0) Kill(pid_, SIGTERM);
    if (Mounted()) umount2(mnt_.c_str(), MNT_DETACH);
  }
  bool Mounted() const {
    return ReadFile("/proc/self/mounts").find(" " + mnt_ + " fuse.kestrix ") != std::string::npos;
  }
  void Mount(std::vector<std::string> args = {}) {
    args.insert(args.end(), {"-f", "-v", "-p", std::to_string(daemon_.port()), "--disk",
                             fs_->device(), "--names", exp_, "data", mnt_});
    pid_ = Spawn(KESTRIX_MOUNT, args, {}, dir_.File("out"), log_);
    ASSERT_TRUE(PollUntil([&] { return Mounted(); }, 10000)) << ReadFile(log_);
  }
  std::string M(const std::string& name) const { return mnt_ + "/" + name; }
  std::string E(const std::string& name) const { return exp_ + "/" + name; }
  // A fresh daemon on the same port: every lease it held is gone.
  void RestartDaemon() {
    daemon_.Stop();
    std::remove(daemon_.logPath().c_str());
    ASSERT_TRUE(daemon_.Start({"-l", "4"})) << daemon_.Log();
  }

  std::unique_ptr<LocalfsShare> share_;  // outlives the daemon, which holds its files
  LoopMount* fs_ = nullptr;
  TempDir dir_;
  std::string exp_, mnt_ = dir_.File("mnt"), log_ = dir_.File("mount.log");
  DaemonProcess daemon_;
  pid_t pid_ = -1;
};

TEST_P(MountE2E, ProgramsReadBackWhatTheyWroteAndTheServerHoldsIt) {
  Mount();
  struct Case {
    std::string name;   // the file's name
    std::string after;  // its name after the case ran, "" when gone
    // Runs the case on the file at path; returns the bytes the file must hold.
    std::function<std::string(const std::string& path)> run;
  };
  const std::string big = Random((3 << 20) + 17, 1);
  const std::vector<Case> cases = {
      {.name = "copy.bin", .after = "copy.bin",
       .run = [&](const std::string& p) {
         int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
         for (size_t at = 0; at < big.size(); at += 131072)
           EXPECT_GT(write(fd, big.data() + at, std::min<size_t>(131072, big.size() - at)), 0);
         close(fd);
         return big;
       }},
      {.name = "append.txt", .after = "append.txt",
       .run = [&](const std::string& p) {
         WriteFile(p, "head\n");
         int a = open(p.c_str(), O_WRONLY | O_APPEND);
         int b = open(p.c_str(), O_WRONLY | O_APPEND);
         EXPECT_EQ(write(a, "a1 ", 3) + write(b, "b1 ", 3) + write(a, "a2", 2), 8);
         close(a);
         close(b);
         return std::string("head\na1 b1 a2");
       }},
      {.name = "cut.bin", .after = "cut.bin",
       .run = [&](const std::string& p) {
         const std::string data = Random(100000, 2);
         int fd = open(p.c_str(), O_RDWR | O_CREAT, 0644);
         EXPECT_EQ(write(fd, data.data(), data.size()), 100000);
         EXPECT_EQ(ftruncate(fd, 5000), 0);
         close(fd);
         EXPECT_EQ(truncate(p.c_str(), 20000), 0);  // grown while no program holds it
         return data.substr(0, 5000) + std::string(15000, '\0');
       }},
      {.name = "sparse.bin", .after = "sparse.bin",
       .run = [&](const std::string& p) {
         int fd = open(p.c_str(), O_WRONLY | O_CREAT, 0644);
         EXPECT_EQ(pwrite(fd, "end", 3, (5 << 20) + 3) + pwrite(fd, "start", 5, 0), 8);
         struct stat st;
         EXPECT_EQ(stat(p.c_str(), &st) == 0 ? st.st_size : -1, (5 << 20) + 6);  // before the close
         close(fd);
         return "start" + std::string((5 << 20) - 2, '\0') + "end";
       }},
      {.name = "two.txt", .after = "two.txt",
       .run = [&](const std::string& p) {
         // A read lease, then a write.
         int r = open(p.c_str(), O_RDONLY | O_CREAT, 0644);
         int w = open(p.c_str(), O_WRONLY);
         EXPECT_EQ(write(w, "abc", 3), 3);
         char got[8] = {};
         struct stat st = {};
         EXPECT_EQ(pread(r, got, 8, 0), 3);
         EXPECT_EQ(std::string(got), "abc");
         EXPECT_EQ(fstat(r, &st) == 0 ? st.st_size : -1, 3);  // the size written, before the close
         close(r);
         close(w);
         return std::string("abc");
       }},
      {.name = "moving.txt", .after = "moved.txt",
       .run = [&](const std::string& p) {
         int fd = open(p.c_str(), O_WRONLY | O_CREAT, 0644);
         EXPECT_EQ(write(fd, "one ", 4), 4);
         EXPECT_EQ(rename(p.c_str(), M("moved.txt").c_str()), 0);
         EXPECT_EQ(write(fd, "two", 3), 3);
         close(fd);
         return std::string("one two");
       }},
      {.name = "busy.txt", .after = "busy.txt",
       .run = [&](const std::string& p) {
         WriteFile(E("busy.txt"), "old");
         // Held open on the server: no write map.
         const int server = open(E("busy.txt").c_str(), O_RDONLY);
         const int mine = open(p.c_str(), O_WRONLY);
         EXPECT_EQ(mine < 0 ? errno : 0, EBUSY);
         close(server);
         close(mine);
         WriteFile(p, "new");
         return std::string("new");
       }},
      {.name = "gone.txt", .after = "",
       .run = [&](const std::string& p) {
         int fd = open(p.c_str(), O_RDWR | O_CREAT, 0644);
         EXPECT_EQ(write(fd, "still ", 6), 6);
         EXPECT_EQ(unlink(p.c_str()), 0);
         EXPECT_EQ(write(fd, "here", 4), 4);
         char got[16] = {};
         EXPECT_EQ(std::string(got, std::max<ssize_t>(0, pread(fd, got, 16, 0))), "still here");
         close(fd);
         return std::string();
       }},
  };
  for (const Case& c : cases) {
    const std::string want = c.run(M(c.name));
    if (c.after.empty()) {
      EXPECT_NE(access(E(c.name).c_str(), F_OK), 0) << c.name;
      continue;
    }
    EXPECT_EQ(ReadFile(M(c.after)) == want, true) << c.name << " through the mount";
    EXPECT_EQ(ReadFile(E(c.after)) == want, true) << c.name << " on the server";
    EXPECT_EQ(std::filesystem::file_size(E(c.after)), want.size()) << c.name;
  }
  // Nothing is left behind for the unlinked file once its last handle went.
  EXPECT_TRUE(PollUntil([&] {
    for (const auto& e : std::filesystem::directory_iterator(exp_))
      if (e.path().filename().string().starts_with(".kestrix-hidden")) return false;
    return true;
  }, 5000));
}

TEST_P(MountE2E, NameOperationsPassThroughToTheNamesDirectory) {
  Mount();
  WriteFile(E("f"), "data");  // made on the server, seen through the mount
  struct Case {
    std::string what;
    std::function<int()> act;     // through the mount: 0 on success
    std::function<bool()> holds;  // in the names directory afterwards
  };
  const struct timespec times[2] = {{1000000000, 0}, {1200000000, 0}};
  char value[8] = {};
  // What the names directory, or the mount, shows of a file.
  auto server = [&](const char* name) {
    struct stat st = {};
    stat(E(name).c_str(), &st);
    return st;
  };
  auto target = [](const std::string& path) { return std::filesystem::read_symlink(path); };
  auto xattr = [&](const std::string& path) {
    return getxattr(path.c_str(), "user.k", value, sizeof value);
  };
  const std::vector<Case> cases = {
      {"mkdir", [&] { return mkdir(M("d").c_str(), 0750); },
       [&] { return S_ISDIR(server("d").st_mode) && (server("d").st_mode & 0777) == 0750; }},
      {"symlink", [&] { return symlink("f", M("d/s").c_str()); },
       [&] { return target(E("d/s")) == "f" && target(M("d/s")) == "f"; }},
      // A file with two names is not mapped: its data is refused, its names stay.
      {"link", [&] { return link(M("f").c_str(), M("d/l").c_str()); },
       [&] {
         return server("f").st_nlink == 2 && open(M("d/l").c_str(), O_RDONLY) < 0 &&
                errno == EPERM;
       }},
      {"chmod", [&] { return chmod(M("f").c_str(), 0604); },
       [&] { return (server("f").st_mode & 0777) == 0604; }},
      {"chown", [&] { return chown(M("f").c_str(), 1234, 5678); },
       [&] { return server("f").st_uid == 1234 && server("f").st_gid == 5678; }},
      {"utimens", [&] { return utimensat(AT_FDCWD, M("f").c_str(), times, 0); },
       [&] { return server("f").st_mtime == 1200000000 && server("f").st_atime == 1000000000; }},
      {"setxattr", [&] { return setxattr(M("f").c_str(), "user.k", "v1", 2, 0); },
       [&] { return xattr(E("f")) == 2 && xattr(M("f")) == 2; }},
      {"removexattr", [&] { return removexattr(M("f").c_str(), "user.k"); },
       [&] { return xattr(E("f")) < 0 && listxattr(M("f").c_str(), value, sizeof value) == 0; }},
      {"rename", [&] { return rename(M("d/l").c_str(), M("d/l2").c_str()); },
       [&] { return access(E("d/l").c_str(), F_OK) != 0 && ReadFile(E("d/l2")) == "data"; }},
      {"unlink", [&] { return unlink(M("d/l2").c_str()) + unlink(M("d/s").c_str()); },
       [&] { return std::filesystem::is_empty(E("d")) && std::filesystem::is_empty(M("d")); }},
      {"rmdir", [&] { return rmdir(M("d").c_str()); },
       [&] { return access(E("d").c_str(), F_OK) != 0; }},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(c.act(), 0) << c.what << ": " << strerror(errno);
    EXPECT_TRUE(c.holds()) << c.what;
  }
  struct statvfs mine, theirs;
  ASSERT_EQ(statvfs(mnt_.c_str(), &mine), 0);
  ASSERT_EQ(statvfs(exp_.c_str(), &theirs), 0);
  EXPECT_EQ(mine.f_blocks, theirs.f_blocks);
  EXPECT_EQ(mine.f_bsize, theirs.f_bsize);
  std::vector<std::string> listed;
  for (const auto& e : std::filesystem::directory_iterator(mnt_))
    listed.push_back(e.path().filename());
  EXPECT_EQ(listed, std::vector<std::string>{"f"});
}

TEST_P(MountE2E, LeasesOutliveTheirLengthAndARestartButNotALostDaemon) {
  Mount({"--lease", "1500", "--give-up", "3000", "-t", "300", "-r", "1"});
  // A slow write three times as long as the lease: the keeper renews it.
  const std::string slow = Random(16 * 65536, 3);
  int fd = open(M("slow.bin").c_str(), O_WRONLY | O_CREAT, 0644);
  for (size_t at = 0; at < slow.size(); at += 65536) {
    ASSERT_EQ(write(fd, slow.data() + at, 65536), 65536) << ReadFile(log_);
    usleep(200000);
  }
  close(fd);
  EXPECT_EQ(ReadFile(E("slow.bin")) == slow, true);
  EXPECT_TRUE(
      PollUntil([&] { return RenewalsAndReopens(ReadFile(log_), "slow.bin").first >= 3; }, 3000))
      << ReadFile(log_);
  EXPECT_EQ(RenewalsAndReopens(ReadFile(log_), "slow.bin").second, 0);

  // The daemon restarted half-way through a large write, once as the file
  // kept its name and once after it was renamed: the file is opened again
  // by its name and comes out complete.
  const std::string large = Random(16 << 20, 4);
  for (const char* name : {"large.bin", "renamed.bin"}) {
    // Not held by the new daemon.
    fd = open(M("large.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (size_t at = 0; at < large.size(); at += 1 << 20) {
      if (at == 8 << 20) {
        // Nothing queued while the daemon is away: starting it closes this
        // descriptor in the child, and that close waits for the queue.
        ASSERT_EQ(fsync(fd), 0);
        ASSERT_EQ(rename(M("large.bin").c_str(), M(name).c_str()), 0);
        RestartDaemon();
      }
      ASSERT_EQ(write(fd, large.data() + at, 1 << 20), 1 << 20) << name << "\n" << ReadFile(log_);
    }
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(ReadFile(E(name)) == large, true) << name;
  }
  // The restart was noticed: the lease was taken up again, by RemoteFile or by the mount.
  auto reopened = [&] {
    return RenewalsAndReopens(ReadFile(log_), "large.bin").second >= 1 ||
           ReadFile(log_).find("large.bin opened again") != std::string::npos;
  };
  EXPECT_TRUE(PollUntil(reopened, 3000)) << ReadFile(log_);

  // A daemon that stays away: writes fail with EIO, and the log says why.
  fd = open(M("lost.bin").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_EQ(write(fd, "x", 1), 1);
  daemon_.Stop();
  int err = 0;
  for (int i = 0; i < 200 && err == 0; ++i, usleep(100000))
    if (write(fd, slow.data(), 65536) < 0) err = errno;
  EXPECT_EQ(close(fd), -1);  // the close of a file that lost writes says so too
  EXPECT_EQ(err, EIO);
  EXPECT_NE(ReadFile(log_).find("writing lost.bin"), std::string::npos) << ReadFile(log_);
}

// A sequential reader has the file read ahead of it; a write and a cut
// made meanwhile through another handle are what it reads, not the bytes
// read ahead before them.
TEST_P(MountE2E, ASequentialReaderSeesWritesMadeAheadOfIt) {
  Mount();
  constexpr size_t kMiB = 1 << 20;
  const std::string old = Random(12 * kMiB, 5);
  WriteFile(M("ahead.bin"), old);
  const int reader = open(M("ahead.bin").c_str(), O_RDONLY);
  std::string chunk(kMiB, '\0');
  for (int i = 0; i < 3; ++i) ASSERT_EQ(read(reader, chunk.data(), kMiB), static_cast<ssize_t>(kMiB));

  const int writer = open(M("ahead.bin").c_str(), O_WRONLY);
  const std::string fresh(kMiB, 'x');
  ASSERT_EQ(pwrite(writer, fresh.data(), kMiB, 4 * kMiB), static_cast<ssize_t>(kMiB));
  ASSERT_EQ(ftruncate(writer, 9 * kMiB), 0);
  std::string rest;
  for (ssize_t n; (n = read(reader, chunk.data(), kMiB)) > 0;) rest.append(chunk.data(), static_cast<size_t>(n));
  close(reader);
  close(writer);
  EXPECT_EQ(rest.size(), 6 * kMiB);
  EXPECT_TRUE(rest == old.substr(3 * kMiB, kMiB) + fresh + old.substr(5 * kMiB, 4 * kMiB));
}

TEST_P(MountE2E, FioVerifiesAMixedRandomJob) {
  const std::string fio = FindProgram("fio");
  if (fio.empty()) GTEST_SKIP() << "fio is not installed: the verified random job cannot run";
  Mount();
  RunResult r = RunToExit(
      fio,
      {"--name=mixed", "--filename_format=$jobname.$jobnum", "--directory=" + mnt_, "--size=12M",
       "--numjobs=2", "--rw=randrw", "--bsrange=4k-256k", "--ioengine=psync", "--verify=crc32c",
       "--verify_fatal=1", "--verify_state_save=0", "--fallocate=none"},
      {}, 120000);
  EXPECT_EQ(r.exitStatus, 0) << r.standardOutput << r.standardError << ReadFile(log_);
}

INSTANTIATE_TEST_SUITE_P(Filesystems, MountE2E, ::testing::Values(FsKind::kExt4, FsKind::kXfs),
                         [](const auto& info) { return std::string(FsName(info.param)); });

}  // namespace
}  // namespace kestrix::test
