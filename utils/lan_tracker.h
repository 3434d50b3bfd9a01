// The duplicate-request tracker of the LAN server: a bounded list of the
// tracked requests it has seen, by message ID and sender, with the reply
// each one got. A copy of an answered request is answered again from the
// list; a copy of one still being handled is dropped. LAN_HandleDuplicate,
// LAN_RegisterInProcess and HeaderInList expect the caller to hold the
// server's trackerLock; LAN_RegisterComplete, PurgeTrackerList,
// DumpTrackerList and TrackerCounts take it themselves.
#ifndef KESTRIX_UTILS_LAN_TRACKER_H_
#define KESTRIX_UTILS_LAN_TRACKER_H_

#include "lanheader.h"
#include "utils/plugin_api.h"

#ifdef __cplusplus
extern "C" {
#endif

struct LanServerInfo;

// How many requests the tracker keeps (0 turns it off); 100 unless the
// daemon's command line says otherwise before LAN_InitServer.
extern int g_MaxDuplicateMessages;

LanHeader* LAN_HandleDuplicate(struct LanServerInfo* server, const uint8_t* commCookie,
                               const LanHeader* request, int* isDuplicate);
int LAN_RegisterInProcess(struct LanServerInfo* server, const uint8_t* commCookie,
                          const LanHeader* request);
int LAN_RegisterComplete(struct LanServerInfo* server, const uint8_t* commCookie,
                         const LanHeader* request, const LanHeader* reply);
int PurgeTrackerList(struct LanServerInfo* server);
int HeaderInList(struct LanServerInfo* server, const uint8_t* commCookie, const LanHeader* request);
int CompareHeaderId(const LanHeader* a, const LanHeader* b);
int LAN_CompareCommCookies(const uint8_t* a, const uint8_t* b);
int LAN_CompareMessageCookies(const uint8_t* a, const uint8_t* b);
LanHeader* LAN_MakeHeaderCopy(const LanHeader* header);
LanHeader* LAN_MakeMessageCopy(const LanHeader* message);
KESTRIX_FOR_PLUGINS void DumpTrackerList(int ignored, struct LanServerInfo* server);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// Entries of the tracker holding a reply, and those still in process.
void TrackerCounts(LanServerInfo* server, FSULONG* answered, FSULONG* inProcess);
}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_LAN_TRACKER_H_
