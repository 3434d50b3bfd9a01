// localfs: the ten entry points of the filesystem library that serves the
// exported directories of local ext4 and XFS filesystems.
//
// Volumes and files are named by stateless cookies (cookies.h); every call
// opens what it needs afresh, so nothing is cached but the configuration
// (read by FS_Init) and the files whose maps are locked (locks.h). Paths
// stay inside their export (exports.h); maps come from FIEMAP (filemap.h).
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
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

#include "fslibrary.h"
#include "fsmdc.h"
#include "plugins/localfs/cookies.h"
#include "plugins/localfs/exports.h"
#include "plugins/localfs/filemap.h"
#include "plugins/localfs/lfs_util.h"
#include "plugins/localfs/locks.h"
#include "plugins/localfs/volume.h"
#include "utils/log.h"

#define LOCALFS_EXPORT extern "C" __attribute__((visibility("default")))

namespace localfs {
namespace {

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
  int error = 0;
  *dir = OpenExport(e, &error);
  struct stat st;
  if (!dir->ok() || fstat(dir->get(), &st) != 0 || st.st_dev != vc->dev) {
    *why = "the volume is gone: " + e.path + " is no longer on the cookie's filesystem";
    return LOCALFS_STALE;
  }
  return 0;
}

// Opens the file that a pair of cookies names.
int OpenByCookies(const uint8_t* volCookie, const uint8_t* fileCookie, int flags, UniqueFd* out,
                  std::string* why) {
  VolCookie vc;
  UniqueFd dir;
  if (int status = OpenVolume(volCookie, &vc, &dir, why); status != 0) return status;
  uint8_t fileExport = 0;
  if (!ParseFileCookie(fileCookie, &fileExport) || fileExport != vc.exportIndex) {
    *why = "not a file cookie of this volume";
    return LOCALFS_BAD_COOKIE;
  }
  int fd = OpenFileCookie(dir.get(), fileCookie, flags);
  if (fd < 0) {
    *why = -fd == ESTALE ? "the file was deleted or replaced"
                         : "cannot open the file: " + ErrnoText(-fd);
    return StatusOfErrno(-fd);
  }
  *out = UniqueFd(fd);
  return CheckLive(fd, why);
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
  int error = 0;
  UniqueFd dir = OpenExport(e, &error);
  std::string why = dir.ok() ? "" : ErrnoText(error);
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

}  // namespace
}  // namespace localfs

using namespace localfs;

LOCALFS_EXPORT FSLONG FS_GetVersion(void) { return LOCALFS_VERSION; }

LOCALFS_EXPORT FSLONG FS_Init(void) {
  auto config = std::make_shared<const Config>(LoadConfig());
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
  // The cookies are checked and the file opened on every call; the first
  // map call locks it, later ones use the descriptor already locked.
  UniqueFd fresh;
  int status = OpenByCookies(volumeCookie, fileCookie, O_RDONLY, &fresh, &why);
  if (status == 0) {
    OpenFile file = g_locks.Insert(fileCookie, std::move(fresh));
    status = WriteMap(file->get(), start, length, out, roomBytes, &why);
  }
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
  if (OpenFile file = g_locks.Remove(fileCookie)) DropCache(file->get());
  return 0;
}

LOCALFS_EXPORT FSLONG FS_SetFileSizes(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                      FSLONG zero, FS64LONG fileSize, FS64LONG allocSize,
                                      FS64LONG allOnes) {
  std::string why;
  UniqueFd fd;
  int status = 0;
  if (fileSize < -1 || allocSize < -1) {
    why = "negative sizes " + std::to_string(fileSize) + " and " + std::to_string(allocSize);
    status = LOCALFS_INVALID;
  }
  if (status == 0) status = OpenByCookies(volumeCookie, fileCookie, O_RDWR, &fd, &why);
  if (status == 0 && (fileSize >= 0 || allocSize >= 0)) {
    // Pages cached here would be older than what a client wrote on the disk,
    // and a truncation writes its last block back from them.
    DropCache(fd.get());
    struct stat st;
    if (fileSize >= 0 && (fstat(fd.get(), &st) != 0 || st.st_size != fileSize) &&
        ftruncate(fd.get(), fileSize) != 0) {
      why = "setting the size to " + std::to_string(fileSize) + " failed: " + ErrnoText(errno);
      status = StatusOfErrno(errno);
    }
    int error = status == 0 && allocSize > 0 ? AllocateWritten(fd.get(), allocSize) : 0;
    if (error != 0) {
      why = "allocating " + std::to_string(allocSize) + " bytes failed: " + ErrnoText(-error);
      status = StatusOfErrno(-error);
    }
    DropCache(fd.get());
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
