// The metadata service provider: start-up, the library table, the volume
// dispatcher list and reply buffers. The lease list lives in sp/lease.h, the
// state record in sp/sp_state.h, each handler in the header named after its
// request (registered by sp/handlers.h), the path helpers in
// sp/path_helpers.h.
#ifndef KESTRIX_SP_FSMDCSP_H_
#define KESTRIX_SP_FSMDCSP_H_

#include "fslibrary.h"
#include "fstypes.h"
#include "lanheader.h"
#include "spmsgs.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  FSMDCSP_MAX_LIBS = 32,
  FSMDCSP_RESULT_LIB_REFUSED = 408,
};


// Which library claimed which volume cookie.
typedef struct VolumeDispatcher {
  struct VolumeDispatcher* next;
  struct VolumeDispatcher* prev;
  uint8_t volumeCookie[FS_COOKIE_SIZE];
  FsLibrary* library;
} VolumeDispatcher;

// Where the service provider gets its filesystem libraries: each call
// returns the next one that loaded (malloc'd, handed over), null when no
// more are left. The daemon passes its plug-in loader.
typedef FsLibrary* (*LibrarySource)(void);

// Accepts the libraries nextLibrary gives (up to FSMDCSP_MAX_LIBS), empties
// the dispatcher and lease lists and starts the lease purge thread.
int FSMDCSP_Init(LibrarySource nextLibrary);
int AddVolumeDispatcherToList(const uint8_t* volumeCookie, FsLibrary* library);
FsLibrary* GetLibrary(const uint8_t* volumeCookie);
int CompareVolCookies(const uint8_t* a, const uint8_t* b);
// Allocates size bytes of zeros for a reply, copies the request's header in,
// turns it into a reply header (negated code, our byte order, size as the
// length) and stamps the library's version as revision if there is a
// library. Null, after a log line, when memory runs out.
LanHeader* SP_InitReply(const LanHeader* request, FSULONG size, FsLibrary* library);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// Creates the dispatcher lock and empties the dispatcher list.
void InitDispatchList();
// After FSMDCSP_Init: both locks were created and the purge thread runs.
bool ServiceProviderReady();
}  // namespace kestrix
#endif

#endif  // KESTRIX_SP_FSMDCSP_H_
