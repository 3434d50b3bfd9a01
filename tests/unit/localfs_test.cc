// localfs on real ext4 and XFS images: volumes, maps (against the image and filefrag),
// writes in place, sizes, confinement, stale cookies, concurrent calls.
#include "plugins/localfs/localfs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <thread>
#include <tuple>

#include "fslibrary.h"
#include "fsmdc.h"
#include "fsvalidity.h"
#include "support/daemon_process.h"
#include "support/loop_mount.h"
#include "unixmdc/loadlib.h"

namespace kestrix::test {
namespace {

using Cookie = std::array<uint8_t, 32>;
using Library = std::unique_ptr<FsLibrary, void (*)(void*)>;
constexpr uint32_t kRoom = 65536 - 256;

std::vector<FSUNI> Fsuni(const std::string& ascii) {
  std::vector<FSUNI> units(ascii.begin(), ascii.end());
  units.push_back(0);
  return units;
}

std::string ReadAt(const std::string& path, int64_t offset, size_t n) {
  std::string bytes(n, '\0');
  std::ifstream(path, std::ios::binary).seekg(offset).read(bytes.data(), n);
  return bytes;
}

void WriteAt(const std::string& path, int64_t offset, const std::string& bytes) {
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
      .seekp(offset)
      .write(bytes.data(), bytes.size());
}

// Loads the built localfs.so through the daemon's loader, configured by conf.
Library LoadLocalFs(const TempDir& dir, const std::string& conf) {
  WriteFile(dir.File("localfs.conf"), conf);
  mkdir(dir.File("lib").c_str(), 0755);
  symlink(KESTRIX_LOCALFS_PLUGIN, dir.File("lib/localfs.so").c_str());
  setenv("KESTRIX_LOCALFS_CONF", dir.File("localfs.conf").c_str(), 1);
  setenv("KESTRIX_LIBDIR", dir.File("lib").c_str(), 1);
  ResetLibraryLoaderForTesting();
  Library lib(FSMDCSP_LoadNextLibrary(), free);
  if (lib && lib->FS_Init() != 0) lib.reset();
  return lib;
}

// Unmounts a directory at the end of a scope.
struct Unmount {
  std::string path;
  ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
};

struct Map {
  int status = 0;
  FSMapInfo info = {};
  std::vector<VerboseExtent> extents;
};

class LocalFsTest : public ::testing::TestWithParam<FsKind> {
 protected:
  void SetUp() override {
    fs_ = std::make_unique<LoopMount>(GetParam());
    if (!fs_->ok()) GTEST_SKIP() << fs_->skipReason();
    exp_ = fs_->Path("export");
    mkdir(exp_.c_str(), 0755);
    mkdir(fs_->Path("outside").c_str(), 0755);
    lib_ = LoadLocalFs(dir_, "# the test's export\n" + exp_ + "/\nmax-read-lease 10\n");
    ASSERT_NE(lib_, nullptr);
    struct statvfs sv;
    statvfs(exp_.c_str(), &sv);
    bs_ = static_cast<int64_t>(sv.f_bsize);
  }
  int Cookies(const std::string& name, Cookie* vol, Cookie* file) {
    return lib_->FS_GetCookies(Fsuni(exp_ + "/" + name).data(), vol->data(), file->data());
  }
  // The map, checking that nothing is written past the room.
  Map GetMap(const Cookie& vol, const Cookie& file, int64_t start = 0, int64_t length = -1,
             uint32_t room = kRoom) {
    std::vector<uint8_t> buffer(kRoom + 1, 0xEE);
    Map m;
    m.status = lib_->FS_GetLockedMap(vol.data(), file.data(), start, length, 0,
                                     reinterpret_cast<FSMapInfo*>(buffer.data()), &room);
    memcpy(&m.info, buffer.data(), sizeof m.info);
    for (int i = 0; i < m.info.nExtents; ++i) {
      m.extents.emplace_back();
      memcpy(&m.extents.back(), buffer.data() + 64 + 32 * i, sizeof(VerboseExtent));
    }
    EXPECT_EQ(buffer[room], 0xEE);
    return m;
  }
  int SetSizes(const Cookie& vol, const Cookie& file, int64_t size, int64_t alloc) {
    return lib_->FS_SetFileSizes(vol.data(), file.data(), 0, size, alloc, -1);
  }
  // The device address of a byte of a mapped file.
  static int64_t Physical(const Map& m, int64_t logical) {
    for (const auto& e : m.extents) {
      if (logical >= e.LogicalByteAddr && logical < e.LogicalByteAddr + e.nBytes)
        return e.PhysicalByteAddr + (logical - e.LogicalByteAddr);
    }
    return -1;
  }

