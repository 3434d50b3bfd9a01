// Service provider start-up and library dispatch: loads and accepts the
// filesystem libraries, starts the lease purge thread, remembers which
// library serves which volume, and makes the reply buffers of the handlers.
#include "sp/fsmdcsp.h"
#include "sp/path_helpers.h"
#include "utils/dlist.h"

#include <cstdlib>
#include <cstring>

#include "sp/lease.h"
#include "sp/lease_expiry.h"
#include "sp/sp_state.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"

extern "C" {

int CompareVolCookies(const uint8_t* a, const uint8_t* b) {
  return std::memcmp(a, b, FS_COOKIE_SIZE);
}

int FSMDCSP_Init(LibrarySource nextLibrary) {
  maxDgramSize();  // read MAXDGRAM now, before any listener thread runs
  kestrix::InitDispatchList();
  kestrix::InitLeaseList();

  int result = 0;
  for (int i = 0; i < FSMDCSP_MAX_LIBS; ++i) {
    FsLibrary* library = nextLibrary != nullptr ? nextLibrary() : nullptr;
    OSL_Log(KSX_SP, "FSMDCSP_Init i:%d libs[%d]:%x\n", i, kestrix::spState.libCount,
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(library)));
    if (library == nullptr) break;
    bool refused = library->FS_GetVersion() > FS_MAX_LIBRARY_VERSION || library->FS_Init() != 0;
    if (refused) {
      std::free(library);  // refused: the table goes, the code stays mapped, unused
      result = FSMDCSP_RESULT_LIB_REFUSED;
      continue;
    }
    kestrix::spState.libs[kestrix::spState.libCount++] = library;
    if (library->FS_SetLog != nullptr) library->FS_SetLog(g_LogLevel, nullptr);
  }
  kestrix::spState.purgeRunning = true;
  kestrix::spState.purgeThreadStarted = OSL_CreateThread(PurgeLeaseThread, nullptr) == 0;
  if (!kestrix::spState.purgeThreadStarted) kestrix::spState.purgeRunning = false;
  return result;
}

int AddVolumeDispatcherToList(const uint8_t* volumeCookie, FsLibrary* library) {
  kestrix::SemGuard lock(kestrix::spState.dispatchLock);
  for (VolumeDispatcher* d = kestrix::spState.dispatchHead.next;
       d != &kestrix::spState.dispatchHead; d = d->next) {
    if (CompareVolCookies(d->volumeCookie, volumeCookie) == 0) {
      d->library = library;  // the newest library to claim a volume serves it
      std::memcpy(d->volumeCookie, volumeCookie, FS_COOKIE_SIZE);
      return 0;
    }
  }
  auto* entry =
      static_cast<VolumeDispatcher*>(ksxmem_memalign(-8, sizeof(VolumeDispatcher), "psid"));
  if (entry == nullptr) return 0;  // the allocator has logged the failure
  entry->library = library;
  std::memcpy(entry->volumeCookie, volumeCookie, FS_COOKIE_SIZE);
  kestrix::dlist::InsertFront(&kestrix::spState.dispatchHead, entry);
  return 0;
}

FsLibrary* GetLibrary(const uint8_t* volumeCookie) {
  kestrix::SemGuard lock(kestrix::spState.dispatchLock);
  for (VolumeDispatcher* d = kestrix::spState.dispatchHead.next;
       d != &kestrix::spState.dispatchHead; d = d->next) {
    if (CompareVolCookies(d->volumeCookie, volumeCookie) == 0) return d->library;
  }
  return nullptr;
}

LanHeader* SP_InitReply(const LanHeader* request, FSULONG size, FsLibrary* library) {
  auto* reply = static_cast<LanHeader*>(ksxmem_memalign(-8, static_cast<int32_t>(size), "hnal"));
  if (reply == nullptr) {
    OSL_Log(KSX_ERROR, "SP_InitReply failed to malloc reply of %d bytes\n",
            static_cast<int>(size));
    return nullptr;
  }
  std::memcpy(reply, request, LAN_HEADER_SIZE);
  if (library != nullptr) reply->revision = library->FS_GetVersion();
  reply->length = size;
  reply->functionCode = LanReplyFunctionCode(request->functionCode);
  reply->byteOrder = LAN_BYTEORDER_MARK;
  reply->result = 0;
  return reply;
}

}  // extern "C"

namespace kestrix {

bool ServiceProviderReady() {
  return kestrix::spState.dispatchLock != nullptr && kestrix::spState.leaseLock != nullptr &&
         kestrix::spState.purgeThreadStarted;
}

void InitDispatchList() {
  kestrix::spState.dispatchLock = OSL_SemCreate(1);
  kestrix::dlist::MakeEmpty(&kestrix::spState.dispatchHead);
}

}  // namespace kestrix
