// Close: a client gives up its lease, optionally setting the file's final
// size (the allocation follows it); the last lease on a file to go unlocks
// its map in the library.
#include "sp/close.h"

#include "sp/fsmdcsp.h"
#include "sp/handler_common.h"
#include "sp/lease.h"
#include "sp/sp_sup.h"
#include "spmsgs.h"
#include "utils/dgram.h"
#include "utils/log.h"

static_assert(kestrix::kReadableInPlace<CloseMsg>);

using kestrix::kUnchanged;

extern "C" {

LanHeader* SP_LanClose(LanHeader* request, const uint8_t* commCookie) {
  auto* msg = reinterpret_cast<CloseMsg*>(request);
  int result = SP_RESULT_OK;
  FSLONG sizeStatus = 0;
  FsLibrary* library = nullptr;
  LeaseEntry lease, again;
  uint8_t* const volumeCookie = lease.volumeCookie;
  uint8_t* const fileCookie = lease.fileCookie;

  SPSUP_TransLanClose(msg);
  OSL_Log(KSX_SP, "SP_LanClose handler called key 0x%x\n", msg->key);
  SPSUP_DumpMessage(request, 0);

  // A lease of another sender is not found: it cannot be closed from elsewhere.
  if (GetOwnLeaseCopy(msg->key, commCookie, &lease) != 0) {
    OSL_Log(KSX_SP, "SP_Close, key not found in list. 0x%x\n", msg->key);
    result = SP_RESULT_KEY_NOT_FOUND;
  } else if ((library = GetLibrary(volumeCookie)) == nullptr) {
    OSL_Log(KSX_ERROR, "SP_Close, no library.\n");
    result = SP_RESULT_NO_LIBRARY;
  } else if (GetLeaseCopy(msg->key, &again) != 0) {
    OSL_Log(KSX_ERROR, "SP_Close, invalid key.0x%x\n", msg->key);
    result = SP_RESULT_KEY_NOT_FOUND;
  } else {
    if (msg->filesize != kUnchanged) {
      OSL_Log(KSX_SP, "LanClose calling FS_SetFileSize key 0x%x\n", msg->key);
      sizeStatus = library->FS_SetFileSizes(volumeCookie, fileCookie, 0, msg->filesize,
                                            msg->filesize, kUnchanged);
      if (sizeStatus == SP_RESULT_SIZE_NOTICE) sizeStatus = 0;
      if (sizeStatus != 0) {
        OSL_Log(KSX_ERROR, "SP_Close, FS_SetFileSizes returned error %d\n", sizeStatus);
      }
    }
    // A failed size change does not keep the lease; the client hears of it.
    result = RemoveLeaseFromList(msg->key, volumeCookie, fileCookie, library, "SP_LANClose");
    if (result == 0 && sizeStatus != 0) result = sizeStatus;
  }

  auto* reply = kestrix::NewReply<CloseReply>(request, SP_CLOSE_REPLY_SIZE, library, result);
  if (reply != nullptr) SPSUP_DumpCloseReply(reply, SP_CLOSE_REPLY_SIZE);
  return kestrix::AsHeader(reply);
}

}  // extern "C"
