// localfs on real ext4 and XFS images, where kestrix-cli cannot reach:
// answers that do not fit the room, cached pages of files written in place
// without a size change, confinement, stale cookies, unsupported
// filesystems, concurrent calls. Maps and transfers are checked end to end
// (tests/e2e/kxcli_transfer_e2e_test.cc).
#include "plugins/localfs/localfs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <linux/fscrypt.h>
#include <linux/fsverity.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <thread>

#include "fsmdc.h"
#include "fsvalidity.h"
#include "support/daemon_process.h"
#include "support/loop_mount.h"
#include "unixmdc/loadlib.h"

namespace kestrix::test {
namespace {

using Cookie = std::array<uint8_t, 32>;
using Library = std::unique_ptr<FsLibrary, void (*)(void*)>;

std::vector<FSUNI> Fsuni(const std::string& ascii) {
  std::vector<FSUNI> units(ascii.begin(), ascii.end());
  units.push_back(0);
  return units;
}

void WriteAt(const std::string& path, int64_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(offset).write(bytes.data(), bytes.size());
}

// Loads the built localfs.so through the daemon's loader, configured by conf.
Library LoadLocalFs(const TempDir& dir, const std::string& conf) {
  WriteFile(dir.File("localfs.conf"), conf);
  std::filesystem::create_directory(dir.File("lib"));
  std::filesystem::create_symlink(KESTRIX_LOCALFS_PLUGIN, dir.File("lib/localfs.so"));
  setenv("KESTRIX_LOCALFS_CONF", dir.File("localfs.conf").c_str(), 1);
  setenv("KESTRIX_LIBDIR", dir.File("lib").c_str(), 1);
  ResetLibraryLoaderForTesting();
  Library lib(FSMDCSP_LoadNextLibrary(), free);
  if (lib && lib->FS_Init() != 0) lib.reset();
  return lib;
}

struct ScopedMount {
  ScopedMount(const std::string& what, const std::string& on, const char* type,
              unsigned long flags)
      : path(on) {
    std::filesystem::create_directory(on);
    ok = mount(what.c_str(), on.c_str(), type, flags, nullptr) == 0;
  }
  ~ScopedMount() { umount2(path.c_str(), MNT_DETACH); }
  std::string path;
  bool ok;
};

constexpr uint32_t kRoom = 65536 - 256;

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
    std::filesystem::create_directory(exp_ = fs_->Path("export"));
    std::filesystem::create_directory(fs_->Path("outside"));
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
             uint32_t room = kRoom, uint32_t flag = 0) {
    std::vector<uint8_t> buffer(room + 1, 0xEE);
    Map m;
    m.status = lib_->FS_GetLockedMap(vol.data(), file.data(), start, length, flag,
                                     reinterpret_cast<FSMapInfo*>(buffer.data()), &room);
    memcpy(&m.info, buffer.data(), sizeof m.info);
    for (int i = 0; i < m.info.nExtents; ++i)
      m.extents.push_back(*reinterpret_cast<VerboseExtent*>(buffer.data() + 64 + 32 * i));
    EXPECT_EQ(buffer.back(), 0xEE);
    return m;
  }
  int Unlock(const Cookie& vol, const Cookie& file) {
    return lib_->FS_UnlockMap(vol.data(), file.data());
  }
  int SetSizes(const Cookie& vol, const Cookie& file, int64_t size, int64_t alloc) {
    return lib_->FS_SetFileSizes(vol.data(), file.data(), 0, size, alloc, -1);
  }
  // Maps and size changes of the file are refused, each with an Error line
  // that names the file (or its other link) and the reason.
  void ExpectRefused(LogCapture& log, const std::string& name, const std::string& reason) {
    Cookie vol, file;
    ASSERT_EQ(Cookies(name, &vol, &file), 0);
    log.Clear();
    EXPECT_EQ(GetMap(vol, file).status, LOCALFS_REFUSED);
    EXPECT_EQ(SetSizes(vol, file, 0, -1), LOCALFS_REFUSED);
    EXPECT_EQ(CountOf(log.Text(), reason), 2);
    const std::string mapError = "Error localfs: FS_GetLockedMap: " + fs_->Path("");
    EXPECT_EQ(CountOf(log.Text(), mapError), 1);
  }
  // The device address of a byte of a mapped file.
  static int64_t Physical(const Map& m, int64_t logical) {
    for (const auto& e : m.extents)
      if (logical >= e.LogicalByteAddr && logical < e.LogicalByteAddr + e.nBytes)
        return e.PhysicalByteAddr + (logical - e.LogicalByteAddr);
    return -1;
  }

