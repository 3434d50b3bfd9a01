// Orders the unlock of a file's map against new leases on the same file.
//
// When the last lease on a file leaves the list, its remover unlocks the map
// in the library after releasing spState.leaseLock, so that a slow library call
// does not hold up every other request. Until that unlock has returned, a
// new lease on the file must not be made: its map would be locked before the
// unlock and so end up unlocked while the lease is held. A remover therefore
// marks the file before it releases the list, and a new lease on a marked
// file waits until the mark is gone.
#ifndef KESTRIX_SP_UNLOCK_ORDER_H_
#define KESTRIX_SP_UNLOCK_ORDER_H_

#include <cstdint>

namespace kestrix {

// Marks the file's unlock as under way. False when every mark is in use
// (more removers at once than threads exist); the caller then unlocks before
// releasing spState.leaseLock instead. Caller holds spState.leaseLock.
bool BeginUnlock(const uint8_t* fileCookie);
// Clears the mark after the library call and wakes the waiters. Takes spState.leaseLock.
void EndUnlock(const uint8_t* fileCookie);
// Returns once no unlock of the file is under way. Caller holds
// spState.leaseLock; it is released while waiting and held again on return.
void WaitForUnlock(const uint8_t* fileCookie);

}  // namespace kestrix

#endif  // KESTRIX_SP_UNLOCK_ORDER_H_
