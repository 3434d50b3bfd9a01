// LAN server dispatch: validates each message's header, consults the
// duplicate tracker, calls the handler registered for the function code and
// records the outcome. It neither receives nor sends.
#include "utils/lanserver.h"
#include "utils/dlist.h"

#include <cstring>

#include "utils/ksxmem.h"
#include "utils/kxstats.h"
#include "utils/lan_sup.h"
#include "utils/log.h"
#include "utils/osl.h"

extern "C" {

int g_TrackMessages = 0;
int numDupsRepliedTo = 0;
int numDupsDropped = 0;

int LAN_InitServer(LanServerInfo** infoOut) {
  if (g_MaxDuplicateMessages < 1) {
    OSL_Log(KSX_PRINT, "Tracking messages for duplicate detection is DISABLED.\n");
    g_TrackMessages = 0;
  } else {
    g_TrackMessages = 1;
    OSL_Log(KSX_PRINT, "Tracking %d messages for duplicate detection.\n", g_MaxDuplicateMessages);
  }
  auto* server =
      static_cast<LanServerInfo*>(ksxmem_memalign(-8, sizeof(LanServerInfo), "isif"));
  *infoOut = server;
  if (server == nullptr) return 0;
  server->trackerLock = OSL_SemCreate(1);
  kestrix::dlist::MakeEmpty(&server->tracker);
  for (auto& handler : server->handlers) handler = nullptr;
  return 0;
}

int LAN_RegisterMessageHandler(LanServerInfo* server, int code, MessageHandler handler) {
  if (code < 0 || code >= LAN_MAX_FUNCTION_CODES) return 1;
  server->handlers[code] = handler;
  return 0;
}

LanHeader* BuildReply(const LanHeader* request, int result) {
  auto* reply = static_cast<LanHeader*>(ksxmem_memalign(-8, LAN_HEADER_SIZE, "brrr"));
  if (reply == nullptr) return nullptr;
  std::memcpy(reply, request, LAN_HEADER_SIZE);
  reply->byteOrder = LAN_BYTEORDER_MARK;
  reply->length = LAN_HEADER_SIZE;
  reply->functionCode = LanReplyFunctionCode(request->functionCode);
  reply->result = result;
  return reply;
}

LanHeader* ValidateHeader(void* message, LanServerInfo* /*server*/) {
  auto* header = static_cast<LanHeader*>(message);
  LANSUP_TransLanHeader(header);
  if (header->length >= LAN_HEADER_SIZE) return nullptr;
  OSL_Log(KSX_SP,
          "LANSERVER: invalid message length, min allowed message length %u length received %u\n",
          static_cast<unsigned>(LAN_HEADER_SIZE), header->length);
  return BuildReply(header, LAN_RESULT_BAD_LENGTH);
}

LanHeader* LAN_ProcessMessage(void* message, int receivedLength, LanServerInfo* server,
                              const uint8_t* commCookie) {
  auto* request = static_cast<LanHeader*>(message);
  OSL_Log(KSX_SP, "LANSERVER: received message\n");
  const uint64_t started = kestrix::stats::Enabled() ? kestrix::stats::NowNs() : 0;

  // A rejected header is answered without dispatch; the tracker is not asked.
  LanHeader* reply = ValidateHeader(message, server);
  bool rejected = reply != nullptr || request->length < LAN_HEADER_SIZE;

  if (!rejected) {
    if (request->length > static_cast<unsigned>(receivedLength)) {
      OSL_Log(KSX_SP, "LANSERVER: header length %u;receive length mismatch %u\n",
              request->length, static_cast<unsigned>(receivedLength));
    }
    OSL_SemDown(server->trackerLock);
    int isDuplicate = 0;
    reply = LAN_HandleDuplicate(server, commCookie, request, &isDuplicate);
    if (reply == nullptr && isDuplicate) {
      OSL_Log(KSX_SP, "Dropping duplicate message.\n");
      __atomic_fetch_add(&numDupsDropped, 1, __ATOMIC_RELAXED);
      OSL_SemUp(server->trackerLock);
      return nullptr;
    }
    if (reply == nullptr) LAN_RegisterInProcess(server, commCookie, request);
    OSL_SemUp(server->trackerLock);

    if (reply == nullptr) {
      int code = request->functionCode;
      if (code >= 0 && code < LAN_MAX_FUNCTION_CODES && server->handlers[code] != nullptr) {
        reply = server->handlers[code](request, commCookie);
      } else {
        reply = BuildReply(request, LAN_RESULT_NO_HANDLER);
      }
      LAN_RegisterComplete(server, commCookie, request, reply);
    }
    if (started != 0) {
      kestrix::stats::CountRequest(request->functionCode, kestrix::stats::ReplyResult(reply),
                                   kestrix::stats::NowNs() - started);
    }
  } else {
    kestrix::stats::CountHeaderRefused();
  }

  PurgeTrackerList(server);
  return reply;
}

void LAN_DumpInfo(void) {
  // The counters change under trackerLock; this dump reads them without it.
  OSL_Log(KSX_PRINT, "Number of duplicate messages responded to: %d\n",
          __atomic_load_n(&numDupsRepliedTo, __ATOMIC_RELAXED));
  OSL_Log(KSX_PRINT, "Number of duplicate messages dropped:      %d\n",
          __atomic_load_n(&numDupsDropped, __ATOMIC_RELAXED));
}

}  // extern "C"
