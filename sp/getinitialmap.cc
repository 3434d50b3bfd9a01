// GetInitialMap handler: a client's open of a file. The first library that
// recognises the name below the share serves it; a provisional lease is
// taken before any library call, so the purge cannot end it half way; the
// library locks the map and writes the extents directly into the reply
// buffer; sizes the client sent are applied; the answer carries the key,
// the lease granted, both cookies and the extents.
#include "sp/getinitialmap.h"

#include <cstring>

#include "fsmdc.h"
#include "sp/fsmdcsp.h"
#include "sp/path_helpers.h"
#include "sp/handler_common.h"
#include "sp/lease.h"
#include "sp/lease_expiry.h"
#include "sp/sp_sup.h"
#include "sp/sp_state.h"
#include "spmsgs.h"
#include "utils/dgram.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"
#include "utils/osl_share.h"

static_assert(kestrix::kReadableInPlace<GetInitialMapMsg>);

using kestrix::kUnchanged;

namespace {

constexpr int32_t kNameBytes = 2 * SP_PATH_UNITS;
constexpr FSULONG kLeaseMargin = 30000;  // the provisional lease covers the library calls
constexpr FSULONG kSecondMapFlag = 2;    // set on the map fetched again after an allocation

bool Delivered(FSLONG status) { return status == 0 || status == 1; }

// The library that knows the file named by the request, with the file's
// cookies; or null and the result for the client in *result.
FsLibrary* FindLibrary(GetInitialMapMsg* msg, FSUNI* mountPoint, FSUNI* fullPath,
                       uint8_t* volumeCookie, uint8_t* fileCookie, int* result) {
  // A name area without a zero unit ends at its last unit, so the share,
  // the file name and everything made from them stay inside the area.
  msg->names[SP_PATH_UNITS - 1] = 0;
  OSL_TransPath(msg->names);
  *result = OSL_ShareNameToMountPoint(msg->names, mountPoint, SP_PATH_UNITS);
  if (*result != 0) return nullptr;

  FSUNI* fileName = GetNextString(msg->names, kNameBytes);
  if (fileName == nullptr) {
    *result = SP_RESULT_NO_FILE_NAME;
    return nullptr;
  }
  OSL_TransPath(fileName);
  FSUNI separator = msg->header.pathSeparator;
  if (separator == u'\\') separator = u'/';
  ConcatFilenameToPath(fileName, mountPoint, separator, fullPath, kNameBytes);

  FSLONG status = 0;
  for (int i = 0; i < kestrix::spState.libCount; ++i) {
    // Nothing a refusing library left behind may name the volume.
    std::memset(volumeCookie, 0, FS_COOKIE_SIZE);
    std::memset(fileCookie, 0, FS_COOKIE_SIZE);
    status = kestrix::spState.libs[i]->FS_GetCookies(fullPath, volumeCookie, fileCookie);
    if (status == 0) {
      AddVolumeDispatcherToList(volumeCookie, kestrix::spState.libs[i]);
      return kestrix::spState.libs[i];
    }
    OSL_Log(KSX_DEBUG1, "SP_LanGetInitialMap: FS_GetCookies lib[%d] returned %d\n", i, status);
  }
  OSL_Log(KSX_DEBUG1, "no library case\n");
  *result = status == SP_RESULT_FILE_NOT_FOUND ? SP_RESULT_FILE_NOT_FOUND : SP_RESULT_NO_LIBRARY;
  return nullptr;
}

// The library calls made under the provisional lease: the map, the sizes
// when asked for, and the map again after a new allocation. Returns the
// status of the last call made, or of the first that failed.
FSLONG MapAndSizes(const GetInitialMapMsg* msg, FsLibrary* library, const uint8_t* volumeCookie,
                   const uint8_t* fileCookie, FSULONG key, FSMapInfo* map, FSULONG mapRoom) {
  FSULONG room = mapRoom;
  FSLONG status =
      library->FS_GetLockedMap(volumeCookie, fileCookie, 0, kUnchanged, msg->flag, map, &room);
  if (!Delivered(status)) return status;

  if (msg->filesize != kUnchanged || msg->allocsize != kUnchanged) {
    OSL_Log(KSX_SP, "GetInitalMap calling FS_SetFileSize key 0x%x\n", key);
    status = library->FS_SetFileSizes(volumeCookie, fileCookie, 0, msg->filesize, msg->allocsize,
                                      kUnchanged);
    if (status == SP_RESULT_SIZE_NOTICE) status = 0;
    if (!Delivered(status)) return status;
  }

  if (msg->allocsize != kUnchanged) {
    room = mapRoom;
    status = library->FS_GetLockedMap(volumeCookie, fileCookie, 0, kUnchanged,
                                      msg->flag | kSecondMapFlag, map, &room);
  }
  return status;
}

}  // namespace

