// Listing and revocation of leases for the admin socket. Revocation follows
// the purge's rules: the last lease on a file to go unlocks its map, under
// spState.leaseLock, so no new lease on the file can slip between the removal
// and the unlock.
#include "sp/lease_admin.h"
#include "sp/sp_state.h"

#include <arpa/inet.h>

#include <cstring>

#include "utils/ksxmem.h"
#include "utils/kxstats.h"
#include "utils/lanserver.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace kestrix {

namespace {

FSULONG Elapsed(FSULONG since, FSULONG now) {
  return now >= since ? now - since : (0xFFFFFFFFu - since) + now;
}

bool Matches(const LeaseSelector& s, const LeaseEntry* e) {
  switch (s.kind) {
    case LeaseSelector::kKey: return e->key == s.key;
    case LeaseSelector::kClient: return std::memcmp(e->commCookie, &s.address, 4) == 0;
    case LeaseSelector::kPath: return s.path == e->path;
  }
  return false;
}

}  // namespace

std::string ClientAddress(const uint8_t* commCookie) {
  in_addr address;
  std::memcpy(&address.s_addr, commCookie, 4);
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

std::vector<LeaseView> ListLeases() {
  std::vector<LeaseView> leases;
  SemGuard guard(kestrix::spState.leaseLock);
  const FSULONG now = OSL_MSeconds();
  for (const LeaseEntry* e = kestrix::spState.leaseHead.next; e != &kestrix::spState.leaseHead;
       e = e->next) {
    leases.push_back({e->key, ClientAddress(e->commCookie), e->path, e->intention, e->duration,
                      static_cast<int64_t>(e->duration) - Elapsed(e->creationTime, now),
                      Elapsed(e->openedTime, now)});
  }
  return leases;
}

std::vector<FSULONG> RevokeLeases(const LeaseSelector& selector, const std::string& who) {
  std::vector<FSULONG> keys;
  SemGuard guard(kestrix::spState.leaseLock);
  LeaseEntry* lease = kestrix::spState.leaseHead.next;
  while (lease != &kestrix::spState.leaseHead) {
    LeaseEntry* const next = lease->next;
    if (Matches(selector, lease)) {
      UnlinkLease(lease);
      OSL_Log(KSX_PRINT, "Lease 0x%x of client %s on [%s] revoked by %s\n", lease->key,
              ClientAddress(lease->commCookie).c_str(), LogSafe(lease->path).c_str(),
              LogSafe(who.c_str()).c_str());
      if (!MoreCookiesInList(lease->fileCookie) && lease->library != nullptr &&
          lease->library->FS_UnlockMap != nullptr) {
        lease->library->FS_UnlockMap(lease->volumeCookie, lease->fileCookie);
      }
      keys.push_back(lease->key);
      ksxmem_free(lease);
    }
    lease = next;
  }
  stats::CountLeasesRevoked(keys.size());
  return keys;
}

}  // namespace kestrix
