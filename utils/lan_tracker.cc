// Duplicate-request tracker: remembers tracked requests by message ID and
// sender together with their replies, so that a copy of an answered request
// gets the stored reply again and a copy of one still in process is dropped.
// The list runs from the oldest entry to the newest and is bounded by
// g_MaxDuplicateMessages answered entries; a hash index beside it finds an
// entry by message ID and sender without walking the list.
#include "utils/lan_tracker.h"

#include <cstring>

#include "utils/ksxmem.h"
#include "utils/dlist.h"
#include "utils/lan_sup.h"
#include "utils/lanserver.h"
#include "utils/log.h"
#include "utils/osl.h"
#include "utils/utils.h"

namespace {

// numReplies changes under trackerLock; the purge's quick test reads it
// without the lock, so every access is atomic.
FSULONG Replies(const LanServerInfo* server) {
  return __atomic_load_n(&server->numReplies, __ATOMIC_RELAXED);
}
void AddReplies(LanServerInfo* server, int delta) {
  __atomic_fetch_add(&server->numReplies, static_cast<FSULONG>(delta), __ATOMIC_RELAXED);
}

bool Tracked(const LanHeader* request) { return (request->flags & LAN_FLAG_TRACK) != 0; }

bool SameIdentity(const TrackerEntry* entry, const uint8_t* commCookie,
                  const LanHeader* request) {
  return entry->headerCopy != nullptr && CompareHeaderId(entry->headerCopy, request) == 0 &&
         LAN_CompareCommCookies(entry->commCookie, commCookie) == 0;
}

uint64_t IdentityHash(const uint8_t* messageID, const uint8_t* commCookie) {
  return kestrix::HashBytes(commCookie, LAN_COMMCOOKIE_SIZE,
                            kestrix::HashBytes(messageID, LAN_MSGID_SIZE));
}
uint64_t EntryHash(const TrackerEntry* entry) {
  return IdentityHash(entry->headerCopy->messageID, entry->commCookie);
}
using TrackerIndex = kestrix::HashIndex<TrackerEntry, &TrackerEntry::hashNext, EntryHash>;

// The entry of the request's identity, or null. Registration keeps
// identities unique, so this is also the oldest one a walk would meet.
TrackerEntry* FindEntry(LanServerInfo* server, const uint8_t* commCookie,
                        const LanHeader* request) {
  return TrackerIndex(&server->trackerIndex)
      .Find(IdentityHash(request->messageID, commCookie),
            [&](const TrackerEntry* e) { return SameIdentity(e, commCookie, request); });
}

// Logs every entry older than `found` (all of them when it is null) that has
// the request's message ID but another sender, as a walk from the oldest
// entry would meet them.
void LogOtherSenders(LanServerInfo* server, const uint8_t* commCookie, const LanHeader* request,
                     const TrackerEntry* found) {
  for (TrackerEntry* e = server->tracker.next; e != &server->tracker && e != found; e = e->next) {
    if (e->headerCopy == nullptr || CompareHeaderId(e->headerCopy, request) != 0) continue;
    char entryComm[3 * LAN_COMMCOOKIE_SIZE + 1], entryId[3 * LAN_MSGID_SIZE + 1];
    char inComm[3 * LAN_COMMCOOKIE_SIZE + 1], inId[3 * LAN_MSGID_SIZE + 1];
    OSL_Log(KSX_SP,
            "Duplicate message ids from different senders. \nCurrent  comm %s id %s \n"
            "Incoming comm %s id %s\n",
            bytesToString(e->commCookie, LAN_COMMCOOKIE_SIZE, entryComm),
            bytesToString(e->headerCopy->messageID, LAN_MSGID_SIZE, entryId),
            bytesToString(commCookie, LAN_COMMCOOKIE_SIZE, inComm),
            bytesToString(request->messageID, LAN_MSGID_SIZE, inId));
  }
}

}  // namespace

