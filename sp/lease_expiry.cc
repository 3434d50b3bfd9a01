// Lease durations and expiry: CalcLease grants a lease within the daemon's
// defaults and the library's maxima; the purge thread ends every lease whose
// duration and grace period have passed.
#include <stdint.h>

#include <algorithm>

#include "sp/lease_expiry.h"
#include "sp/lease.h"
#include "sp/sp_state.h"
#include "utils/dlist.h"
#include "utils/ksxmem.h"
#include "utils/kxstats.h"
#include "utils/log.h"
#include "utils/osl.h"

extern "C" {

const FSLONG defaultReadLease = 5000;
const FSLONG defaultWriteLease = 3600000;

}  // extern "C"

namespace {

// A maximum whose millisecond value does not fit stands for one day; so
// does a missing one.
constexpr FSLONG kOverflowMaxSeconds = 86400;
constexpr FSLONG kNoMaximumMs = kOverflowMaxSeconds * 1000;

// seconds × 1000 as 32-bit two's-complement arithmetic gives it; a
// negative product is replaced by the one-day cap.
FSLONG MaxToMilliseconds(FSLONG seconds) {
  const int64_t wide = static_cast<int64_t>(seconds) * 1000;
  const auto wrapped = static_cast<FSLONG>(static_cast<uint32_t>(wide));
  return wrapped < 0 ? kOverflowMaxSeconds * 1000 : wrapped;
}

// Milliseconds from creation to now. When the clock has wrapped the count
// runs from 0xFFFFFFFF, one short of the true distance.
FSULONG Elapsed(FSULONG creation, FSULONG now) {
  return now >= creation ? now - creation : (0xFFFFFFFFu - creation) + now;
}

}  // namespace

extern "C" {

FSLONG CalcLease(FSLONG requested, FSULONG intention, FsLibrary* library,
                 const uint8_t* volumeCookie) {
  FSLONG lease = requested;
  if (lease == 0) lease = intention == 1 ? defaultReadLease : defaultWriteLease;
  // The wire field is unsigned: what reads as negative asks for more than
  // 2^31 - 1 ms, beyond every cap, and is capped like any long request.
  if (lease < 0) lease = INT32_MAX;
  if (library == nullptr || library->FS_GetMaxLeases == nullptr || volumeCookie == nullptr) {
    return std::min(lease, kNoMaximumMs);
  }

  FSLONG readMax = lease;
  FSLONG writeMax = lease;
  if (library->FS_GetMaxLeases(volumeCookie, &readMax, &writeMax) != 0) {
    return std::min(lease, kNoMaximumMs);
  }
  if (readMax == 0) readMax = defaultReadLease;
  if (writeMax == 0) writeMax = defaultWriteLease;

  const FSLONG cap = MaxToMilliseconds(intention == 1 ? readMax : writeMax);
  if (lease > cap) lease = cap;
  return lease;
}

int PurgeLeaseList(void) {
  kestrix::SemGuard guard(kestrix::spState.leaseLock);
  LeaseEntry* lease = kestrix::spState.leaseHead.next;
  while (lease != &kestrix::spState.leaseHead) {
    LeaseEntry* const next = lease->next;
    const FSULONG now = OSL_MSeconds();
    const FSULONG limit = lease->duration + kestrix::kLeaseGraceMs;  // wraps as unsigned
    if (Elapsed(lease->creationTime, now) >= limit) {
      kestrix::UnlinkLease(lease);
      OSL_Log(KSX_DEBUG1, "Purged lease  key:0x%x, intention:%d  duration:%u creation:%u time:%u\n",
              lease->key, static_cast<int>(lease->intention), lease->duration,
              lease->creationTime, now);
      // The map stays locked while another lease holds the file. The unlock
      // runs under the lock: a library's FS_UnlockMap never re-enters the list.
      if (!MoreCookiesInList(lease->fileCookie)) {
        OSL_Log(KSX_DEBUG1, "purging expired lease 0x%x\n", lease->key);
        if (lease->library != nullptr && lease->library->FS_UnlockMap != nullptr) {
          lease->library->FS_UnlockMap(lease->volumeCookie, lease->fileCookie);
        }
      }
      ksxmem_free(lease);
      kestrix::stats::CountLeasesExpired(1);
    }
    lease = next;
  }
  return 0;
}

void* PurgeLeaseThread(void* ignored) {
  // Sleeps in short slices so that a stop request is seen within one.
  constexpr int32_t kSliceMs = 50;
  while (!kestrix::spState.purgeStop) {
    PurgeLeaseList();
    for (int32_t slept = 0; slept < kestrix::kPurgePeriodMs && !kestrix::spState.purgeStop;
         slept += kSliceMs) {
      OSL_SleepMS(kSliceMs);
    }
  }
  kestrix::spState.purgeRunning = false;
  return nullptr;
}

}  // extern "C"

namespace kestrix {

FSLONG LeasePlus(FSLONG lease, FSLONG ms) {
  return lease > INT32_MAX - ms ? INT32_MAX : lease + ms;
}

}  // namespace kestrix
