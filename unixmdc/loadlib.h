// The filesystem library loader.
//
// FSMDCSP_LoadNextLibrary reads the library directory once, keeps the files
// that look like libraries on a pending list (newest listing entry first)
// and on every call opens candidates until one resolves all mandatory entry
// points. Loaded libraries are never closed.
#ifndef KESTRIX_UNIXMDC_LOADLIB_H_
#define KESTRIX_UNIXMDC_LOADLIB_H_

#include "fslibrary.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { LIB_PATH_SIZE = 1024 };

// One candidate file on the pending list; allocated zero-filled with malloc.
typedef struct LibPathEntry {
  struct LibPathEntry* next;
  struct LibPathEntry* prev;
  char path[LIB_PATH_SIZE];  // NUL-terminated full path
} LibPathEntry;

// Sentinel of the pending-candidate list.
extern LibPathEntry libHead;

// Opens candidates until one has every mandatory entry point and returns
// its table (malloc'd; the caller frees it). Null once the candidates are
// used up, when the directory cannot be read, or when memory runs out.
FsLibrary* FSMDCSP_LoadNextLibrary(void);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// Drops the pending candidates and returns the loader to its first state.
void ResetLibraryLoaderForTesting();
}  // namespace kestrix
#endif

#endif  // KESTRIX_UNIXMDC_LOADLIB_H_
