// localfs: the ten entry points of the filesystem library that serves the
// exported directories of local ext4 and XFS filesystems.
//
// Volumes and files are named by stateless cookies (cookies.h); every call
// opens what it needs afresh, so nothing is cached but the configuration
// (read by FS_Init) and the files whose maps are locked (locks.h), each
// held with a kernel lease so that local changes wait (leases.h); a locked
// file is used through the descriptor its lease is on, as opening it again
// would break that lease. Paths
// stay inside their export (exports.h); maps come from FIEMAP (filemap.h),
// and only of files whose blocks hold their bytes (filekind.h).
// Entry points never trust their arguments: null pointers, foreign cookies
// and rooms too small give a status, and what they write stays within the
// room.
#include "plugins/localfs/localfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>

#include "fslibrary.h"
#include "fsmdc.h"
#include "plugins/localfs/cookies.h"
#include "plugins/localfs/exports.h"
#include "plugins/localfs/filekind.h"
#include "plugins/localfs/filemap.h"
#include "plugins/localfs/leases.h"
#include "plugins/localfs/lfs_util.h"
#include "plugins/localfs/locks.h"
#include "plugins/localfs/volume.h"
#include "utils/log.h"

#define LOCALFS_EXPORT extern "C" __attribute__((visibility("default")))