  TempDir dir_;
  std::unique_ptr<LoopMount> fs_;
  Library lib_{nullptr, free};
  std::string exp_;
  int64_t bs_ = 0;
};

// A volume's description is written only when it fits the room; a
// refusal carries its status and a text.
TEST_P(LocalFsTest, VolumeDescriptionsKeepToTheRoom) {
  Cookie vol{};
  ASSERT_EQ(lib_->FS_GetVolCookie(Fsuni(exp_).data(), vol.data()), 0);
  Cookie garbled = vol;
  garbled[20] ^= 1;
  const struct {
    const char* what;
    Cookie cookie;
    uint32_t room;
    int status;
  } rows[] = {
      {.what = "room enough", .cookie = vol, .room = 1000, .status = 0},
      {.what = "too little room", .cookie = vol, .room = 150, .status = LOCALFS_NO_ROOM},
      {.what = "garbled cookie", .cookie = garbled, .room = 1000, .status = LOCALFS_STALE},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<uint8_t> buffer(1024, 0xEE);
    auto* v = reinterpret_cast<VolInfo*>(buffer.data());
    uint32_t room = row.room;
    EXPECT_EQ(lib_->FS_GetVolByCookie(row.cookie.data(), v, &room), row.status);
    EXPECT_EQ(buffer[row.room], 0xEE) << "written past the room";
    if (row.status != 0) {
      EXPECT_EQ(v->vendorStatus, row.status);
      EXPECT_NE(buffer[104], 0) << "no error text";
      continue;
    }
    // The disk's ID and its offset are checked by every transfer.
    const int64_t imageBytes = std::filesystem::file_size(fs_->image());
    const bool ext4 = GetParam() == FsKind::kExt4;
    EXPECT_EQ(v->FStype, ext4 ? LOCALFS_FSTYPE_EXT4 : LOCALFS_FSTYPE_XFS);
    EXPECT_EQ(v->BlockSize, bs_);
    EXPECT_EQ(v->nDisks, 1u);
    EXPECT_EQ(VolInfoDisk(v, 0)->nBlocks * bs_, imageBytes);
  }
  FSLONG readMax = -1, writeMax = -1;
  EXPECT_EQ(lib_->FS_GetMaxLeases(vol.data(), &readMax, &writeMax), 0);
  EXPECT_EQ(readMax, 10) << "max-read-lease of the configuration";
  EXPECT_EQ(writeMax, 0);
}