extern "C" LanHeader* SP_LanGetInitialMap(LanHeader* request, const uint8_t* commCookie) {
  auto* msg = reinterpret_cast<GetInitialMapMsg*>(request);
  int result = SP_RESULT_OK;
  FsLibrary* library = nullptr;
  GetInitialMapReply* reply = nullptr;
  FSULONG replySize = 0;
  uint8_t volumeCookie[FS_COOKIE_SIZE] = {};
  uint8_t fileCookie[FS_COOKIE_SIZE] = {};
  FSULONG t0 = 0;

  auto* mountPoint = static_cast<FSUNI*>(ksxmem_memalign(-8, kNameBytes, "immp"));
  auto* fullPath = static_cast<FSUNI*>(ksxmem_memalign(-8, kNameBytes, "imfn"));
  if (mountPoint == nullptr || fullPath == nullptr) {
    result = SP_RESULT_NO_MEMORY;
  } else {
    OSL_Log(KSX_SP, "SP_LanGetInitialMap handler called\n");
    t0 = OSL_MSeconds();
    SPSUP_TransLanGetInitialMap(msg);
    SPSUP_DumpMessage(request, 0);
    library = FindLibrary(msg, mountPoint, fullPath, volumeCookie, fileCookie, &result);
  }

  if (library != nullptr) {
    uint8_t messageCookie[LAN_MSGID_SIZE];
    std::memcpy(messageCookie, request->messageID, LAN_MSGID_SIZE);
    OSL_Log(KSX_DEBUG1, "We have a lib...\n");
    replySize = maxDgramSize();
    FSLONG lease = CalcLease(static_cast<FSLONG>(msg->lease), msg->intention, library,
                             volumeCookie);
    reply = kestrix::NewReply<GetInitialMapReply>(request, replySize, library, 0);
    FSULONG key = 0;
    if (reply == nullptr) {
      OSL_Log(KSX_DEBUG1, "out of memory case\n");
      result = SP_RESULT_NO_MEMORY;
    } else if (const int added = AddLeaseToList(volumeCookie, fileCookie, messageCookie,
                                                commCookie, msg->intention,
                                                static_cast<FSULONG>(lease) + kLeaseMargin, &key,
                                                library, fullPath);
               added != 0) {
      result = added == SP_RESULT_LEASE_LIMIT ? added : SP_RESULT_NO_MEMORY;
    } else {
      reply->key = key;
      bool remove = true;
      const FSLONG status = MapAndSizes(msg, library, volumeCookie, fileCookie, key, &reply->map,
                                        replySize - SP_GETINITIALMAP_REPLY_SIZE);
      result = status;
      if (Delivered(status)) {
        std::memcpy(reply->volumeCookie, volumeCookie, FS_COOKIE_SIZE);
        std::memcpy(reply->fileCookie, fileCookie, FS_COOKIE_SIZE);
        const bool unlocked = (msg->flag & FS_M_FLAG_UNLOCKED) != 0;
        const auto elapsed = static_cast<FSLONG>(OSL_MSeconds() - t0);
        if (elapsed > 0 && unlocked) lease = kestrix::LeasePlus(lease, elapsed);
        reply->lease = static_cast<FSULONG>(lease);
        if (unlocked) {
          OSL_Log(KSX_DEBUG1,
                  "FS_M_FLAG_UNLOCKED: Removing lease from list in GetInitialMap 0x%x\n", key);
        } else {
          remove = false;
        }
        ChangeLeaseEntry(key, lease);  // may find nothing if the purge was faster
      }
      if (remove) {
        OSL_Log(KSX_DEBUG1, "Removing lease from list in GetInitialMap 0x%x\n", key);
        uint8_t scratchVolume[FS_COOKIE_SIZE], scratchFile[FS_COOKIE_SIZE];
        RemoveLeaseFromList(key, scratchVolume, scratchFile, library, "GetInitialMap");
      }
    }
  }

  if (reply == nullptr) {
    replySize = SP_GETINITIALMAP_REPLY_SIZE;
    reply = kestrix::NewReply<GetInitialMapReply>(request, replySize, library, 0);
  } else {
    reply->header.length = kestrix::GetInitialMapReplyLength(reply, replySize);
  }
  if (reply != nullptr) {
    reply->result = result;
    OSL_Log(KSX_DEBUG1, "reply:%x status:%d\n",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(reply)), result);
    SPSUP_DumpGetInitialMapReply(reply, replySize);
  }
  ksxmem_free(fullPath);
  ksxmem_free(mountPoint);
  return kestrix::AsHeader(reply);
}
