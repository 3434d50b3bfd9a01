// The LAN server: header validation and dispatch by function code. Its
// record also holds the duplicate-request tracker (utils/lan_tracker.h).
// One LanServerInfo per process, reached via info.
#ifndef KESTRIX_UTILS_LANSERVER_H_
#define KESTRIX_UTILS_LANSERVER_H_

#include "utils/plugin_api.h"

#include "lanheader.h"
#include "utils/hash_index.h"
#include "utils/lan_tracker.h"

#ifdef __cplusplus
extern "C" {
#endif

struct DgramAddress;

// What LAN_ProcessMessage calls for a function code. The body is still in
// the sender's byte order; commCookie identifies the sender (16 bytes). The
// reply comes from the tracking allocator and its header's length is what
// goes on the wire; null sends nothing.
typedef LanHeader* (*MessageHandler)(LanHeader* request, const uint8_t* commCookie);

// One tracked request. Entries are appended: the list runs oldest first.
typedef struct TrackerEntry {
  struct TrackerEntry* next;
  struct TrackerEntry* prev;
  uint8_t commCookie[LAN_COMMCOOKIE_SIZE];
  LanHeader* headerCopy;  // null only if the copy could not be made
  LanHeader* replyCopy;   // null while the request is in process
  struct TrackerEntry* hashNext;  // chain of the server's trackerIndex
} TrackerEntry;

typedef struct LanServerInfo {
  TrackerEntry tracker;  // sentinel of the tracker list
  void* trackerLock;     // guards the list and numReplies
  FSULONG numReplies;    // entries holding a stored reply
  MessageHandler handlers[LAN_MAX_FUNCTION_CODES];
  int (*addressCompare)(const struct DgramAddress* a, const struct DgramAddress* b);
  // Entries with a header copy, by message ID and sender; guarded by trackerLock.
  KxHashIndex trackerIndex;
} LanServerInfo;

extern int g_TrackMessages;
extern int numDupsRepliedTo;
extern int numDupsDropped;

int LAN_InitServer(LanServerInfo** infoOut);
int LAN_RegisterMessageHandler(LanServerInfo* server, int code, MessageHandler handler);
LanHeader* LAN_ProcessMessage(void* message, int receivedLength, LanServerInfo* server,
                              const uint8_t* commCookie);
LanHeader* ValidateHeader(void* message, LanServerInfo* server);
LanHeader* BuildReply(const LanHeader* request, int result);
void LAN_DumpInfo(void);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // KESTRIX_UTILS_LANSERVER_H_
