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

// Attaches image to a free loop device that detaches itself once its last
// user (the mount) is gone. Returns the open device, or -1 with *why.
int AttachLoop(const std::string& image, std::string* device, std::string* why) {
  int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC), fd = -1;
  struct loop_config config = {};
  config.fd = static_cast<uint32_t>(open(image.c_str(), O_RDWR | O_CLOEXEC));
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  *why = "no /dev/loop-control";
  for (int i = 0; i < kAttachAttempts && fd < 0 && control >= 0; ++i) {
    *device = "/dev/loop" + std::to_string(ioctl(control, LOOP_CTL_GET_FREE));
    fd = open(device->c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0 && ioctl(fd, LOOP_CONFIGURE, &config) != 0) fd = (close(fd), -1);
    if (fd < 0) *why = "attaching " + *device + ": " + strerror(errno);
  }
  close(control);
  close(static_cast<int>(config.fd));
  return fd;
}

}  // namespace

void UsePrivateMounts() {
  static const bool done =
      unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  (void)done;
}

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

bool LoopMount::Mount(FsKind kind) {
  const std::string mkfs = FindProgram(std::string("mkfs.") + FsName(kind));
  if (geteuid() != 0) return Fail("mounting needs root");
  if (mkfs.empty()) return Fail(std::string("mkfs.") + FsName(kind) + " is not installed");
  WriteFile(image_, "");
  if (truncate(image_.c_str(), kind == FsKind::kExt4 ? 64 << 20 : 320 << 20) != 0) return Fail("no image file");
  RunResult made = RunToExit(mkfs, {"-q", kind == FsKind::kExt4 ? "-F" : "-f", image_}, {});
  if (made.exitStatus != 0) return Fail(mkfs + " failed: " + made.standardError);
  UsePrivateMounts();
  std::string device, why;
  int loop = AttachLoop(image_, &device, &why);
  if (loop < 0) return Fail(why);
  mkdir(mountPoint_.c_str(), 0755);
  bool mounted = mount(device.c_str(), mountPoint_.c_str(), FsName(kind), 0, nullptr) == 0;
  if (!mounted) Fail(std::string("mount failed: ") + strerror(errno));
  close(loop);  // from here the mount holds the device
  return mounted;
}

LoopMount::~LoopMount() {
  // A file still held open (a test that failed half-way) makes the mount
  // busy: then it is detached lazily.
  if (mounted_ && umount2(mountPoint_.c_str(), 0) != 0) umount2(mountPoint_.c_str(), MNT_DETACH);
}

}  // namespace kestrix::test