// Data at blocks 0-1, 4-5 and 8-9, a hole at 2-3, an unwritten
// preallocation at 6-7: the map shows all three kinds, a range starts where
// it was asked, and a room for one extent gets that one with status 1.
TEST_P(LocalFsTest, MapsShowEveryKindOfRangeWithinTheRoom) {
  const std::string f = exp_ + "/f";
  int fd = open(f.c_str(), O_CREAT | O_RDWR, 0644);
  for (int64_t block : {0, 1, 4, 5, 8, 9})
    ASSERT_EQ(pwrite(fd, std::string(bs_, 'x').data(), bs_, block * bs_), bs_);
  ASSERT_EQ(fallocate(fd, 0, 6 * bs_, 2 * bs_), 0);
  fsync(fd);
  close(fd);
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  Map m = GetMap(vol, file);
  ASSERT_EQ(m.status, 0);
  ASSERT_EQ(m.info.fileBytes, 10 * bs_);
  std::set<uint32_t> kinds;
  for (const auto& e : m.extents) kinds.insert(e.validity);
  EXPECT_EQ(kinds, (std::set<uint32_t>{FS_VALIDITY_DATA, FS_VALIDITY_HOLE, FS_VALIDITY_UNWRITTEN}));
  Map range = GetMap(vol, file, bs_, 4 * bs_);
  EXPECT_EQ(range.info.fileOffset, bs_);
  EXPECT_EQ(range.info.fileBytes, 4 * bs_);
  EXPECT_EQ(range.extents.at(0).LogicalByteAddr, bs_);
  ASSERT_EQ(m.extents.at(1).validity, uint32_t{FS_VALIDITY_HOLE}) << "the second extent";
  Map one = GetMap(vol, file, 0, -1, 64 + 32);
  ASSERT_EQ(one.status, LOCALFS_PARTIAL);
  ASSERT_EQ(one.extents.size(), 1u);
  EXPECT_EQ(one.info.fileBytes, m.extents[0].nBytes);
  EXPECT_EQ(memcmp(one.extents.data(), m.extents.data(), sizeof(VerboseExtent)), 0);
  EXPECT_EQ(Unlock(vol, file), 0);
}

// A client's write on the disk wins over the server's cached pages: at an
// unlock that changes no size, and when a shrink rewrites the last block.
TEST_P(LocalFsTest, WritesOnTheDiskReplaceCachedPages) {
  const std::string f = exp_ + "/f", old(3 * bs_, 'o');
  WriteFile(f, old);
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  // The server's pages are cached now (no local open while mapped).
  ASSERT_EQ(ReadFile(f), old);
  Map m = GetMap(vol, file);
  WriteAt(fs_->image(), Physical(m, 0), std::string(bs_, 'c'));
  EXPECT_EQ(Unlock(vol, file), 0);
  EXPECT_EQ(ReadFile(f), std::string(bs_, 'c') + old.substr(bs_));

  ASSERT_EQ(ReadFile(f).size(), old.size());  // cached again
  m = GetMap(vol, file);
  WriteAt(fs_->image(), Physical(m, 2 * bs_), std::string(bs_, 'd'));
  EXPECT_EQ(SetSizes(vol, file, 3 * bs_ - 100, 3 * bs_ - 100), 0);
  EXPECT_EQ(Unlock(vol, file), 0);
  EXPECT_EQ(ReadFile(f),
            std::string(bs_, 'c') + std::string(bs_, 'o') + std::string(bs_ - 100, 'd'));
}

// Whatever way a name leads out of the export (.., a symbolic link, a mount
// below it), it gets no cookie.
TEST_P(LocalFsTest, NamesLeadingOutOfTheExportGetNoCookie) {
  const std::string secret = fs_->Path("outside/secret");
  WriteFile(secret, "secret");
  std::filesystem::create_symlink(secret, exp_ + "/abs");
  std::filesystem::create_symlink("../outside/secret", exp_ + "/rel");
  // The outside, bound below the export.
  ScopedMount bound(fs_->Path("outside"), exp_ + "/sub", nullptr, MS_BIND);
  ASSERT_TRUE(bound.ok);
  LogCapture log;
  Cookie vol, file;
  for (const char* name : {"../outside/secret", "abs", "rel", "sub/secret"})
    EXPECT_EQ(Cookies(name, &vol, &file), LOCALFS_NOT_SERVED) << name;
  EXPECT_EQ(CountOf(log.Text(), "leaves export"), 4);
  EXPECT_EQ(lib_->FS_GetVolCookie(Fsuni(exp_ + "/../outside").data(), vol.data()),
            LOCALFS_NOT_SERVED);
  EXPECT_EQ(ReadFile(secret), "secret");
}

