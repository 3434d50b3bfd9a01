// How long a lease lasts and when it ends. A client asks for a duration;
// CalcLease fits it between the daemon's defaults and the serving library's
// maxima (leases count milliseconds, library maxima seconds). The purge
// thread wakes every kPurgePeriodMs and ends each lease older than its
// duration plus kLeaseGraceMs.
#ifndef KESTRIX_SP_LEASE_EXPIRY_H_
#define KESTRIX_SP_LEASE_EXPIRY_H_

#include "fslibrary.h"
#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

extern const FSLONG defaultReadLease;   // 5000
extern const FSLONG defaultWriteLease;  // 3600000
FSLONG CalcLease(FSLONG requested, FSULONG intention, FsLibrary* library,
                 const uint8_t* volumeCookie);
int PurgeLeaseList(void);
void* PurgeLeaseThread(void* ignored);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

inline constexpr FSULONG kLeaseGraceMs = 30000;
inline constexpr int32_t kPurgePeriodMs = 5000;

// lease + ms (ms >= 0) without passing the largest lease, 2^31 - 1 ms.
FSLONG LeasePlus(FSLONG lease, FSLONG ms);

}  // namespace kestrix
#endif

#endif  // KESTRIX_SP_LEASE_EXPIRY_H_
