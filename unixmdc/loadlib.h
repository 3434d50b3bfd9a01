// The plug-in loader. The first call of FSMDCSP_LoadNextLibrary lists the
// library directory once and queues every file whose name marks it as a
// library, the last listed first; each call then dlopens from the queue
// until a file has every mandatory entry point. Nothing is ever dlclosed:
// a file that fails stays mapped and is simply not used.
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