// A cookie names the file, not its name: it follows a rename and goes stale
// once the file is gone, even when another file takes its name or inode.
TEST_P(LocalFsTest, CookiesFollowTheFileUntilItIsGone) {
  for (const char* name : {"a", "b", "c"}) WriteFile(exp_ + "/" + name, name);
  std::filesystem::create_symlink("a", exp_ + "/inside");
  Cookie vol, a, b, c;
  ASSERT_EQ(Cookies("inside", &vol, &a), 0);
  ASSERT_EQ(Cookies("b", &vol, &b), 0);
  ASSERT_EQ(Cookies("c", &vol, &c), 0);
  std::filesystem::rename(exp_ + "/a", exp_ + "/renamed");
  EXPECT_EQ(GetMap(vol, a).status, 0);
  EXPECT_EQ(Unlock(vol, a), 0);
  std::filesystem::remove(exp_ + "/renamed");
  WriteFile(exp_ + "/new", "new");  // may take the inode number
  EXPECT_EQ(GetMap(vol, a).status, LOCALFS_STALE);
  EXPECT_EQ(SetSizes(vol, a, 0, -1), LOCALFS_STALE);
  // c replaces b; c is locked, then deleted.
  std::filesystem::rename(exp_ + "/c", exp_ + "/b");
  EXPECT_EQ(GetMap(vol, b).status, LOCALFS_STALE);
  EXPECT_EQ(GetMap(vol, c).status, 0);
  std::filesystem::remove(exp_ + "/b");
  EXPECT_EQ(GetMap(vol, c).status, LOCALFS_STALE);
  EXPECT_EQ(Unlock(vol, c), 0);
  c[0] ^= 1;
  EXPECT_EQ(GetMap(vol, c).status, LOCALFS_BAD_COOKIE);
}

TEST_P(LocalFsTest, EntryPointsAreSafeOnSeveralThreads) {
  WriteFile(exp_ + "/f", std::string(4 * bs_, 'x'));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        Cookie vol, file;
        failures += Cookies("f", &vol, &file) != 0 || GetMap(vol, file).status != 0 ||
                    SetSizes(vol, file, -1, 8 * bs_) != 0 || Unlock(vol, file) != 0;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, 0);
}

