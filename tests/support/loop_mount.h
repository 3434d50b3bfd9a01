// A small ext4 or XFS filesystem for a test: a sparse image made with mkfs,
// on a loop device that detaches itself, mounted in a temporary directory
// for the object's life. Mounts are made in a mount namespace of the
// process's own, so even a crashed test leaves none behind. When mounting is
// impossible here (not root, no loop devices, no mkfs) ok() is false:
//
//   LoopMount fs(FsKind::kXfs);
//   if (!fs.ok()) GTEST_SKIP() << fs.skipReason();
#ifndef KESTRIX_TESTS_SUPPORT_LOOP_MOUNT_H_
#define KESTRIX_TESTS_SUPPORT_LOOP_MOUNT_H_

#include <string>

#include "support/test_util.h"

namespace kestrix::test {

enum class FsKind { kExt4, kXfs };
inline const char* FsName(FsKind kind) { return kind == FsKind::kExt4 ? "ext4" : "xfs"; }

// Moves the process into a mount namespace of its own, once: mounts made
// after this vanish with the process. Where namespaces are not allowed,
// nothing changes and only the destructors clean up.
void UsePrivateMounts();

// The full path of a program on PATH or in /usr/sbin or /sbin; "" if none.
std::string FindProgram(const std::string& name);

class LoopMount {
 public:
  // 64 MiB for ext4, 320 MiB for XFS (its smallest default), or mib.
  explicit LoopMount(FsKind kind, int mib = 0) { mounted_ = Mount(kind, mib); }
  ~LoopMount();

  bool ok() const { return mounted_; }
  const std::string& skipReason() const { return skipReason_; }
  const std::string& image() const { return image_; }
  const std::string& device() const { return device_; }  // the loop device
  std::string Path(const std::string& name) const { return mountPoint_ + "/" + name; }

 private:
  bool Mount(FsKind kind, int mib);
  bool Fail(const std::string& reason);  // false, with the reason kept and printed

  TempDir dir_;  // holds the image and the mount point; outlives the mount
  std::string image_ = dir_.File("fs.img"), mountPoint_ = dir_.File("mnt"), device_, skipReason_;
  bool mounted_ = false;
};

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_LOOP_MOUNT_H_