namespace localfs {
namespace {

constexpr int kDaemonWriteLease = 3600;  // seconds: the daemon's write lease by default
constexpr int kPurgeGraceSeconds = 30;   // the daemon ends a lease this long after it ran out
constexpr int kLeaseAttempts = 50;       // 2 ms apart

std::mutex g_configMutex;
std::shared_ptr<const Config> g_config = std::make_shared<const Config>();
std::atomic<int*> g_level{nullptr};
LockTable g_locks;

std::shared_ptr<const Config> CurrentConfig() {
  std::lock_guard<std::mutex> guard(g_configMutex);
  return g_config;
}

// Per-call traces are built only when the daemon's level will print them.
bool Tracing() {
  int* level = g_level.load();
  return level == nullptr || __atomic_load_n(level, __ATOMIC_RELAXED) >= KSX_DEBUG1;
}

int StatusOfErrno(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return LOCALFS_NO_SPACE;
    case EFBIG:
    case EINVAL:
      return LOCALFS_INVALID;
    case ESTALE:
    case ENOENT:
      return LOCALFS_STALE;
    default:
      return LOCALFS_IO_ERROR;
  }
}

// A regular file that is still linked somewhere.
int CheckLive(int fd, std::string* why) {
  struct stat st;
  if (fstat(fd, &st) != 0) {
    *why = "cannot examine the file: " + ErrnoText(errno);
    return LOCALFS_IO_ERROR;
  }
  if (!S_ISREG(st.st_mode) || st.st_nlink == 0) {
    *why = "the file was deleted or replaced";
    return LOCALFS_STALE;
  }
  return 0;
}

// Writes back and forgets the file's cached pages: a client may have
// written its blocks on the disk directly.
void DropCache(int fd) {
  fdatasync(fd);
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
}

// The export a volume cookie names, opened, after checking that it still
// lies on the cookie's filesystem.
int OpenVolume(const uint8_t* volCookie, VolCookie* vc, UniqueFd* dir, std::string* why) {
  if (!ParseVolCookie(volCookie, vc)) {
    *why = "not a volume cookie of this library";
    return LOCALFS_BAD_COOKIE;
  }
  auto config = CurrentConfig();
  if (vc->exportIndex >= config->exports.size()) {
    *why = "the cookie names no export";
    return LOCALFS_BAD_COOKIE;
  }
  const Export& e = config->exports[vc->exportIndex];
  std::string reason;
  bool replaced = false;
  *dir = OpenExport(e, &reason, &replaced);
  struct stat st;
  if (replaced) {
    *why = "the volume is gone: export " + e.path + ": " + reason;
    return LOCALFS_STALE;
  }
  if (!dir->ok() || fstat(dir->get(), &st) != 0 || st.st_dev != vc->dev) {
    *why = "the volume is gone: " + e.path + " is no longer on the cookie's filesystem";
    return LOCALFS_STALE;
  }
  return 0;
}

// Checks a pair of cookies and opens their export.
int CheckCookies(const uint8_t* volCookie, const uint8_t* fileCookie, UniqueFd* dir,
                 std::string* why) {
  VolCookie vc;
  if (int status = OpenVolume(volCookie, &vc, dir, why); status != 0) return status;
  uint8_t fileExport = 0;
  if (!ParseFileCookie(fileCookie, &fileExport) || fileExport != vc.exportIndex) {
    *why = "not a file cookie of this volume";
    return LOCALFS_BAD_COOKIE;
  }
  return 0;
}

// Opens the file a cookie names below its export, without waiting for
// another holder's lease (EWOULDBLOCK instead).
int OpenCookie(int dirFd, const uint8_t* fileCookie, int flags, UniqueFd* out, std::string* why,
               int* error = nullptr) {
  int fd = OpenFileCookie(dirFd, fileCookie, flags | O_NONBLOCK);
  if (error != nullptr) *error = fd < 0 ? -fd : 0;
  if (fd == -EWOULDBLOCK) {
    *why = "another holder of a lease on the file keeps it";
    return LOCALFS_BUSY;
  }
  if (fd < 0) {
    *why = -fd == ESTALE ? "the file was deleted or replaced"
                         : "cannot open the file: " + ErrnoText(-fd);
    return StatusOfErrno(-fd);
  }
  *out = UniqueFd(fd);
  return 0;
}

// Opens, checks and leases a file for its first map. A map for writing
// needs a write lease, which the kernel grants only while no other
// descriptor of the file is open; a map for reading needs a read lease,
// granted while none is open for writing. Where the lease cannot be had the
// map is refused: local changes could not be held off.
int OpenAndLease(int dirFd, const uint8_t* fileCookie, bool forWriting, OpenFile* out,
                 std::string* why) {
  auto file = std::make_shared<LockedFile>();
  int status = 0;
  if (forWriting) {
    status = OpenCookie(dirFd, fileCookie, O_RDWR, &file->fd, why, &file->writeError);
    // A file that cannot be written locally either (a read-only mount, an
    // immutable file) is still held; only its sizes cannot change.
    if (status == LOCALFS_IO_ERROR)
      status = OpenCookie(dirFd, fileCookie, O_RDONLY, &file->fd, why);
    file->writable = status == 0 && file->writeError == 0;
  } else {
    status = OpenCookie(dirFd, fileCookie, O_RDONLY, &file->fd, why);
  }
  if (status == 0) status = CheckLive(file->fd.get(), why);
  if (status == 0) status = CheckMappable(file->fd.get(), true, why);
  if (status != 0) return status;
  file->leaseType = forWriting ? F_WRLCK : F_RDLCK;
  // The library's own descriptors of the file stand in the way for the
  // moment they are in use: one of an unlock on another thread, or one
  // opened for a single call.
  int error = TakeLease(file->fd.get(), file->leaseType);
  for (int attempt = 0; error == -EAGAIN && attempt < kLeaseAttempts; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    error = TakeLease(file->fd.get(), file->leaseType);
  }
  if (error != 0) {
    *why = PathOf(file->fd.get()) + ": ";
    *why += error != -EAGAIN ? "no file lease: " + ErrnoText(-error)
           : forWriting     ? "the file is open elsewhere, so local changes of it could not be "
                              "held off while it is written"
                            : "the file is open for writing elsewhere, so local changes of it "
                              "could not be held off while it is read";
    return LOCALFS_BUSY;
  }
  *out = std::move(file);
  return 0;
}

// The locked file of a pair of cookies, locked now when it is not yet, and
// checked on every call: still linked, still mappable, not withdrawn, and
// held for writing when a map for writing asks.
int LockFile(const uint8_t* volCookie, const uint8_t* fileCookie, bool forWriting, OpenFile* out,
             std::string* why) {
  UniqueFd dir;
  if (int status = CheckCookies(volCookie, fileCookie, &dir, why); status != 0) return status;
  OpenFile file = g_locks.Find(fileCookie);
  if (file == nullptr) {
    std::lock_guard<std::mutex> guard(g_locks.FirstLockMutex());
    file = g_locks.Find(fileCookie);
    if (file == nullptr) {
      if (int status = OpenAndLease(dir.get(), fileCookie, forWriting, &file, why); status != 0)
        return status;
      file = g_locks.Insert(fileCookie, std::move(file));
      *out = file;
      return 0;
    }
  }
  *out = file;
  if (file->withdrawn.load()) {
    *why = PathOf(file->fd.get()) + ": a local process waits to change the file; its maps are "
           "refused until they end";
    return LOCALFS_WITHDRAWN;
  }
  if (forWriting && file->leaseType != F_WRLCK) {
    *why = PathOf(file->fd.get()) + ": the file is mapped for reading only, so local changes "
           "are held off only as far as reading needs";
    return LOCALFS_BUSY;
  }
  if (int status = CheckLive(file->fd.get(), why); status != 0) return status;
  return CheckMappable(file->fd.get(), false, why);
}

// The file whose sizes a call changes: its locked descriptor while it is
// mapped (held for writing, and not withdrawn: opening it again would break
// the library's own lease), else one opened for the call.
int OpenForSizes(const uint8_t* volCookie, const uint8_t* fileCookie, OpenFile* locked,
                 UniqueFd* fresh, std::string* why) {
  UniqueFd dir;
  if (int status = CheckCookies(volCookie, fileCookie, &dir, why); status != 0) return status;
  *locked = g_locks.Find(fileCookie);
  const LockedFile* file = locked->get();
  if (file != nullptr && file->withdrawn.load()) {
    *why = PathOf(file->fd.get()) + ": a local process waits to change the file; its maps are "
           "refused until they end";
    return LOCALFS_WITHDRAWN;
  }
  if (file != nullptr && !file->writable) {
    if (file->writeError != 0) {
      *why = "cannot open the file for writing: " + ErrnoText(file->writeError);
      return StatusOfErrno(file->writeError);
    }
    *why = "the file is mapped for reading only, so its sizes cannot change";
    return LOCALFS_BUSY;
  }
  if (file == nullptr) {
    // Opened under the first-lock mutex, so that it does not break the
    // lease of a first lock on another thread.
    std::lock_guard<std::mutex> guard(g_locks.FirstLockMutex());
    *locked = g_locks.Find(fileCookie);
    if (*locked != nullptr) return OpenForSizes(volCookie, fileCookie, locked, fresh, why);
    if (int status = OpenCookie(dir.get(), fileCookie, O_RDWR, fresh, why); status != 0)
      return status;
  }
  const int fd = file != nullptr ? file->fd.get() : fresh->get();
  if (int status = CheckLive(fd, why); status != 0) return status;
  return CheckMappable(fd, file == nullptr, why);
}

// A client's path opened inside its export, with the export and its volume.
struct Resolved {
  size_t exportIndex = 0;
  Volume volume;
  UniqueFd fd;
};

// Resolves a path for an entry point; every refusal is logged.
int Resolve(const char* entry, const FSUNI* text, int flags, Resolved* r) {
  std::string path;
  if (!Utf8FromFsuni(text, &path)) {
    OSL_Log(KSX_ERROR, "localfs: %s: no path, or none ending within %zu units; refused\n", entry,
            kMaxPathUnits);
    return LOCALFS_NOT_SERVED;
  }
  auto config = CurrentConfig();
  auto match = FindExport(*config, path);
  if (!match) {
    if (Tracing()) {
      OSL_Log(KSX_DEBUG1, "localfs: %s: %s is in no export\n", entry, Escaped(path).c_str());
    }
    return LOCALFS_NOT_SERVED;
  }
  const Export& e = config->exports[match->index];
  std::string why;
  UniqueFd dir = OpenExport(e, &why);
  if (!dir.ok() || ProbeVolume(dir.get(), &r->volume, &why) != 0) {
    OSL_Log(KSX_ERROR, "localfs: %s: %s refused: export %s: %s\n", entry, Escaped(path).c_str(),
            Escaped(e.path).c_str(), Escaped(why).c_str());
    return LOCALFS_NOT_SERVED;
  }
  int fd = OpenBeneath(dir.get(), match->below, flags);
  if (fd == -EXDEV || fd == -ELOOP) {
    OSL_Log(KSX_ERROR, "localfs: %s: %s leaves export %s; refused\n", entry, Escaped(path).c_str(),
            Escaped(e.path).c_str());
    return LOCALFS_NOT_SERVED;
  }
  if (fd < 0) {
    if (Tracing()) {
      OSL_Log(KSX_DEBUG1, "localfs: %s: %s: %s\n", entry, Escaped(path).c_str(),
              ErrnoText(-fd).c_str());
    }
    return LOCALFS_NOT_SERVED;
  }
  r->fd = UniqueFd(fd);
  r->exportIndex = match->index;
  return 0;
}

VolCookie CookieOf(const Resolved& r) {
  VolCookie vc;
  vc.exportIndex = static_cast<uint8_t>(r.exportIndex);
  vc.dev = r.volume.dev;
  memcpy(vc.uuid, r.volume.uuid, sizeof vc.uuid);
  return vc;
}

// A volume description that carries a status and its reason instead of disks.
FSLONG VolumeError(uint8_t* out, uint32_t room, const uint8_t* cookie, int status,
                   const std::string& why) {
  OSL_Log(KSX_ERROR, "localfs: FS_GetVolByCookie: %s\n", Escaped(why).c_str());
  VolInfo v = {};
  v.vendorStatus = status;
  if (cookie != nullptr) memcpy(v.Cookie, cookie, sizeof v.Cookie);
  size_t text = WriteFsuni(out + VOLINFO_FIXED_SIZE, room - VOLINFO_FIXED_SIZE, why);
  v.msgLen = static_cast<FSLONG>(VOLINFO_FIXED_SIZE + text);
  memcpy(out, &v, sizeof v);
  return status;
}

// A map that carries a status and its reason instead of extents.
FSLONG MapError(uint8_t* out, uint32_t room, FS64LONG start, int status, const char* entry,
                const std::string& why) {
  OSL_Log(KSX_ERROR, "localfs: %s: %s\n", entry, Escaped(why).c_str());
  FSMapInfo m = {};
  m.msgLen = FSMAPINFO_FIXED_SIZE;
  m.vendorStatus = status;
  m.extentType = FS_EXTENT_VERBOSE;
  m.fileOffset = start;
  memcpy(out, &m, sizeof m);
  WriteFsuni(out + FSMAPINFO_FIXED_SIZE, room - FSMAPINFO_FIXED_SIZE, why);
  return status;
}

// How long a local change waits for the maps of a file, against how long a
// client may keep using a map: the longest lease and the daemon's grace
// after it. A shorter wait lets the change go ahead under a live map.
void ReportLeaseBreakTime(const Config& config) {
  const int breakSeconds = LeaseBreakSeconds();
  const int longest = std::max(config.maxWriteLease > 0 ? config.maxWriteLease : kDaemonWriteLease,
                               config.maxReadLease);
  if (breakSeconds < 0) {
    OSL_Log(KSX_ERROR, "localfs: cannot read /proc/sys/fs/lease-break-time\n");
  } else if (breakSeconds <= longest + kPurgeGraceSeconds) {
    OSL_Log(KSX_ERROR,
            "localfs: /proc/sys/fs/lease-break-time is %d s, not above the longest lease (%d s) "
            "and %d s of grace: a local change may go ahead while a client still uses its map\n",
            breakSeconds, longest, kPurgeGraceSeconds);
  } else {
    OSL_Log(KSX_INFO, "localfs: local changes of mapped files wait up to %d s\n", breakSeconds);
  }
}

}  // namespace
}  // namespace localfs