// A local change of a file with a map out waits until the map ends, and
// meanwhile the file's maps and size changes are refused. A map for reading
// lets local readers through; no map is given while the file is open
// elsewhere in a way that would keep its changes from waiting.
TEST_P(LocalFsTest, LocalChangesWaitUntilTheMapEnds) {
  const std::string f = exp_ + "/f";
  auto opening = [](int flags) {
    return [flags](const std::string& path) {
      int fd = open(path.c_str(), flags);
      return fd < 0 ? -1 : close(fd);
    };
  };
  auto truncating = [](const std::string& path) { return truncate(path.c_str(), 0); };
  auto punching = [this](const std::string& path) {
    int fd = open(path.c_str(), O_RDWR);
    int r = fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, bs_);
    return close(fd) | r;
  };
  auto cloning = [](const std::string& path) {  // ext4 has none; its open waits all the same
    int from = open(path.c_str(), O_RDONLY);
    int to = open((path + ".copy").c_str(), O_CREAT | O_WRONLY, 0644);
    int r = ioctl(to, FICLONE, from) == 0 || errno == EOPNOTSUPP ? 0 : -1;
    return close(from) | close(to) | r;
  };
  constexpr uint32_t kForReading = LOCALFS_MAP_READ_ONLY;
  struct Row {
    const char* change;
    uint32_t flag;                               // of the map
    std::function<int(const std::string&)> run;  // 0 once the change is made
    bool waits;
  };
  const Row rows[] = {
      {.change = "open for writing", .flag = 0, .run = opening(O_WRONLY), .waits = true},
      {.change = "open for reading", .flag = 0, .run = opening(O_RDONLY), .waits = true},
      {.change = "truncation", .flag = 0, .run = truncating, .waits = true},
      {.change = "hole punch", .flag = 0, .run = punching, .waits = true},
      {.change = "clone", .flag = 0, .run = cloning, .waits = true},
      {.change = "open for writing, map for reading",
       .flag = kForReading, .run = opening(O_WRONLY), .waits = true},
      {.change = "open for reading, map for reading",
       .flag = kForReading, .run = opening(O_RDONLY), .waits = false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.change);
    WriteFile(f, std::string(2 * bs_, 'x'));
    Cookie vol, file;
    ASSERT_EQ(Cookies("f", &vol, &file), 0);
    ASSERT_EQ(GetMap(vol, file, 0, -1, kRoom, row.flag).status, 0);
    std::atomic<int> result{1};
    std::thread change([&] { result = row.run(f); });
    if (row.waits) {
      auto withdrawn = [&] {
        return GetMap(vol, file, 0, -1, kRoom, row.flag).status == LOCALFS_WITHDRAWN;
      };
      EXPECT_TRUE(PollUntil(withdrawn, 5000));
      EXPECT_EQ(result.load(), 1) << "the change went ahead under the map";
      EXPECT_EQ(SetSizes(vol, file, -1, 4 * bs_), LOCALFS_WITHDRAWN);
      EXPECT_EQ(Unlock(vol, file), 0);
    }
    change.join();
    EXPECT_EQ(result.load(), 0) << "the change failed";
    EXPECT_EQ(GetMap(vol, file, 0, -1, kRoom, row.flag).status, 0);
    EXPECT_EQ(Unlock(vol, file), 0);
  }
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  int reader = open(f.c_str(), O_RDONLY);
  EXPECT_EQ(GetMap(vol, file).status, LOCALFS_BUSY);
  EXPECT_EQ(GetMap(vol, file, 0, -1, kRoom, LOCALFS_MAP_READ_ONLY).status, 0);
  EXPECT_EQ(SetSizes(vol, file, 0, -1), LOCALFS_BUSY);
  EXPECT_EQ(Unlock(vol, file), 0);
  close(reader);
}

