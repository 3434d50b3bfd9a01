// FsLibrary: the function table the loader fills from one plug-in.
//
// Each slot is found by its name among the plug-in's C-linkage symbols. A
// plug-in lacking FS_SetLog or FS_GetMaxLeases still loads, with that slot
// null; lacking any other name, it is skipped. FS_GetVersion answers the
// plug-in's version; every other call answers a status (FSLONG) where 0
// means it worked.
#ifndef KESTRIX_INCLUDE_FSLIBRARY_H_
#define KESTRIX_INCLUDE_FSLIBRARY_H_

#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

struct VolInfo;
struct FSMapInfo;

// The highest library version the daemon accepts.
enum { FS_MAX_LIBRARY_VERSION = 230 };

typedef FSLONG (*FS_GetVersion_t)(void);
typedef FSLONG (*FS_SetLog_t)(int* levelPointer, void* reserved);
typedef FSLONG (*FS_GetVolCookie_t)(const FSUNI* mountPoint, uint8_t* volumeCookieOut);
typedef FSLONG (*FS_GetVolByCookie_t)(const uint8_t* volumeCookie, struct VolInfo* info,
                                      FSULONG* room);
typedef FSLONG (*FS_GetCookies_t)(const FSUNI* path, uint8_t* volumeCookieOut,
                                  uint8_t* fileCookieOut);
typedef FSLONG (*FS_GetLockedMap_t)(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                    FS64LONG start, FS64LONG length, FSULONG flags,
                                    struct FSMapInfo* map, FSULONG* room);
typedef FSLONG (*FS_UnlockMap_t)(const uint8_t* volumeCookie, const uint8_t* fileCookie);
typedef FSLONG (*FS_SetFileSizes_t)(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                                    FSLONG zero, FS64LONG fileSize, FS64LONG allocSize,
                                    FS64LONG allOnes);
typedef FSLONG (*FS_GetMaxLeases_t)(const uint8_t* volumeCookie, FSLONG* readMaxSeconds,
                                    FSLONG* writeMaxSeconds);
typedef FSLONG (*FS_Init_t)(void);

typedef struct FsLibrary {
  FS_GetVersion_t FS_GetVersion;
  FS_SetLog_t FS_SetLog;  // optional
  FS_GetVolCookie_t FS_GetVolCookie;
  FS_GetVolByCookie_t FS_GetVolByCookie;
  FS_GetCookies_t FS_GetCookies;
  FS_GetLockedMap_t FS_GetLockedMap;
  FS_UnlockMap_t FS_UnlockMap;
  FS_SetFileSizes_t FS_SetFileSizes;
  FS_GetMaxLeases_t FS_GetMaxLeases;  // optional
  FS_Init_t FS_Init;
} FsLibrary;

#ifdef __cplusplus
}  // extern "C"
static_assert(sizeof(FsLibrary) == 10 * sizeof(void*));
#endif

#endif  // KESTRIX_INCLUDE_FSLIBRARY_H_