  TempDir dir_;
  std::unique_ptr<LoopMount> fs_;
  Library lib_{nullptr, free};
  std::string exp_;
  int64_t bs_ = 0;
};

TEST_P(LocalFsTest, VolumeNamesTheDiskByItsSuperblock) {
  Cookie vol{};
  ASSERT_EQ(lib_->FS_GetVolCookie(Fsuni(exp_).data(), vol.data()), 0);
  Cookie garbled = vol;
  std::vector<uint8_t> buffer(1024, 0xEE);
  uint32_t room = 1000;
  ASSERT_EQ(lib_->FS_GetVolByCookie(vol.data(), reinterpret_cast<VolInfo*>(buffer.data()), &room),
            0);
  VolInfo v;
  FSDisk d;
  memcpy(&v, buffer.data(), sizeof v);
  memcpy(&d, buffer.data() + sizeof v, sizeof d);
  EXPECT_EQ(v.FStype, GetParam() == FsKind::kExt4 ? LOCALFS_FSTYPE_EXT4 : LOCALFS_FSTYPE_XFS);
  EXPECT_EQ(v.BlockSize, bs_);
  EXPECT_EQ(v.nDisks, 1u);
  EXPECT_EQ(memcmp(v.Cookie, vol.data(), 32), 0);
  EXPECT_EQ(d.IDlength, 16u);
  EXPECT_EQ(d.BlockOffset, 0);
  const std::string id(reinterpret_cast<char*>(d.DiskID), 16);
  EXPECT_NE(id, std::string(16, '\0'));
  EXPECT_EQ(ReadAt(fs_->image(), d.IDoffset, 16), id);
  EXPECT_EQ(d.nBlocks * bs_, static_cast<int64_t>(std::filesystem::file_size(fs_->image())));

  // Failures come back as a status and words, within the room.
  garbled[20] ^= 1;
  for (auto [cookie, size, status] :
       {std::tuple{vol, 150u, LOCALFS_NO_ROOM}, std::tuple{garbled, 1000u, LOCALFS_STALE}}) {
    std::fill(buffer.begin(), buffer.end(), 0xEE);
    room = size;
    EXPECT_EQ(
        lib_->FS_GetVolByCookie(cookie.data(), reinterpret_cast<VolInfo*>(buffer.data()), &room),
        status);
    memcpy(&v, buffer.data(), sizeof v);
    EXPECT_EQ(v.vendorStatus, status);
    EXPECT_NE(buffer[104], 0);  // the text
    EXPECT_EQ(buffer[size], 0xEE);
  }
  FSLONG readMax = -1, writeMax = -1;
  EXPECT_EQ(lib_->FS_GetMaxLeases(vol.data(), &readMax, &writeMax), 0);
  EXPECT_EQ(readMax, 10);
  EXPECT_EQ(writeMax, 0);
}

TEST_P(LocalFsTest, MapsAgreeWithTheImageAndFilefrag) {
  // Blocks 0-1, 4-5 and 8-9 written one at a time between blocks of another
  // file, a hole at 2-3 and an unwritten preallocation at 6-7.
  const std::string f = exp_ + "/f";
  int fd = open(f.c_str(), O_CREAT | O_RDWR, 0644),
      other = open((exp_ + "/o").c_str(), O_CREAT | O_WRONLY, 0644);
  for (int64_t block : {0, 1, 4, 5, 8, 9}) {
    std::string bytes(bs_, static_cast<char>('a' + block));
    ASSERT_EQ(pwrite(fd, bytes.data(), bs_, block * bs_), bs_);
    ASSERT_EQ(pwrite(other, bytes.data(), bs_, block * bs_), bs_);
    fsync(fd);
    fsync(other);
  }
  ASSERT_EQ(fallocate(fd, 0, 6 * bs_, 2 * bs_), 0);
  close(fd);
  close(other);
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  Map m = GetMap(vol, file);
  ASSERT_EQ(m.status, 0);
  EXPECT_EQ(m.info.fileSize, 10 * bs_);
  EXPECT_EQ(m.info.fileBytes, 10 * bs_);
  int64_t at = 0;
  std::set<uint32_t> kinds;
  // logical, physical, length (in blocks), unwritten
  std::vector<std::array<int64_t, 4>> ours, filefrag;
  for (const auto& e : m.extents) {
    EXPECT_EQ(e.LogicalByteAddr, at);
    at += e.nBytes;
    kinds.insert(e.validity);
    std::string inFile = ReadAt(f, e.LogicalByteAddr, e.nBytes);
    if (e.validity == FS_VALIDITY_DATA) {
      EXPECT_EQ(ReadAt(fs_->image(), e.PhysicalByteAddr, e.nBytes), inFile);
    } else {
      EXPECT_EQ(inFile, std::string(e.nBytes, '\0'));
    }
    if (e.validity != FS_VALIDITY_HOLE)
      ours.push_back({e.LogicalByteAddr / bs_, e.PhysicalByteAddr / bs_, e.nBytes / bs_,
                      e.validity == FS_VALIDITY_UNWRITTEN});
  }
  EXPECT_EQ(kinds, (std::set<uint32_t>{FS_VALIDITY_DATA, FS_VALIDITY_HOLE, FS_VALIDITY_UNWRITTEN}));
  RunResult frag = RunToExit(FindProgram("filefrag"), {"-v", f}, {});
  for (const auto& line : SplitLines(frag.standardOutput)) {
    long long l, le, p, pe, n;
    if (sscanf(line.c_str(), " %*d: %lld..%lld: %lld..%lld: %lld:", &l, &le, &p, &pe, &n) == 5)
      filefrag.push_back({l, p, n, line.find("unwritten") != std::string::npos});
  }
  EXPECT_EQ(ours, filefrag);

  // A range, and a room for two extents: status 1 and exactly those two.
  Map range = GetMap(vol, file, bs_, 4 * bs_);
  EXPECT_EQ(
      std::tie(range.info.fileOffset, range.info.fileBytes, range.extents.at(0).LogicalByteAddr),
      std::tuple(bs_, 4 * bs_, bs_));
  Map two = GetMap(vol, file, 0, -1, 64 + 2 * 32);
  EXPECT_EQ(two.status, LOCALFS_PARTIAL);
  ASSERT_EQ(two.extents.size(), 2u);
  EXPECT_EQ(two.info.fileBytes, m.extents[0].nBytes + m.extents[1].nBytes);
  EXPECT_EQ(memcmp(two.extents.data(), m.extents.data(), 2 * sizeof(VerboseExtent)), 0);
  EXPECT_EQ(lib_->FS_UnlockMap(vol.data(), file.data()), 0);
}

TEST_P(LocalFsTest, BytesWrittenInPlaceAreReadBackAfterTheUnlock) {
  const std::string f = exp_ + "/f", old(3 * bs_, 'o');
  WriteFile(f, old);
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  Map m = GetMap(vol, file);
  ASSERT_EQ(m.status, 0);
  ASSERT_EQ(m.extents[0].validity, uint32_t{FS_VALIDITY_DATA});
  ASSERT_EQ(ReadFile(f), old);  // the server's pages are cached now
  WriteAt(fs_->image(), Physical(m, 0), std::string(bs_, 'c'));
  EXPECT_EQ(lib_->FS_UnlockMap(vol.data(), file.data()), 0);
  EXPECT_EQ(ReadFile(f), std::string(bs_, 'c') + old.substr(bs_));

  // A close that shrinks the file rewrites the last block from the disk's
  // bytes, not from stale pages.
  m = GetMap(vol, file);
  ASSERT_EQ(ReadFile(f).size(), old.size());
  WriteAt(fs_->image(), Physical(m, 2 * bs_), std::string(bs_, 'd'));
  EXPECT_EQ(SetSizes(vol, file, 3 * bs_ - 100, 3 * bs_ - 100), 0);
  EXPECT_EQ(lib_->FS_UnlockMap(vol.data(), file.data()), 0);
  EXPECT_EQ(ReadFile(f),
            std::string(bs_, 'c') + std::string(bs_, 'o') + std::string(bs_ - 100, 'd'));
}

TEST_P(LocalFsTest, SizesAllocateWrittenExtentsAndTruncate) {
  WriteFile(exp_ + "/empty", "");
  WriteFile(exp_ + "/f", "keep");
  Cookie vol, file, empty;
  ASSERT_EQ(Cookies("empty", &vol, &empty) | Cookies("f", &vol, &file), 0);
  Map none = GetMap(vol, empty);  // a file of 0 bytes maps to no extents
  EXPECT_EQ(std::tie(none.status, none.info.nExtents, none.info.fileBytes), std::tuple(0, 0, 0));
  ASSERT_EQ(SetSizes(vol, file, -1, 1 << 20), 0);
  Map m = GetMap(vol, file);
  EXPECT_EQ(m.info.fileBytes, 1 << 20);
  for (const auto& e : m.extents) EXPECT_EQ(e.validity, uint32_t{FS_VALIDITY_DATA});
  EXPECT_EQ(ReadFile(exp_ + "/f"), "keep" + std::string((1 << 20) - 4, '\0'));

  EXPECT_EQ(SetSizes(vol, file, bs_, -1), 0);
  EXPECT_EQ(ReadFile(exp_ + "/f").size(), static_cast<size_t>(bs_));
  EXPECT_EQ(SetSizes(vol, file, -5, -1), LOCALFS_INVALID);
  EXPECT_EQ(lib_->FS_UnlockMap(vol.data(), file.data()), 0);
}

TEST_P(LocalFsTest, PathsThatLeaveTheExportAreRefused) {
  const std::string secret = fs_->Path("outside/secret");
  WriteFile(secret, "secret");
  WriteFile(exp_ + "/f", "f");
  symlink(secret.c_str(), (exp_ + "/abs").c_str());
  symlink("../outside/secret", (exp_ + "/rel").c_str());
  symlink("f", (exp_ + "/inside").c_str());
  mkdir((exp_ + "/sub").c_str(), 0755);  // the outside, mounted below the export
  ASSERT_EQ(mount(fs_->Path("outside").c_str(), (exp_ + "/sub").c_str(), nullptr, MS_BIND, nullptr),
            0);
  Unmount unmount{exp_ + "/sub"};
  LogCapture log;
  Cookie vol, file;
  for (const char* name : {"../outside/secret", "abs", "rel", "sub/secret"})
    EXPECT_EQ(Cookies(name, &vol, &file), LOCALFS_NOT_SERVED) << name;
  EXPECT_EQ(CountOf(log.Text(), "leaves export"), 4);
  EXPECT_EQ(lib_->FS_GetVolCookie(Fsuni(exp_ + "/../outside").data(), vol.data()),
            LOCALFS_NOT_SERVED);
  EXPECT_EQ(Cookies("inside", &vol, &file), 0);  // a link that stays inside is followed
  EXPECT_EQ(ReadFile(secret), "secret");
}

TEST_P(LocalFsTest, CookiesFollowRenamesAndGoStale) {
  for (const char* name : {"a", "b", "c"}) WriteFile(exp_ + "/" + name, name);
  Cookie vol, a, b, c;
  ASSERT_EQ(Cookies("a", &vol, &a) | Cookies("b", &vol, &b) | Cookies("c", &vol, &c), 0);
  rename((exp_ + "/a").c_str(), (exp_ + "/renamed").c_str());
  EXPECT_EQ(GetMap(vol, a).status, 0);
  EXPECT_EQ(lib_->FS_UnlockMap(vol.data(), a.data()), 0);
  unlink((exp_ + "/renamed").c_str());
  WriteFile(exp_ + "/new", "new");  // may take the inode number
  EXPECT_EQ(GetMap(vol, a).status, LOCALFS_STALE);
  EXPECT_EQ(SetSizes(vol, a, 0, -1), LOCALFS_STALE);

  // c replaces b; c is locked, then deleted.
  rename((exp_ + "/c").c_str(), (exp_ + "/b").c_str());
  EXPECT_EQ(GetMap(vol, b).status, LOCALFS_STALE);
  EXPECT_EQ(GetMap(vol, c).status, 0);
  unlink((exp_ + "/b").c_str());
  EXPECT_EQ(GetMap(vol, c).status, LOCALFS_STALE);
  EXPECT_EQ(lib_->FS_UnlockMap(vol.data(), c.data()), 0);
  c[0] ^= 1;
  EXPECT_EQ(GetMap(vol, c).status, LOCALFS_BAD_COOKIE);
}

TEST_P(LocalFsTest, EntryPointsAreSafeOnSeveralThreads) {
  WriteFile(exp_ + "/f", std::string(4 * bs_, 'x'));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads(4);
  for (auto& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 25; ++i) {
        Cookie vol, file;
        failures += Cookies("f", &vol, &file) != 0 || GetMap(vol, file).status != 0 ||
                    SetSizes(vol, file, -1, 8 * bs_) != 0 ||
                    lib_->FS_UnlockMap(vol.data(), file.data()) != 0;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(Filesystems, LocalFsTest, ::testing::Values(FsKind::kExt4, FsKind::kXfs),
                         [](const auto& info) { return std::string(FsName(info.param)); });

TEST(LocalFsConfigTest, NothingIsServedWithoutExportsOrOnOtherFilesystems) {
  TempDir dir;
  LogCapture log;
  Library lib = LoadLocalFs(dir, "");
  ASSERT_NE(lib, nullptr);
  EXPECT_EQ(CountOf(log.Text(), "Info localfs: no exports in " + dir.File("localfs.conf")), 1);
  setenv("KESTRIX_LOCALFS_CONF", dir.File("missing.conf").c_str(), 1);
  EXPECT_EQ(lib->FS_Init(), 0);
  EXPECT_EQ(CountOf(log.Text(), "Info localfs: no configuration "), 1);

  const std::string tmpfs = dir.File("t");
  UsePrivateMounts();
  mkdir(tmpfs.c_str(), 0755);
  if (mount("tmpfs", tmpfs.c_str(), "tmpfs", 0, nullptr) != 0) GTEST_SKIP() << "no tmpfs mount";
  Unmount unmount{tmpfs};
  WriteFile(tmpfs + "/f", "f");
  WriteFile(dir.File("localfs.conf"), tmpfs + "\n");
  setenv("KESTRIX_LOCALFS_CONF", dir.File("localfs.conf").c_str(), 1);
  EXPECT_EQ(lib->FS_Init(), 0);
  Cookie vol, file;
  EXPECT_EQ(lib->FS_GetCookies(Fsuni(tmpfs + "/f").data(), vol.data(), file.data()),
            LOCALFS_NOT_SERVED);
  EXPECT_EQ(CountOf(log.Text(), "it is on tmpfs, not ext4 or XFS"), 2);
}

}  // namespace
}  // namespace kestrix::test