// Files whose blocks do not hold their bytes as they read, and files with a
// second name, are refused, each with its name and the reason in the log.
// Encryption, verity and journalled data are tried on ext4 only.
TEST_P(LocalFsTest, FilesThatCannotBeMappedTruthfullyAreRefused) {
  // Each maker returns "" when the file is made, else why it cannot be here.
  auto linking = [this](const std::string& f) -> std::string {
    return link(f.c_str(), fs_->Path("outside/link").c_str()) == 0 ? "" : "no link";
  };
  auto encrypting = [this](const std::string& f) -> std::string {
    if (RunToExit(FindProgram("tune2fs"), {"-O", "encrypt", fs_->device()}, {}).exitStatus != 0)
      return "tune2fs failed";
    std::filesystem::remove(f);  // the policy is set on an empty directory
    std::vector<uint8_t> arg(sizeof(fscrypt_add_key_arg) + 64, 7);
    auto* key = reinterpret_cast<fscrypt_add_key_arg*>(arg.data());
    *key = {};
    key->key_spec.type = FSCRYPT_KEY_SPEC_TYPE_IDENTIFIER;
    key->raw_size = 64;
    fscrypt_policy_v2 policy = {.version = FSCRYPT_POLICY_V2,
                                .contents_encryption_mode = FSCRYPT_MODE_AES_256_XTS,
                                .filenames_encryption_mode = FSCRYPT_MODE_AES_256_CTS,
                                .flags = FSCRYPT_POLICY_FLAGS_PAD_32, .__reserved = {},
                                .master_key_identifier = {}};
    int root = open(exp_.c_str(), O_RDONLY | O_DIRECTORY);
    int dir = open(fs_->Path("export/secret").c_str(), O_RDONLY);
    bool made = ioctl(root, FS_IOC_ADD_ENCRYPTION_KEY, key) == 0;
    if (made) {
      memcpy(policy.master_key_identifier, key->key_spec.u.identifier, 16);
      made = ioctl(dir, FS_IOC_SET_ENCRYPTION_POLICY, &policy) == 0;
    }
    const int error = errno;
    close(root);
    close(dir);
    if (made) WriteFile(f, "plain");
    return made ? "" : std::string("no encryption here: ") + strerror(error);
  };
  auto protecting = [this](const std::string& f) -> std::string {
    if (RunToExit(FindProgram("tune2fs"), {"-O", "verity", fs_->device()}, {}).exitStatus != 0)
      return "tune2fs cannot give the filesystem verity";
    fsverity_enable_arg arg = {};
    arg.version = 1;
    arg.hash_algorithm = FS_VERITY_HASH_ALG_SHA256;
    arg.block_size = 4096;
    int fd = open(f.c_str(), O_RDONLY);
    const bool made = ioctl(fd, FS_IOC_ENABLE_VERITY, &arg) == 0;
    const int error = errno;
    close(fd);
    return made ? "" : std::string("no verity in this kernel: ") + strerror(error);
  };
  // The flag needs CAP_SYS_RESOURCE; without it the whole mount journals its
  // data.
  auto journalling = [this](const std::string& f) -> std::string {
    int fd = open(f.c_str(), O_RDONLY), flags = 0;
    bool made = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags |= FS_JOURNAL_DATA_FL;
    made = made && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    close(fd);
    if (made) return "";
    const std::vector<std::string> journalMount = {"-o", "loop,data=journal", "-t", "ext4",
                                                   fs_->image(), fs_->Path("")};
    made = RunToExit(FindProgram("umount"), {fs_->Path("")}, {}).exitStatus == 0 &&
           RunToExit(FindProgram("mount"), journalMount, {}).exitStatus == 0 &&
           lib_->FS_Init() == 0;
    return made ? "" : "no data=journal mount";
  };
  struct Row {
    const char* name;
    bool ext4Only;
    std::function<std::string(const std::string&)> make;
    const char* reason;
  };
  const Row rows[] = {
      {.name = "linked", .ext4Only = false, .make = linking, .reason = "the file has 2 names"},
      {.name = "secret/encrypted", .ext4Only = true, .make = encrypting,
       .reason = "the file is encrypted"},
      {.name = "verity", .ext4Only = true, .make = protecting,
       .reason = "the file is protected by verity"},
      // Last, as it remounts.
      {.name = "journalled", .ext4Only = true, .make = journalling,
       .reason = "the file's data is journalled"},
  };
  std::filesystem::create_directory(exp_ + "/secret");
  LogCapture log;
  std::string skipped;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string f = exp_ + "/" + row.name;
    WriteFile(f, "data");
    if (row.ext4Only && GetParam() != FsKind::kExt4) continue;
    if (std::string no = row.make(f); !no.empty()) {
      fprintf(stderr, "SKIPPED: %s file not tried: %s\n", row.name, no.c_str());
      skipped += std::string(" ") + row.name + ": " + no + ";";
      continue;
    }
    ExpectRefused(log, row.name, row.reason);
  }
  if (!skipped.empty()) GTEST_SKIP() << "not tried here:" << skipped;
}

// The export is the directory it was at start-up: one put in its place, even
// a symbolic link to the same directory, is not followed.
TEST_P(LocalFsTest, AnExportReplacedAfterStartUpIsRefused) {
  WriteFile(exp_ + "/f", "f");
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  std::filesystem::rename(exp_, fs_->Path("moved"));
  std::filesystem::create_symlink(fs_->Path("moved"), exp_);
  LogCapture log;
  EXPECT_EQ(Cookies("f", &vol, &file), LOCALFS_NOT_SERVED);
  EXPECT_EQ(GetMap(vol, file).status, LOCALFS_STALE);
  EXPECT_EQ(CountOf(log.Text(), exp_ + " is no longer the directory it was at start-up"), 2);
}

