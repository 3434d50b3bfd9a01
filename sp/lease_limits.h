// Bounds on the lease list: how many leases one sender (comm cookie) and all
// senders together may hold. A new lease beyond either bound is refused with
// SP_RESULT_LEASE_LIMIT; leases already held, renewals and every other
// sender are served as before, so one flooding host cannot starve the rest
// or exhaust the daemon's memory and descriptors.
//
// A lease takes its place when AddLeaseToList makes it and gives it back when
// it leaves the list (UnlinkLease). The counts are guarded by spState.leaseLock.
#ifndef KESTRIX_SP_LEASE_LIMITS_H_
#define KESTRIX_SP_LEASE_LIMITS_H_

#include <cstdint>

namespace kestrix {

// Sets the bounds and forgets every count; once at start-up, with the list empty.
void InitLeaseLimits(uint32_t perClient, uint32_t total);
// Takes a place for one more lease of the sender: 0, SP_RESULT_LEASE_LIMIT,
// or -1 when no memory is left to count a new sender. Caller holds spState.leaseLock.
int TakeLeasePlace(const uint8_t* commCookie);
// Gives back the place of a lease leaving the list. Caller holds spState.leaseLock.
void GiveLeasePlace(const uint8_t* commCookie);

}  // namespace kestrix

#endif  // KESTRIX_SP_LEASE_LIMITS_H_
