#include "support/loop_mount.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>

#include "support/daemon_process.h"

namespace kestrix::test {

void UsePrivateMounts() {
  [[maybe_unused]] static const bool done =
      unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
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

// mount(8) attaches the image to a free loop device that detaches itself
// once the mount is gone.
bool LoopMount::Mount(FsKind kind, int mib) {
  const std::string mkfs = FindProgram(std::string("mkfs.") + FsName(kind)),
                    mounter = FindProgram("mount");
  if (geteuid() != 0) return Fail("mounting needs root");
  if (mkfs.empty() || mounter.empty())
    return Fail(std::string("mkfs.") + FsName(kind) + " or mount is not installed");
  WriteFile(image_, "");
  const off_t bytes = off_t{mib > 0 ? mib : kind == FsKind::kExt4 ? 64 : 320} << 20;
  if (truncate(image_.c_str(), bytes) != 0) return Fail("no image file");
  RunResult made = RunToExit(mkfs, {"-q", kind == FsKind::kExt4 ? "-F" : "-f", image_}, {});
  if (made.exitStatus != 0) return Fail(mkfs + " failed: " + made.standardError);
  UsePrivateMounts();
  std::filesystem::create_directory(mountPoint_);
  RunResult mounted =
      RunToExit(mounter, {"-o", "loop", "-t", FsName(kind), image_, mountPoint_}, {});
  if (mounted.exitStatus != 0) return Fail("mount failed: " + mounted.standardError);
  for (const std::string& line : SplitLines(ReadFile("/proc/self/mounts"))) {
    std::istringstream fields(line);
    std::string source, target;
    if (fields >> source >> target && target == mountPoint_) device_ = source;
  }
  return true;
}

LoopMount::~LoopMount() {
  // A file still held open (a test that failed half-way) makes the mount
  // busy: then it is detached lazily.
  if (mounted_ && umount2(mountPoint_.c_str(), 0) != 0) umount2(mountPoint_.c_str(), MNT_DETACH);
}

}  // namespace kestrix::test