// An allocation comes in parts of at most max-growth, written on the disk:
// no range left unwritten to read as zeros over what a client writes, no
// bytes of deleted files for a client to read.
TEST_P(LocalFsTest, AllocationsComeWrittenInPartsOfAtMostMaxGrowth) {
  const int64_t mib = 1 << 20;
  WriteFile(dir_.File("localfs.conf"), exp_ + "\nmax-growth 1\n");
  ASSERT_EQ(lib_->FS_Init(), 0);
  WriteFile(exp_ + "/old", std::string(8 * mib, 'o'));  // blocks that will be free and not zero
  sync();
  std::filesystem::remove(exp_ + "/old");
  const std::string f = exp_ + "/f";
  WriteFile(f, "");
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  std::vector<int64_t> sizes;
  for (int call = 0; call < 3; ++call) {
    ASSERT_EQ(SetSizes(vol, file, -1, 3 * mib), 0);
    sizes.push_back(GetMap(vol, file).info.fileSize);
  }
  EXPECT_EQ(sizes, (std::vector<int64_t>{mib, 2 * mib, 3 * mib}));
  Map m = GetMap(vol, file);
  std::ifstream image(fs_->image(), std::ios::binary);
  for (const auto& e : m.extents) {
    std::string onDisk(e.nBytes, '?');
    image.seekg(e.PhysicalByteAddr).read(onDisk.data(), e.nBytes);
    EXPECT_EQ(e.validity, uint32_t{FS_VALIDITY_DATA});
    EXPECT_EQ(std::count(onDisk.begin(), onDisk.end(), '\0'), e.nBytes) << "not all zeros";
  }
  WriteAt(fs_->image(), Physical(m, 2 * mib + 5), "client");
  EXPECT_EQ(Unlock(vol, file), 0);
  EXPECT_EQ(ReadFile(f).substr(2 * mib, 12), std::string(5, '\0') + "client" + '\0');
}

// A size beyond the free space, or a negative one, is refused with the file unchanged.
TEST_P(LocalFsTest, SizesBeyondTheFreeSpaceOrBelowZeroChangeNothing) {
  const std::string f = exp_ + "/f";
  WriteFile(f, "data");
  Cookie vol, file;
  ASSERT_EQ(Cookies("f", &vol, &file), 0);
  struct statvfs sv;
  struct stat before, after;
  ASSERT_EQ(statvfs(exp_.c_str(), &sv) | stat(f.c_str(), &before), 0);
  const auto wholeFs = static_cast<int64_t>(sv.f_blocks * sv.f_frsize);
  EXPECT_EQ(SetSizes(vol, file, 10, wholeFs), LOCALFS_NO_SPACE);
  EXPECT_EQ(SetSizes(vol, file, -5, -1), LOCALFS_INVALID);
  ASSERT_EQ(stat(f.c_str(), &after), 0);
  EXPECT_EQ(after.st_size, before.st_size);
  EXPECT_EQ(after.st_blocks, before.st_blocks);
}

INSTANTIATE_TEST_SUITE_P(Filesystems, LocalFsTest,
                         ::testing::Values(FsKind::kExt4, FsKind::kXfs),
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

  UsePrivateMounts();
  ScopedMount tmpfs("tmpfs", dir.File("t"), "tmpfs", 0);
  if (!tmpfs.ok) GTEST_SKIP() << "no tmpfs mount";
  WriteFile(tmpfs.path + "/f", "f");
  WriteFile(dir.File("localfs.conf"), tmpfs.path + "\n");
  setenv("KESTRIX_LOCALFS_CONF", dir.File("localfs.conf").c_str(), 1);
  EXPECT_EQ(lib->FS_Init(), 0);
  Cookie vol, file;
  EXPECT_EQ(lib->FS_GetCookies(Fsuni(tmpfs.path + "/f").data(), vol.data(), file.data()),
            LOCALFS_NOT_SERVED);
  EXPECT_EQ(CountOf(log.Text(), "it is on tmpfs, not ext4 or XFS"), 2);
}

}  // namespace
}  // namespace kestrix::test
