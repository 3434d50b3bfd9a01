// GetExtendedMap handler: more extents of an already opened file. The lease
// holder names a range (and may set new sizes on the way); the library
// writes that part of the map into the reply and the lease is extended.
#include "sp/getextendedmap.h"

#include <algorithm>

#include "fsmdc.h"
#include "sp/fsmdcsp.h"
#include "sp/path_helpers.h"
#include "sp/handler_common.h"
#include "sp/lease.h"
#include "sp/lease_expiry.h"
#include "sp/sp_sup.h"
#include "spmsgs.h"
#include "utils/dgram.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"

static_assert(kestrix::kReadableInPlace<GetExtendedMapMsg>);

using kestrix::kUnchanged;

namespace {
constexpr FSULONG kReadRules = 1;
constexpr FSULONG kWriteRules = 0;
}  // namespace

extern "C" LanHeader* SP_LanGetExtendedMap(LanHeader* request, const uint8_t* commCookie) {
  auto* msg = reinterpret_cast<GetExtendedMapMsg*>(request);
  int result = SP_RESULT_OK;
  FSLONG status = 0;
  FsLibrary* library = nullptr;
  GetExtendedMapReply* reply = nullptr;
  FSULONG replySize = 0;
  LeaseEntry held;  // a copy: the list may lose the lease meanwhile
  const uint8_t* const volumeCookie = held.volumeCookie;
  const uint8_t* const fileCookie = held.fileCookie;

  const FSULONG t0 = OSL_MSeconds();
  SPSUP_TransLanGetExtendedMap(msg);
  OSL_Log(KSX_SP, "SP_LanGetExtendedMap handler called key 0x%x\n", msg->key);
  SPSUP_DumpMessage(request, 0);

  // Each step runs only while the ones before it succeeded.
  status = GetOwnLeaseCopy(msg->key, commCookie, &held);
  result = status;
  if (status == 0) {
    replySize = maxDgramSize();
    reply = kestrix::NewReply<GetExtendedMapReply>(request, replySize, nullptr, 0);
    if (reply == nullptr) result = SP_RESULT_NO_MEMORY;
  }
  if (reply != nullptr) {
    library = GetLibrary(volumeCookie);
    if (library == nullptr) result = SP_RESULT_NO_LIBRARY;
  }
  const bool sizesGiven = msg->filesize != kUnchanged || msg->allocation != kUnchanged;
  if (library != nullptr && sizesGiven) {
    OSL_Log(KSX_SP, "GetExtendedMap calling FS_SetFileSize key 0x%x\n", msg->key);
    status = library->FS_SetFileSizes(volumeCookie, fileCookie, 0, msg->filesize, msg->allocation,
                                      kUnchanged);
    if (status == SP_RESULT_SIZE_NOTICE) status = 0;
    result = status;
  }
  if (library != nullptr && status == 0) {
    if (msg->length == 0) msg->length = -1;  // the rest of the file
    OSL_Log(KSX_SP, "SP_LanGetExtendedMap: Calling filesystem library: key 0x%x\n", msg->key);
    FSULONG room = replySize - SP_GETEXTENDEDMAP_REPLY_SIZE;
    status = library->FS_GetLockedMap(volumeCookie, fileCookie, msg->start, msg->length,
                                      msg->flag, &reply->map, &room);
    OSL_Log(KSX_SP, "SP_LanGetExtendedMap: Returned from filesystem library: key 0x%x\n",
            msg->key);
    FSLONG lease = CalcLease(static_cast<FSLONG>(msg->lease),
                             sizesGiven ? kWriteRules : kReadRules, library, volumeCookie);
    result = status;
    if (status == 0) {
      const auto elapsed = static_cast<FSLONG>(OSL_MSeconds() - t0);
      if (elapsed > 0) lease = kestrix::LeasePlus(lease, elapsed);
      if (ChangeLeaseEntry(msg->key, lease) == 0) {
        reply->lease = static_cast<FSULONG>(lease);
      } else {
        result = SP_RESULT_LEASE_NOT_RENEWED;
        reply->lease = 0;
      }
    }
  }

  if (reply == nullptr) {
    replySize = SP_GETEXTENDEDMAP_REPLY_SIZE;
    reply = kestrix::NewReply<GetExtendedMapReply>(request, replySize, library, 0);
  } else {
    reply->header.length = kestrix::GetExtendedMapReplyLength(reply, replySize);
    // A map delivered with status 1 goes out whole or not at all.
    const int64_t limit = std::min<FSULONG>(replySize, SP_MAX_DATAGRAM);
    if (status == 1 && kestrix::GetExtendedMapReplyWantedLength(reply, replySize) > limit) {
      ksxmem_free(reply);
      result = 1;
      replySize = SP_GETEXTENDEDMAP_REPLY_SIZE;
      reply = kestrix::NewReply<GetExtendedMapReply>(request, replySize, library, 0);
    }
  }
  if (reply != nullptr) {
    reply->result = result;
    SPSUP_DumpGetExtendedMapReply(reply, replySize);
  }
  return kestrix::AsHeader(reply);
}
