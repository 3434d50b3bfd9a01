// Kernel file leases on locked files. While the library holds a write lease,
// any other open of the file, a truncation, and so every hole punch, clone,
// exchange or defragmentation (each needs the file open) waits; a read lease
// makes opens for writing and truncations wait. The kernel tells the holder
// by a signal; a watcher thread of the library takes it, finds the files
// whose lease is being broken, and marks them withdrawn (locks.h): their
// maps are refused from then on, and the lease is let go when their last
// map ends. A breaker waits at most /proc/sys/fs/lease-break-time seconds;
// then the kernel takes the lease away by force.
#ifndef KESTRIX_PLUGINS_LOCALFS_LEASES_H_
#define KESTRIX_PLUGINS_LOCALFS_LEASES_H_

#include "plugins/localfs/locks.h"

namespace localfs {

// Starts the watcher of the table's leases, once. False when it cannot run
// (no free signal, no thread): then no lease is taken and maps are refused.
bool StartLeaseWatcher(LockTable* table);

// Takes a lease of type F_RDLCK or F_WRLCK on fd, its breaks reported to the
// watcher. Returns 0 or -errno (EAGAIN: the file is open elsewhere in a way
// that forbids the lease).
int TakeLease(int fd, int type);

// Lets go of the lease on fd.
void ReleaseLease(int fd);

// The kernel's lease-break time in seconds; -1 when it cannot be read.
int LeaseBreakSeconds();

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_LEASES_H_
