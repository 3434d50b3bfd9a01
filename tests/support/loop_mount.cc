#include "support/loop_mount.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>

#include "support/daemon_process.h"

namespace kestrix::test {

namespace {
constexpr int kAttachAttempts = 5;  // other processes may take the same free loop device
}  // namespace

const char* FsName(FsKind kind) { return kind == FsKind::kExt4 ? "ext4" : "xfs"; }

std::string FindProgram(const std::string& name) {
  const char* path = getenv("PATH");
  std::stringstream dirs(std::string(path ? path : "") + ":/usr/sbin:/sbin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    std::string full = dir + "/" + name;
    if (!dir.empty() && access(full.c_str(), X_OK) == 0) return full;
  }
  return "";
}

bool LoopMount::Fail(const std::string& reason) {
  skipReason_ = "no loop-mounted filesystem for this test: " + reason;
  fprintf(stderr, "SKIPPED: %s\n", skipReason_.c_str());
  return false;
}

LoopMount::LoopMount(FsKind kind, uint64_t sizeBytes)
    : image_(dir_.File("fs.img")), mountPoint_(dir_.File("mnt")) {
  const std::string mkfs = FindProgram(std::string("mkfs.") + FsName(kind));
  const std::string losetup = FindProgram("losetup");
  if (geteuid() != 0) {
    Fail("mounting needs root");
    return;
  }
  if (access("/dev/loop-control", F_OK) != 0) {
    Fail("no /dev/loop-control");
    return;
  }
  if (mkfs.empty() || losetup.empty()) {
    Fail(std::string("mkfs.") + FsName(kind) + " or losetup is not installed");
    return;
  }
  if (sizeBytes == 0) sizeBytes = kind == FsKind::kExt4 ? (64u << 20) : (320u << 20);
  WriteFile(image_, "");
  if (truncate(image_.c_str(), static_cast<off_t>(sizeBytes)) != 0) {
    Fail("cannot make the image file");
    return;
  }
  RunResult made = RunToExit(mkfs, {"-q", kind == FsKind::kExt4 ? "-F" : "-f", image_}, {});
  if (made.exitStatus != 0) {
    Fail(mkfs + " failed: " + made.standardError);
    return;
  }
  for (int i = 0; i < kAttachAttempts && device_.empty(); ++i) {
    RunResult attached = RunToExit(losetup, {"--find", "--show", image_}, {});
    const std::string& out = attached.standardOutput;
    if (attached.exitStatus == 0) device_ = out.substr(0, out.find('\n'));
  }
  if (device_.empty()) {
    Fail("losetup could not attach the image");
    return;
  }
  mkdir(mountPoint_.c_str(), 0755);
  if (mount(device_.c_str(), mountPoint_.c_str(), FsName(kind), 0, nullptr) != 0) {
    Fail(std::string("mount failed: ") + strerror(errno));
    return;
  }
  mounted_ = true;
}

LoopMount::~LoopMount() {
  // A file still held open (a test that failed half-way) makes the mount
  // busy: then it is detached lazily and the loop device clears itself.
  if (mounted_ && umount2(mountPoint_.c_str(), 0) != 0) umount2(mountPoint_.c_str(), MNT_DETACH);
  if (!device_.empty()) RunToExit(FindProgram("losetup"), {"-d", device_}, {});
}

}  // namespace kestrix::test
