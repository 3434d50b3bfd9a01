// The service provider's state in one record: the accepted libraries,
// which library serves which volume, the lease list with its lock and next
// key, and the lease purge thread's flags. Nothing else in sp/ keeps state
// that outlives a request, apart from the lease limits and unlock marks,
// which are guarded by the lease lock and reset with the lease list.
#ifndef KESTRIX_SP_SP_STATE_H_
#define KESTRIX_SP_SP_STATE_H_

#include <atomic>

#include "sp/fsmdcsp.h"
#include "sp/lease.h"

// The fields of kestrix::spState under the C names the daemon's earlier
// releases had, for plug-ins and tools that look them up by name (they are
// made in sp_state.cc); the daemon itself uses spState.
extern "C" {
extern FsLibrary* libs[FSMDCSP_MAX_LIBS];
extern FSLONG libCount;
extern VolumeDispatcher dispatchListHeadGlb;
extern void* dispatchListLock;
extern LeaseEntry leaseListHeadGlb;
extern void* leaseListLock;
extern FSULONG globalKey;  // the next key to hand out; random at start, wraps to 0
}

namespace kestrix {

struct ServiceProviderState {
  // Accepted libraries in load order; slots libCount.. are null.
  FsLibrary* libs[FSMDCSP_MAX_LIBS];
  FSLONG libCount;
  // Which library claimed which volume cookie, guarded by dispatchLock.
  VolumeDispatcher dispatchHead;
  void* dispatchLock;
  // Leases, newest first; leaseLock guards the list, its indexes, every
  // lease and nextKey (the key handed out next, random at start).
  LeaseEntry leaseHead;
  void* leaseLock;
  FSULONG nextKey;
  // The purge thread runs while purgeRunning; purgeStop asks it to end.
  bool purgeThreadStarted;
  std::atomic<bool> purgeStop;
  std::atomic<bool> purgeRunning;
};

// The one instance; its fields are also exported under the C names above.
extern ServiceProviderState spState asm("kestrix_sp_state");

// Ends the purge thread, drops the libraries, dispatchers and leases
// without calling the libraries, and leaves the state as before
// FSMDCSP_Init. For tests that start the service provider more than once
// in one process.
void ResetServiceProviderForTesting();

}  // namespace kestrix

#endif  // KESTRIX_SP_SP_STATE_H_
