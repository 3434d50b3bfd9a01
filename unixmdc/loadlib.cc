// The filesystem library loader: the pending-candidate list and the
// opening and entry-point resolution of one library per call.
//
// The loader runs on the start-up thread only and takes no lock. Its
// records come from the process heap, not from the tracking allocator.
#include "unixmdc/loadlib.h"
#include "utils/dlist.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "utils/config.h"
#include "utils/log.h"

extern "C" {
LibPathEntry libHead;
}

namespace {

bool g_directoryRead = false;
bool g_nothingTried = true;

// Low 32 bits of an address, the width the "%x" log lines print.
unsigned Low32(const void* p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

bool IsCandidate(const char* name) {
  return (strstr(name, ".so") != nullptr || strstr(name, ".a") != nullptr) &&
         strstr(name, "ksxcvt") == nullptr;
}

// Reads the directory once into the pending list; false when it cannot be
// opened (the next call then tries again).
bool ReadDirectory() {
  kestrix::dlist::MakeEmpty(&libHead);
  const std::string dir = kestrix::LibraryDirectory();
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) {
    OSL_Log(KSX_ERROR, "FSMDCSP_LoadNextLibrary: Unable to open directory %s\n", dir.c_str());
    return false;
  }
  while (struct dirent* ent = readdir(d)) {
    if (!IsCandidate(ent->d_name)) continue;
    char path[LIB_PATH_SIZE];
    int n = snprintf(path, sizeof(path), "%s/%s", dir.c_str(), ent->d_name);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(path)) {
      // A cut path would name another file; leave the entry out. The name
      // alone is logged, since the whole path would not fit a log line.
      OSL_Log(KSX_ERROR, "loadlib: path of %s is too long, skipped\n", ent->d_name);
      continue;
    }
    auto* entry = static_cast<LibPathEntry*>(calloc(1, sizeof(LibPathEntry)));
    if (entry == nullptr) continue;
    memcpy(entry->path, path, static_cast<size_t>(n) + 1);
    OSL_Log(KSX_SP, "loadlib: loaded %s\n", entry->path);
    kestrix::dlist::InsertFront(&libHead, entry);
  }
  closedir(d);
  g_directoryRead = true;
  return true;
}

template <typename Slot>
bool Resolve(void* handle, const char* name, const char* line, Slot* slot) {
  void* sym = dlsym(handle, name);
  if (sym == nullptr) return false;
  *slot = reinterpret_cast<Slot>(sym);
  OSL_Log(KSX_INFO, line, Low32(sym));
  return true;
}

// Opens one candidate and fills lib; false (with lib possibly partly
// filled) when the candidate cannot be used.
bool TryCandidate(const char* path, FsLibrary* lib) {
  struct stat st;
  if (stat(path, &st) != 0) {
    OSL_Log(KSX_ERROR, "stat of library %s failed %s\n", path, strerror(errno));
    return false;
  }
  void* handle = dlopen(path, RTLD_LAZY);
  if (handle == nullptr) {
    const char* why = dlerror();
    OSL_Log(KSX_ERROR, "dlopen of library %s failed %s\n", path, why ? why : "");
    return false;
  }
  OSL_Log(KSX_INFO, "opened lib %s\n", path);
  bool ok = Resolve(handle, "FS_Init", "Got FS_Init %x \n", &lib->FS_Init) &&
            Resolve(handle, "FS_GetCookies", "Got FS_GetCookies %x \n", &lib->FS_GetCookies) &&
            Resolve(handle, "FS_GetLockedMap", "Got FS_GetLockedMap %x \n",
                    &lib->FS_GetLockedMap) &&
            Resolve(handle, "FS_GetVersion", "Got FS_GetVersion %x \n", &lib->FS_GetVersion) &&
            Resolve(handle, "FS_GetVolByCookie", "Got FS_GetVolByCookie %x \n",
                    &lib->FS_GetVolByCookie) &&
            Resolve(handle, "FS_GetVolCookie", "Got FS_GetVolCookie %x \n",
                    &lib->FS_GetVolCookie) &&
            Resolve(handle, "FS_SetFileSizes", "Got FS_SetFileSizes %x \n",
                    &lib->FS_SetFileSizes) &&
            Resolve(handle, "FS_UnlockMap", "Got FS_UnlockMap %x \n", &lib->FS_UnlockMap);
  if (!ok) return false;
  Resolve(handle, "FS_GetMaxLeases", "Got FS_GetMaxLeases %x \n", &lib->FS_GetMaxLeases);
  Resolve(handle, "FS_SetLog", "Got FS_SetLog %x \n", &lib->FS_SetLog);
  OSL_Log(KSX_PRINT, "Successfully loaded library %s\n", path);
  return true;
}

}  // namespace

extern "C" FsLibrary* FSMDCSP_LoadNextLibrary(void) {
  if (!g_directoryRead && !ReadDirectory()) return nullptr;

  FsLibrary* lib = nullptr;
  if (!kestrix::dlist::IsEmpty(&libHead))
    lib = static_cast<FsLibrary*>(calloc(1, sizeof(FsLibrary)));
  if (lib != nullptr) {
    bool loaded = false;
    while (!loaded && !kestrix::dlist::IsEmpty(&libHead)) {
      LibPathEntry* entry = libHead.next;
      loaded = TryCandidate(entry->path, lib);
      if (!loaded) {
        OSL_Log(KSX_ERROR,
                "Library %s failed to load properly it will be removed from the list\n",
                entry->path);
        memset(lib, 0, sizeof(*lib));
      }
      kestrix::dlist::Unlink(entry);
      free(entry);
      g_nothingTried = false;
    }
    if (!loaded) {
      free(lib);
      lib = nullptr;
    }
  }
  if (g_nothingTried) {
    OSL_Log(KSX_ERROR,
            "Ensure your library directory has the correct entries in it, it seems to be "
            "empty.\n");
  }
  return lib;
}

namespace kestrix {

void ResetLibraryLoaderForTesting() {
  if (g_directoryRead) {
    while (!kestrix::dlist::IsEmpty(&libHead)) {
      LibPathEntry* entry = libHead.next;
      kestrix::dlist::Unlink(entry);
      free(entry);
    }
  }
  kestrix::dlist::MakeEmpty(&libHead);
  g_directoryRead = false;
  g_nothingTried = true;
}

}  // namespace kestrix