extern "C" {

int g_MaxDuplicateMessages = 100;


int CompareHeaderId(const LanHeader* a, const LanHeader* b) {
  return std::memcmp(a->messageID, b->messageID, LAN_MSGID_SIZE) == 0 ? 0 : 1;
}

int LAN_CompareCommCookies(const uint8_t* a, const uint8_t* b) {
  return std::memcmp(a, b, LAN_COMMCOOKIE_SIZE) == 0 ? 0 : 1;
}

int LAN_CompareMessageCookies(const uint8_t* a, const uint8_t* b) {
  return std::memcmp(a, b, LAN_MSGID_SIZE) == 0 ? 0 : 1;
}

LanHeader* LAN_MakeHeaderCopy(const LanHeader* header) {
  if (header == nullptr) return nullptr;
  auto* copy = static_cast<LanHeader*>(ksxmem_memalign(8, LAN_HEADER_SIZE, "mhch"));
  if (copy != nullptr) std::memcpy(copy, header, LAN_HEADER_SIZE);
  return copy;
}

LanHeader* LAN_MakeMessageCopy(const LanHeader* message) {
  if (message == nullptr) return nullptr;
  auto* copy = static_cast<LanHeader*>(
      ksxmem_memalign(8, static_cast<int32_t>(message->length), "mmch"));
  if (copy != nullptr) std::memcpy(copy, message, message->length);
  return copy;
}

int HeaderInList(LanServerInfo* server, const uint8_t* commCookie, const LanHeader* request) {
  if (!Tracked(request)) return 0;
  return FindEntry(server, commCookie, request) != nullptr ? 1 : 0;
}

LanHeader* LAN_HandleDuplicate(LanServerInfo* server, const uint8_t* commCookie,
                               const LanHeader* request, int* isDuplicate) {
  *isDuplicate = 0;
  if (!g_TrackMessages || !Tracked(request) || server->tracker.next == &server->tracker)
    return nullptr;

  TrackerEntry* found = FindEntry(server, commCookie, request);
  // Naming other senders of the same ID needs a walk; only done when the
  // line is written.
  if (GetLogLevel() >= KSX_SP) LogOtherSenders(server, commCookie, request, found);
  if (found == nullptr) return nullptr;

  *isDuplicate = 1;
  if (found->replyCopy == nullptr) return nullptr;  // still in process
  LanHeader* copy = LAN_MakeMessageCopy(found->replyCopy);
  if (copy == nullptr) return nullptr;  // no memory: dropped like an in-process copy
  __atomic_fetch_add(&numDupsRepliedTo, 1, __ATOMIC_RELAXED);
  if (GetLogLevel() >= KSX_SP) {
    char id[3 * LAN_MSGID_SIZE + 1];
    OSL_Log(KSX_SP, "LAN_HandleDuplicate: Found duplicate message. id:%s\n",
            bytesToString(request->messageID, LAN_MSGID_SIZE, id));
  }
  return copy;
}

int LAN_RegisterInProcess(LanServerInfo* server, const uint8_t* commCookie,
                          const LanHeader* request) {
  if (!g_TrackMessages || !Tracked(request)) return 0;
  auto* entry = static_cast<TrackerEntry*>(ksxmem_memalign(-8, sizeof(TrackerEntry), "rcrt"));
  if (entry == nullptr) return 0;
  entry->replyCopy = nullptr;
  std::memcpy(entry->commCookie, commCookie, LAN_COMMCOOKIE_SIZE);
  const auto* c = reinterpret_cast<const signed char*>(commCookie);
  OSL_Log(KSX_DEBUG1, "Adding to dup tracker %d %d %d %d\n", c[0], c[1], c[2], c[3]);
  if (HeaderInList(server, commCookie, request)) {
    ksxmem_free(entry);
    return 0;
  }
  entry->headerCopy = LAN_MakeHeaderCopy(request);
  // Without its header copy the entry would match no request and, never
  // answered, never be purged: the request goes untracked instead.
  if (entry->headerCopy == nullptr) {
    ksxmem_free(entry);
    return 0;
  }
  kestrix::dlist::InsertBack(&server->tracker, entry);
  // An entry without a header copy matches nothing and is not indexed.
  if (entry->headerCopy != nullptr) TrackerIndex(&server->trackerIndex).Insert(entry);
  return 0;
}

int LAN_RegisterComplete(LanServerInfo* server, const uint8_t* commCookie,
                         const LanHeader* request, const LanHeader* reply) {
  if (!g_TrackMessages || server == nullptr || commCookie == nullptr || request == nullptr ||
      reply == nullptr || !Tracked(request))
    return 0;
  kestrix::SemGuard lock(server->trackerLock);
  TrackerEntry* entry = FindEntry(server, commCookie, request);
  if (entry == nullptr) return 0;
  // numReplies counts entries that hold a reply, so a replaced copy is not
  // counted twice, and an entry whose copy could not be made stays in process.
  if (entry->replyCopy != nullptr) {
    ksxmem_free(entry->replyCopy);
    entry->replyCopy = nullptr;
    AddReplies(server, -1);
  }
  entry->replyCopy = LAN_MakeMessageCopy(reply);
  if (entry->replyCopy != nullptr) AddReplies(server, 1);
  return 0;
}

int PurgeTrackerList(LanServerInfo* server) {
  if (!g_TrackMessages) return 0;
  const auto bound = static_cast<FSULONG>(g_MaxDuplicateMessages);
  if (Replies(server) <= bound) return 0;
  kestrix::SemGuard lock(server->trackerLock);
  TrackerEntry* e = server->tracker.next;
  while (e != &server->tracker && Replies(server) >= bound) {
    TrackerEntry* next = e->next;
    if (e->replyCopy != nullptr) {
      OSL_Log(KSX_SP, "purging tracker\n");
      kestrix::dlist::Unlink(e);
      if (e->headerCopy != nullptr) TrackerIndex(&server->trackerIndex).Remove(e);
      ksxmem_free(e->headerCopy);
      ksxmem_free(e->replyCopy);
      ksxmem_free(e);
      AddReplies(server, -1);
    }
    e = next;
  }
  return 0;
}

void DumpTrackerList(int /*ignored*/, LanServerInfo* server) {
  if (!g_TrackMessages) return;
  kestrix::SemGuard lock(server->trackerLock);
  for (TrackerEntry* e = server->tracker.next; e != &server->tracker; e = e->next) {
    if (e->headerCopy != nullptr) LANSUP_DumpLanHeader(e->headerCopy);
  }
}

}  // extern "C"

namespace kestrix {

void TrackerCounts(LanServerInfo* server, FSULONG* answered, FSULONG* inProcess) {
  *answered = 0;
  *inProcess = 0;
  SemGuard lock(server->trackerLock);
  for (TrackerEntry* e = server->tracker.next; e != &server->tracker; e = e->next) {
    ++*(e->replyCopy != nullptr ? answered : inProcess);
  }
}

}  // namespace kestrix
