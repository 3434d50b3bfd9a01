// The lease list. A LeaseEntry records one open of a file by one client:
// the cookies naming the file, the request and the sender, the library to
// unlock through, and the duration. Durations and expiry live in
// sp/lease_expiry.h.
//
// The list hangs off spState.leaseHead with the newest lease first; three
// hash indexes next to it answer "newest lease with this key / this file
// cookie / from this request" without a walk. spState.leaseLock covers the
// list, the indexes, each lease and spState.nextKey.
// The first group of operations takes the lock itself; the second group is
// for callers that already hold it.
#ifndef KESTRIX_SP_LEASE_H_
#define KESTRIX_SP_LEASE_H_

#include "utils/plugin_api.h"

#include "fslibrary.h"
#include "fstypes.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { LEASE_PATH_BYTES = 1024 };

typedef struct LeaseEntry {
  struct LeaseEntry* next;
  struct LeaseEntry* prev;
  FsLibrary* library;  // the library that served the file
  uint8_t volumeCookie[FS_COOKIE_SIZE];
  uint8_t fileCookie[FS_COOKIE_SIZE];
  uint8_t messageCookie[LAN_MSGID_SIZE];  // messageID of the request that made it
  uint8_t commCookie[LAN_COMMCOOKIE_SIZE];  // sender of that request
  FSULONG key;
  FSULONG intention;     // 1 for read, anything else for write
  FSULONG duration;      // milliseconds
  FSULONG creationTime;  // OSL_MSeconds when made or last renewed
  // Chains of the list's hash indexes (by key, by file cookie, by request).
  struct LeaseEntry* keyNext;
  struct LeaseEntry* fileNext;
  struct LeaseEntry* requestNext;
  // For the admin socket's listing: when the lease was first made
  // (OSL_MSeconds; renewals leave it) and the full path it was opened on.
  FSULONG openedTime;
  char path[LEASE_PATH_BYTES];
} LeaseEntry;

// Status codes of the list operations.
enum {
  LEASE_NOT_FOUND_COPY = 407,
  LEASE_NOT_FOUND_REMOVE = 408,
};

// Take spState.leaseLock themselves.
// AddLeaseToList returns 0, -1 when there is no memory, or
// SP_RESULT_LEASE_LIMIT when the sender or the daemon holds as many leases
// as it may (sp/lease_limits.h).
int AddLeaseToList(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                   const uint8_t* messageCookie, const uint8_t* commCookie, FSULONG intention,
                   FSULONG duration, FSULONG* keyOut, FsLibrary* library,
                   const FSUNI* fileName);
int GetLeaseCopy(FSULONG key, LeaseEntry* copy);
// GetLeaseCopy for a request: a lease held by another sender is answered
// like an unknown key (407).
int GetOwnLeaseCopy(FSULONG key, const uint8_t* commCookie, LeaseEntry* copy);
KESTRIX_FOR_PLUGINS int GetCookiesFromList(FSULONG key, uint8_t* volumeCookieOut,
                                           uint8_t* fileCookieOut);
int RemoveLeaseFromList(FSULONG key, uint8_t* volumeCookieOut, uint8_t* fileCookieOut,
                        FsLibrary* library, const char* callerName);
int ChangeLeaseEntry(FSULONG key, FSLONG duration);
void FSMDCSP_DumpKeyList(void);

// For callers that hold spState.leaseLock.
LeaseEntry* GetLeasePointer(FSULONG key);
int MoreCookiesInList(const uint8_t* fileCookie);
int MoreCookiesInList2(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                       const uint8_t* messageCookie, const uint8_t* commCookie,
                       LeaseEntry** found);
void DumpKey(const LeaseEntry* lease);
int CompareFileCookies(const uint8_t* a, const uint8_t* b);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

// Creates spState.leaseLock, empties the lease list, sets the lease bounds and
// a random first key; called once at start-up.
void InitLeaseList();
// Number of leases in the list.
int LeaseCount();
// Put a new lease at the front of the list and its indexes, and take one out
// of both; the caller holds spState.leaseLock.
void LinkLease(LeaseEntry* lease);
void UnlinkLease(LeaseEntry* lease);

}  // namespace kestrix
#endif

#endif  // KESTRIX_SP_LEASE_H_