using namespace localfs;

LOCALFS_EXPORT FSLONG FS_GetVersion(void) { return LOCALFS_VERSION; }

LOCALFS_EXPORT FSLONG FS_Init(void) {
  auto config = std::make_shared<const Config>(LoadConfig());
  StartLeaseWatcher(&g_locks);
  ReportLeaseBreakTime(*config);
  std::lock_guard<std::mutex> guard(g_configMutex);
  g_config = std::move(config);
  return 0;
}

LOCALFS_EXPORT FSLONG FS_SetLog(int* levelPointer, void* reserved) {
  g_level.store(levelPointer);
  return 0;
}

LOCALFS_EXPORT FSLONG FS_GetVolCookie(const FSUNI* mountPoint, uint8_t* volumeCookieOut) {
  if (volumeCookieOut == nullptr) return LOCALFS_INVALID;
  Resolved r;
  int status = Resolve("FS_GetVolCookie", mountPoint, O_PATH | O_DIRECTORY, &r);
  if (status == 0) MakeVolCookie(CookieOf(r), volumeCookieOut);
  return status;
}

LOCALFS_EXPORT FSLONG FS_GetVolByCookie(const uint8_t* volumeCookie, struct VolInfo* info,
                                        FSULONG* room) {
  if (info == nullptr || room == nullptr) return LOCALFS_INVALID;
  auto* out = reinterpret_cast<uint8_t*>(info);
  const uint32_t roomBytes = *room;
  if (roomBytes < VOLINFO_FIXED_SIZE) {
    OSL_Log(KSX_ERROR, "localfs: FS_GetVolByCookie: a room of %u bytes holds no volume\n",
            roomBytes);
    return LOCALFS_NO_ROOM;
  }
  VolCookie vc;
  UniqueFd dir;
  std::string why;
  int status = OpenVolume(volumeCookie, &vc, &dir, &why);
  Volume v;
  if (status == 0) status = ProbeVolume(dir.get(), &v, &why);
  if (status == 0 && (v.dev != vc.dev || memcmp(v.uuid, vc.uuid, sizeof v.uuid) != 0)) {
    why = "the volume is gone: its filesystem was replaced";
    status = LOCALFS_STALE;
  }
  if (status == 0 && roomBytes < VOLINFO_FIXED_SIZE + FSDISK_SIZE) {
    why = "a room of " + std::to_string(roomBytes) + " bytes is too small for a volume of " +
          std::to_string(VOLINFO_FIXED_SIZE + FSDISK_SIZE) + " bytes";
    status = LOCALFS_NO_ROOM;
  }
  if (status != 0) return VolumeError(out, roomBytes, volumeCookie, status, why);

  VolInfo info0 = {};
  info0.msgLen = VOLINFO_FIXED_SIZE + FSDISK_SIZE;
  info0.FStype = v.fsType;
  info0.nDisks = 1;
  info0.BlockSize = static_cast<FSLONG>(v.blockSize);
  memcpy(info0.Cookie, volumeCookie, sizeof info0.Cookie);
  FSDisk disk = {};
  memcpy(disk.DiskID, v.uuid, sizeof disk.DiskID);
  disk.IDoffset = static_cast<FS64LONG>(v.uuidOffset);
  disk.IDlength = sizeof v.uuid;
  disk.BlockOffset = 0;
  disk.nBlocks = static_cast<FS64LONG>(v.deviceBytes / v.blockSize);
  memcpy(out, &info0, sizeof info0);
  memcpy(out + VOLINFO_FIXED_SIZE, &disk, sizeof disk);
  return 0;
}

