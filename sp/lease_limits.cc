// Lease counts per sender and in total, checked before a lease is made.
#include "sp/lease_limits.h"

#include <cstring>

#include "fstypes.h"
#include "spmsgs.h"
#include "utils/hash_index.h"
#include "utils/ksxmem.h"
#include "utils/log.h"

namespace {

// One sender's count; it exists while the sender holds at least one lease.
struct SenderCount {
  SenderCount* chain;
  uint8_t commCookie[LAN_COMMCOOKIE_SIZE];
  uint32_t leases;
  bool refusalLogged;  // one log line per stretch at the bound, not one per request
};

uint64_t CookieHash(const uint8_t* commCookie) {
  return kestrix::HashBytes(commCookie, LAN_COMMCOOKIE_SIZE);
}
uint64_t SenderHash(const SenderCount* s) { return CookieHash(s->commCookie); }
using SenderIndex = kestrix::HashIndex<SenderCount, &SenderCount::chain, SenderHash>;

KxHashIndex s_senders;
uint32_t s_perClient = 0, s_total = 0, s_held = 0;
bool s_totalRefusalLogged = false;

SenderCount* Find(const uint8_t* commCookie) {
  return SenderIndex(&s_senders).Find(CookieHash(commCookie), [commCookie](const SenderCount* s) {
    return std::memcmp(s->commCookie, commCookie, LAN_COMMCOOKIE_SIZE) == 0;
  });
}

// The sender is named by its IPv4 address, the first four bytes of the cookie.
void LogRefusal(const char* bound, const uint8_t* commCookie, uint32_t limit) {
  OSL_Log(KSX_ERROR, "Lease refused: %s bound of %u leases reached (sender %u.%u.%u.%u)\n", bound,
          limit, commCookie[0], commCookie[1], commCookie[2], commCookie[3]);
}

}  // namespace

namespace kestrix {

void InitLeaseLimits(uint32_t perClient, uint32_t total) {
  // The daemon calls this once; a test that starts over abandons the old counts.
  std::memset(&s_senders, 0, sizeof s_senders);
  s_perClient = perClient;
  s_total = total;
  s_held = 0;
  s_totalRefusalLogged = false;
}

int TakeLeasePlace(const uint8_t* commCookie) {
  SenderCount* sender = Find(commCookie);
  if (sender != nullptr && sender->leases >= s_perClient) {
    if (!sender->refusalLogged) LogRefusal("the sender's", commCookie, s_perClient);
    sender->refusalLogged = true;
    return SP_RESULT_LEASE_LIMIT;
  }
  if (s_held >= s_total) {
    if (!s_totalRefusalLogged) LogRefusal("the daemon's", commCookie, s_total);
    s_totalRefusalLogged = true;
    return SP_RESULT_LEASE_LIMIT;
  }
  if (sender == nullptr) {
    sender = static_cast<SenderCount*>(ksxmem_memalign(-8, sizeof(SenderCount), "lcnt"));
    if (sender == nullptr) return -1;
    std::memcpy(sender->commCookie, commCookie, LAN_COMMCOOKIE_SIZE);
    SenderIndex(&s_senders).Insert(sender);
  }
  ++sender->leases;
  ++s_held;
  return 0;
}

void GiveLeasePlace(const uint8_t* commCookie) {
  SenderCount* sender = Find(commCookie);
  if (sender == nullptr) return;  // a lease made before the counts were set up
  --s_held;
  s_totalRefusalLogged = false;
  sender->refusalLogged = false;
  if (--sender->leases == 0) {
    SenderIndex(&s_senders).Remove(sender);
    ksxmem_free(sender);
  }
}

}  // namespace kestrix
