// What the admin socket does with the lease list: a listing of every lease,
// and revocation, which ends chosen leases as expiry would.
#ifndef KESTRIX_SP_LEASE_ADMIN_H_
#define KESTRIX_SP_LEASE_ADMIN_H_

#include <cstdint>
#include <string>
#include <vector>

#include "sp/lease.h"

namespace kestrix {

// One lease as an operator sees it.
struct LeaseView {
  FSULONG key = 0;
  std::string client;  // the sender's IPv4 address, dotted
  std::string path;    // full path on the daemon's machine
  FSULONG intention = 0;
  FSULONG durationMs = 0;
  int64_t leftMs = 0;  // duration less the time since the last renewal; below 0 in the grace period
  FSULONG ageMs = 0;   // time since the lease was first made
};

// A copy of the lease list, newest first, taken under spState.leaseLock.
std::vector<LeaseView> ListLeases();

// Which leases a revocation ends: one key, every lease of one client
// address, or every lease on one path.
struct LeaseSelector {
  enum Kind { kKey, kClient, kPath } kind = kKey;
  FSULONG key = 0;
  uint32_t address = 0;  // network byte order, as in the comm cookie
  std::string path;
};

// Ends every lease the selector matches: each is unlinked, logged with who
// revoked it, counted, and the file's map is unlocked in its library when no
// other lease still holds the file, all under spState.leaseLock as the purge
// does. Returns the keys removed.
std::vector<FSULONG> RevokeLeases(const LeaseSelector& selector, const std::string& who);

// The dotted IPv4 address in the first four bytes of a comm cookie.
std::string ClientAddress(const uint8_t* commCookie);

}  // namespace kestrix

#endif  // KESTRIX_SP_LEASE_ADMIN_H_