LOCALFS_EXPORT FSLONG FS_GetCookies(const FSUNI* path, uint8_t* volumeCookieOut,
                                    uint8_t* fileCookieOut) {
  if (volumeCookieOut == nullptr || fileCookieOut == nullptr) return LOCALFS_INVALID;
  Resolved r;
  if (int status = Resolve("FS_GetCookies", path, O_PATH, &r); status != 0) return status;
  struct stat st;
  if (fstat(r.fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    if (Tracing()) OSL_Log(KSX_DEBUG1, "localfs: FS_GetCookies: not a regular file\n");
    return LOCALFS_NOT_SERVED;
  }
  uint8_t fileCookie[kCookieSize];
  if (int error = MakeFileCookie(r.fd.get(), static_cast<uint8_t>(r.exportIndex), fileCookie);
      error != 0) {
    OSL_Log(KSX_ERROR, "localfs: FS_GetCookies: no file handle: %s\n", ErrnoText(-error).c_str());
    return LOCALFS_IO_ERROR;
  }
  MakeVolCookie(CookieOf(r), volumeCookieOut);
  memcpy(fileCookieOut, fileCookie, sizeof fileCookie);
  return 0;
}

LOCALFS_EXPORT FSLONG FS_GetLockedMap(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                      FS64LONG start, FS64LONG length, FSULONG flags,
                                      struct FSMapInfo* map, FSULONG* room) {
  if (map == nullptr || room == nullptr) return LOCALFS_INVALID;
  auto* out = reinterpret_cast<uint8_t*>(map);
  const uint32_t roomBytes = *room;
  if (roomBytes < FSMAPINFO_FIXED_SIZE) {
    OSL_Log(KSX_ERROR, "localfs: FS_GetLockedMap: a room of %u bytes holds no map\n", roomBytes);
    return LOCALFS_NO_ROOM;
  }
  std::string why;
  if (start < 0)
    return MapError(out, roomBytes, start, LOCALFS_INVALID, "FS_GetLockedMap",
                    "a negative start of " + std::to_string(start));
  // The cookies and the file are checked on every call; the first map call
  // locks and leases the file, later ones use the descriptor already locked.
  OpenFile file;
  const bool forWriting = (flags & LOCALFS_MAP_READ_ONLY) == 0;
  int status = LockFile(volumeCookie, fileCookie, forWriting, &file, &why);
  if (status == 0) status = WriteMap(file->fd.get(), start, length, out, roomBytes, &why);
  if (status != 0 && status != LOCALFS_PARTIAL) {
    return MapError(out, roomBytes, start, status, "FS_GetLockedMap", why);
  }
  if (Tracing()) {
    OSL_Log(KSX_DEBUG1, "localfs: FS_GetLockedMap start %lld length %lld: status %d\n",
            static_cast<long long>(start), static_cast<long long>(length), status);
  }
  return status;
}

LOCALFS_EXPORT FSLONG FS_UnlockMap(const uint8_t* volumeCookie, const uint8_t* fileCookie) {
  VolCookie vc;
  uint8_t fileExport = 0;
  if (!ParseVolCookie(volumeCookie, &vc) || !ParseFileCookie(fileCookie, &fileExport)) {
    OSL_Log(KSX_ERROR, "localfs: FS_UnlockMap: not a cookie of this library\n");
    return LOCALFS_BAD_COOKIE;
  }
  if (OpenFile file = g_locks.Find(fileCookie)) DropCache(file->fd.get());
  OpenFile file;
  {
    // The lease goes with the entry, before a first lock on another thread
    // opens the file again: such an open would break it.
    std::lock_guard<std::mutex> guard(g_locks.FirstLockMutex());
    file = g_locks.Remove(fileCookie);
    if (file != nullptr) ReleaseLease(file->fd.get());
  }
  if (file != nullptr) {
    // The local change that waited goes ahead now.
    if (file->withdrawn.load()) {
      OSL_Log(KSX_INFO, "localfs: the maps of %s ended; its local change goes ahead\n",
              Escaped(PathOf(file->fd.get())).c_str());
    }
  }
  return 0;
}

LOCALFS_EXPORT FSLONG FS_SetFileSizes(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                      FSLONG zero, FS64LONG fileSize, FS64LONG allocSize,
                                      FS64LONG allOnes) {
  std::string why;
  OpenFile locked;
  UniqueFd fresh;
  int status = 0;
  if (fileSize < -1 || allocSize < -1) {
    why = "negative sizes " + std::to_string(fileSize) + " and " + std::to_string(allocSize);
    status = LOCALFS_INVALID;
  }
  if (status == 0) status = OpenForSizes(volumeCookie, fileCookie, &locked, &fresh, &why);
  const int fd = locked != nullptr ? locked->fd.get() : fresh.get();
  if (status == 0 && (fileSize >= 0 || allocSize >= 0)) {
    // Pages cached here would be older than what a client wrote on the disk,
    // and a truncation writes its last block back from them.
    DropCache(fd);
    // An allocation the filesystem cannot hold is refused before anything
    // changes, rather than failing half-way.
    if (int error = allocSize > 0 ? CheckRoom(fd, allocSize) : 0; error != 0) {
      why = "allocating " + std::to_string(allocSize) + " bytes failed: " + ErrnoText(-error);
      status = StatusOfErrno(-error);
    }
    struct stat st;
    if (status == 0 && fileSize >= 0 && (fstat(fd, &st) != 0 || st.st_size != fileSize) &&
        ftruncate(fd, fileSize) != 0) {
      why = "setting the size to " + std::to_string(fileSize) + " failed: " + ErrnoText(errno);
      status = StatusOfErrno(errno);
    }
    // A large allocation is granted in parts, so that no call holds the
    // daemon for long; the client sees how far it got in the map and asks
    // again for the rest.
    int64_t granted = 0;
    int error = status == 0 && allocSize > 0
                    ? AllocateWritten(fd, allocSize, CurrentConfig()->maxGrowth, &granted)
                    : 0;
    if (error != 0) {
      why = "allocating " + std::to_string(allocSize) + " bytes failed: " + ErrnoText(-error);
      status = StatusOfErrno(-error);
    } else if (allocSize > 0 && granted < allocSize && Tracing()) {
      OSL_Log(KSX_DEBUG1, "localfs: FS_SetFileSizes: allocated up to %lld of %lld bytes\n",
              static_cast<long long>(granted), static_cast<long long>(allocSize));
    }
    DropCache(fd);
  }
  if (status != 0) OSL_Log(KSX_ERROR, "localfs: FS_SetFileSizes: %s\n", Escaped(why).c_str());
  return status;
}

LOCALFS_EXPORT FSLONG FS_GetMaxLeases(const uint8_t* volumeCookie, FSLONG* readMaxSeconds,
                                      FSLONG* writeMaxSeconds) {
  VolCookie vc;
  if (readMaxSeconds == nullptr || writeMaxSeconds == nullptr) return LOCALFS_INVALID;
  if (!ParseVolCookie(volumeCookie, &vc)) return LOCALFS_BAD_COOKIE;
  auto config = CurrentConfig();
  if (config->maxReadLease < 0 && config->maxWriteLease < 0) return LOCALFS_NOT_CONFIGURED;
  // 0 leaves the daemon's default for the kind that is not configured.
  *readMaxSeconds = std::max(config->maxReadLease, 0);
  *writeMaxSeconds = std::max(config->maxWriteLease, 0);
  return 0;
}

static_assert(std::is_same_v<decltype(&FS_GetVersion), FS_GetVersion_t>);
static_assert(std::is_same_v<decltype(&FS_SetLog), FS_SetLog_t>);
static_assert(std::is_same_v<decltype(&FS_GetVolCookie), FS_GetVolCookie_t>);
static_assert(std::is_same_v<decltype(&FS_GetVolByCookie), FS_GetVolByCookie_t>);
static_assert(std::is_same_v<decltype(&FS_GetCookies), FS_GetCookies_t>);
static_assert(std::is_same_v<decltype(&FS_GetLockedMap), FS_GetLockedMap_t>);
static_assert(std::is_same_v<decltype(&FS_UnlockMap), FS_UnlockMap_t>);
static_assert(std::is_same_v<decltype(&FS_SetFileSizes), FS_SetFileSizes_t>);
static_assert(std::is_same_v<decltype(&FS_GetMaxLeases), FS_GetMaxLeases_t>);
static_assert(std::is_same_v<decltype(&FS_Init), FS_Init_t>);
