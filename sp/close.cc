// Close: a client gives up its lease, optionally setting the file's final
// size (the allocation follows it); the last lease on a file to go unlocks
// its map in the library. Also SP_LanDumpInfo, which logs the lease list and
// the duplicate counters; no function code is registered for it.
#include "sp/fsmdcsp.h"
#include "sp/handlers.h"
#include "sp/lease.h"
#include "sp/sp_sup.h"
#include "spmsgs.h"
#include "utils/dgram.h"
#include "utils/lanserver.h"
#include "utils/log.h"

// The request is read in place in the listener's buffer, also where the
// datagram was shorter: every field then lies in bytes the listener zeroed.
static_assert(sizeof(CloseMsg) <= kestrix::kDgramScrubBytes &&
              kestrix::kDgramScrubBytes <= DGRAM_RECEIVE_BUFFER_SIZE);

namespace {
constexpr FS64LONG kUnchanged = -1;
}  // namespace

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

  auto* reply = reinterpret_cast<CloseReply*>(SP_InitReply(request, SP_CLOSE_REPLY_SIZE, library));
  if (reply != nullptr) {
    reply->result = result;
    SPSUP_DumpCloseReply(reply, SP_CLOSE_REPLY_SIZE);
  }
  return reinterpret_cast<LanHeader*>(reply);
}

LanHeader* SP_LanDumpInfo(LanHeader* request, const uint8_t* /*commCookie*/) {
  FSMDCSP_DumpKeyList();
  LAN_DumpInfo();
  auto* reply = reinterpret_cast<CloseReply*>(SP_InitReply(request, SP_CLOSE_REPLY_SIZE, nullptr));
  if (reply != nullptr) reply->result = SP_RESULT_OK;
  return reinterpret_cast<LanHeader*>(reply);
}

}  // extern "C"
