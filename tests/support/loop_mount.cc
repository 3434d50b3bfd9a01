#include "support/loop_mount.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ioctl.h>
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

// Attaches image to a free loop device that detaches itself when its last
// user (the mount) goes; returns the open device (-1) and its path.
int AttachLoop(const std::string& image, std::string* device, std::string* why) {
  int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  int backing = open(image.c_str(), O_RDWR | O_CLOEXEC);
  int fd = -1;
  for (int i = 0; i < kAttachAttempts && fd < 0 && control >= 0 && backing >= 0; ++i) {
    *device = "/dev/loop" + std::to_string(ioctl(control, LOOP_CTL_GET_FREE));
    fd = open(device->c_str(), O_RDWR | O_CLOEXEC);
    struct loop_config config = {};
    config.fd = static_cast<uint32_t>(backing);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (fd >= 0 && ioctl(fd, LOOP_CONFIGURE, &config) != 0) {
      *why = "attaching " + *device + " failed: " + strerror(errno);
      close(fd);
      fd = -1;
    }
  }
  if (control < 0 || backing < 0) *why = std::string("no loop control or image: ") + strerror(errno);
  if (control >= 0) close(control);
  if (backing >= 0) close(backing);
  return fd;
}

}  // namespace

void UsePrivateMounts() {
  static const bool done = unshare(CLONE_NEWNS) == 0 &&
                           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  (void)done;
}

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
  if (geteuid() != 0) {
    Fail("mounting needs root");
    return;
  }
  if (mkfs.empty()) {
    Fail(std::string("mkfs.") + FsName(kind) + " is not installed");
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
  UsePrivateMounts();
  std::string why;
  int loop = AttachLoop(image_, &device_, &why);
  if (loop < 0) {
    Fail(why);
    return;
  }
  mkdir(mountPoint_.c_str(), 0755);
  mounted_ = mount(device_.c_str(), mountPoint_.c_str(), FsName(kind), 0, nullptr) == 0;
  if (!mounted_) Fail(std::string("mount failed: ") + strerror(errno));
  close(loop);  // from here the mount holds the device
}

LoopMount::~LoopMount() {
  // A file still held open (a test that failed half-way) makes the mount
  // busy: then it is detached lazily.
  if (mounted_ && umount2(mountPoint_.c_str(), 0) != 0) umount2(mountPoint_.c_str(), MNT_DETACH);
}

}  // namespace kestrix::test
