// SetSize handler. The holder of a lease changes the file's length through
// the library serving it, leaving the allocated space alone; when that
// works the lease is extended too, so a writer growing a file keeps it
// without a separate renewal.
#include "sp/setsize.h"

#include "sp/fsmdcsp.h"
#include "sp/handler_common.h"
#include "sp/lease.h"
#include "sp/lease_expiry.h"
#include "sp/sp_sup.h"
#include "spmsgs.h"
#include "utils/dgram.h"
#include "utils/log.h"

static_assert(kestrix::kReadableInPlace<SetSizeMsg>);

using kestrix::kUnchanged;

extern "C" LanHeader* SP_LanSetSize(LanHeader* request, const uint8_t* commCookie) {
  auto* msg = reinterpret_cast<SetSizeMsg*>(request);
  FsLibrary* library = nullptr;
  FSULONG granted = 0;
  LeaseEntry held;  // a copy: the list may lose the lease meanwhile

  SPSUP_TransLanSetSize(msg);
  OSL_Log(KSX_SP, "SP_LanSetSize handler called key 0x%x\n", msg->key);
  SPSUP_DumpMessage(request, 0);

  int result = GetOwnLeaseCopy(msg->key, commCookie, &held);
  if (result == 0) {
    library = GetLibrary(held.volumeCookie);
    if (library == nullptr) result = SP_RESULT_NO_LIBRARY;
  }
  if (library != nullptr) {
    // 400 reaches the client as it is, and like any other status skips the renewal.
    result = library->FS_SetFileSizes(held.volumeCookie, held.fileCookie, 0, msg->filesize,
                                      kUnchanged, kUnchanged);
  }
  if (library != nullptr && result == 0) {
    msg->lease = static_cast<FSULONG>(CalcLease(static_cast<FSLONG>(msg->lease), held.intention,
                                                library, held.volumeCookie));
    if (ChangeLeaseEntry(msg->key, static_cast<FSLONG>(msg->lease)) == 0) {
      granted = msg->lease;
    } else {
      result = SP_RESULT_LEASE_NOT_RENEWED;
    }
  }

  auto* reply = kestrix::NewReply<SetSizeReply>(request, SP_SETSIZE_REPLY_SIZE, library, result);
  if (reply != nullptr) {
    reply->lease = granted;
    SPSUP_DumpSetSizeReply(reply, SP_SETSIZE_REPLY_SIZE);
  }
  return kestrix::AsHeader(reply);
}
