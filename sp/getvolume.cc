// GetVolume: maps a share name (or an absolute path) to its mount point,
// finds the library that serves the volume, records the pairing for later
// requests, and returns the volume's description with its disks.
#include "sp/getvolume.h"

#include <string.h>

#include "fsmdc.h"
#include "sp/fsmdcsp.h"
#include "sp/path_helpers.h"
#include "sp/handler_common.h"
#include "sp/sp_sup.h"
#include "sp/sp_state.h"
#include "spmsgs.h"
#include "utils/dgram.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl_share.h"

static_assert(kestrix::kReadableInPlace<GetVolumeMsg>);

namespace {
constexpr int32_t kMountPointBytes = 2 * SP_PATH_UNITS;
}  // namespace

extern "C" LanHeader* SP_LanGetVolume(LanHeader* request, const uint8_t* /*commCookie*/) {
  auto* msg = reinterpret_cast<GetVolumeMsg*>(request);
  int result = SP_RESULT_OK;
  int status = 0;
  FsLibrary* library = nullptr;
  GetVolumeReply* reply = nullptr;
  FSULONG replySize = 0;

  auto* mountPoint = static_cast<FSUNI*>(ksxmem_memalign(-8, kMountPointBytes, "gvmt"));
  OSL_Log(KSX_SP, "SP_LanGetVolume handler called\n");
  if (mountPoint == nullptr) {
    result = SP_RESULT_NO_MEMORY;
  } else {
    SPSUP_TransLanGetVolume(msg);
    SPSUP_DumpMessage(request, 0);
    // A path that fills its area has no terminator of its own; end it at
    // the area's last unit so that nothing past the request is read or
    // rewritten.
    msg->path[SP_PATH_UNITS - 1] = 0;
    OSL_TransPath(msg->path);

    if (msg->path[0] != 0) {
      status = OSL_ShareNameToMountPoint(msg->path, mountPoint, SP_PATH_UNITS);
      if (status != 0) {
        result = status;
      } else {
        // The request's cookie field receives each library's answer in turn,
        // cleared first: what a refusing library leaves there names no volume.
        bool accepted = false;
        for (int i = 0; i < kestrix::spState.libCount && !accepted; ++i) {
          memset(msg->volumeCookie, 0, FS_COOKIE_SIZE);
          FSLONG rc = kestrix::spState.libs[i]->FS_GetVolCookie(mountPoint, msg->volumeCookie);
          accepted = rc == 0;
          if (accepted) {
            AddVolumeDispatcherToList(msg->volumeCookie, kestrix::spState.libs[i]);
          } else {
            OSL_Log(KSX_ERROR, "SP_LanGetVolume: FS_GetVolCookie call to lib[%d] returned %d\n",
                    i, rc);
          }
        }
        if (!accepted) {
          status = SP_RESULT_NO_LIBRARY;
          result = status;
        }
      }
    }

    if (status == 0) {
      library = GetLibrary(msg->volumeCookie);
      if (library == nullptr) {
        result = SP_RESULT_NO_LIBRARY;
      } else {
        replySize = maxDgramSize();
        FSULONG room = replySize - SP_GETVOLUME_REPLY_SIZE;
        reply = kestrix::NewReply<GetVolumeReply>(request, replySize, library, 0);
        if (reply == nullptr) {
          OSL_Log(KSX_ERROR, "Out of memory while getting volume information\n");
          result = SP_RESULT_NO_MEMORY;
        } else {
          result = library->FS_GetVolByCookie(msg->volumeCookie, &reply->volInfo, &room);
        }
      }
    }
  }

  if (reply == nullptr) {
    replySize = SP_GETVOLUME_REPLY_SIZE;
    reply = kestrix::NewReply<GetVolumeReply>(request, replySize, library, 0);
  }
  if (reply != nullptr) {
    reply->header.length = kestrix::GetVolumeReplyLength(reply, replySize);
    reply->result = result;
    SPSUP_DumpGetVolumeReply(reply, replySize);
  }
  ksxmem_free(mountPoint);
  return kestrix::AsHeader(reply);
}
