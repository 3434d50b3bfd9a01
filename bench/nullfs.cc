// nullfs: a filesystem plug-in that costs almost nothing, for kxbench. Every
// mount point is one volume with one disk, every path a file with a one-extent
// 1 MiB map; locks and sizes are accepted and forgotten. What the daemon does
// around a library call is then all that a benchmark measures.
#include <string.h>

#include "fslibrary.h"
#include "fsmdc.h"

#define NULLFS_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr FS64LONG kFileBytes = 1 << 20;

// The file cookie: the path's first bytes, so different paths are different files.
void CookieOfPath(const FSUNI* path, uint8_t* cookie) {
  memset(cookie, 0, FS_COOKIE_SIZE);
  for (int i = 0; i < FS_COOKIE_SIZE / 2 && path[i] != 0; ++i) memcpy(cookie + 2 * i, &path[i], 2);
}

}  // namespace

NULLFS_EXPORT FSLONG FS_GetVersion(void) { return 230; }
NULLFS_EXPORT FSLONG FS_Init(void) { return 0; }
NULLFS_EXPORT FSLONG FS_SetLog(int*, void*) { return 0; }

NULLFS_EXPORT FSLONG FS_GetVolCookie(const FSUNI*, uint8_t* volumeCookie) {
  memset(volumeCookie, 0, FS_COOKIE_SIZE);
  memcpy(volumeCookie, "nullfs", 6);
  return 0;
}

NULLFS_EXPORT FSLONG FS_GetVolByCookie(const uint8_t* volumeCookie, VolInfo* info, FSULONG* room) {
  if (*room < VOLINFO_FIXED_SIZE + FSDISK_SIZE) return -1;
  info->msgLen = VOLINFO_FIXED_SIZE + FSDISK_SIZE;
  info->FStype = 1;
  info->nDisks = 1;
  info->BlockSize = 4096;
  memcpy(info->Cookie, volumeCookie, FS_COOKIE_SIZE);
  FSDisk* disk = VolInfoDisk(info, 0);
  memset(disk->DiskID, 0x5a, sizeof disk->DiskID);
  disk->IDlength = 16;
  disk->nBlocks = 1 << 20;
  return 0;
}

NULLFS_EXPORT FSLONG FS_GetCookies(const FSUNI* path, uint8_t* volumeCookie,
                                   uint8_t* fileCookie) {
  FS_GetVolCookie(path, volumeCookie);
  CookieOfPath(path, fileCookie);
  return 0;
}

NULLFS_EXPORT FSLONG FS_GetLockedMap(const uint8_t*, const uint8_t*, FS64LONG start, FS64LONG,
                                     FSULONG, FSMapInfo* map, FSULONG* room) {
  if (*room < FSMAPINFO_FIXED_SIZE + sizeof(VerboseExtent)) return -1;
  map->fileSize = kFileBytes;
  map->allocation = kFileBytes;
  map->msgLen = FSMAPINFO_FIXED_SIZE + sizeof(VerboseExtent);
  map->nExtents = 1;
  map->extentType = FS_EXTENT_VERBOSE;
  map->fileOffset = start;
  map->fileBytes = kFileBytes;
  auto* extent = reinterpret_cast<VerboseExtent*>(FSMapInfoExtents(map));
  extent->LogicalByteAddr = 0;
  extent->PhysicalByteAddr = 1 << 30;
  extent->nBytes = kFileBytes;
  extent->validity = 1;
  return 0;
}

NULLFS_EXPORT FSLONG FS_UnlockMap(const uint8_t*, const uint8_t*) { return 0; }

NULLFS_EXPORT FSLONG FS_SetFileSizes(const uint8_t*, const uint8_t*, FSLONG, FS64LONG, FS64LONG,
                                     FS64LONG) {
  return 0;
}
