// The lease list: making, finding, renewing, removing and dumping leases.
//
// Every operation of the first group takes spState.leaseLock for its whole
// search; a removal calls the library's FS_UnlockMap only after releasing
// it, and only when no other lease still holds the same file. A lease is
// answered only to the sender that made it, and keys start at a random value
// in each run, so that neither another host nor a client of an earlier run
// can name a lease it does not hold.
#include "sp/lease.h"
#include "sp/lease_limits.h"
#include "sp/sp_state.h"
#include "sp/unlock_order.h"
#include "utils/config.h"
#include "utils/dlist.h"
#include "utils/hash_index.h"

#include <errno.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include "utils/ksxmem.h"
#include "utils/lanserver.h"
#include "utils/log.h"
#include "utils/osl.h"
#include "utils/utils.h"

namespace {

// Set while a thread is inside AddLeaseToList's critical section; seeing it
// set on entry means the lock did not exclude another thread.
bool addInCriticalSection = false;

// Text for a 32-byte cookie rendered by bytesToString.
constexpr int kCookieTextSize = 3 * FS_COOKIE_SIZE + 1;
constexpr int kFileNameBytes = 1024;
constexpr int kDumpBufferBytes = 1024;

// Keys are handed out in sequence, so the key itself spreads them evenly.
uint64_t KeyHash(FSULONG key) { return key; }
uint64_t FileHash(const uint8_t* fileCookie) {
  return kestrix::HashBytes(fileCookie, FS_COOKIE_SIZE);
}
uint64_t RequestHash(const uint8_t* fileCookie, const uint8_t* messageCookie,
                     const uint8_t* commCookie) {
  return kestrix::HashBytes(commCookie, LAN_COMMCOOKIE_SIZE,
                            kestrix::HashBytes(messageCookie, LAN_MSGID_SIZE,
                                               FileHash(fileCookie)));
}
uint64_t LeaseKeyHash(const LeaseEntry* e) { return KeyHash(e->key); }
uint64_t LeaseFileHash(const LeaseEntry* e) { return FileHash(e->fileCookie); }
uint64_t LeaseRequestHash(const LeaseEntry* e) {
  return RequestHash(e->fileCookie, e->messageCookie, e->commCookie);
}

// The indexes, guarded by spState.leaseLock like the list. A lease is in all
// three exactly while it is on the list.
KxHashIndex s_byKey, s_byFile, s_byRequest;
using KeyIndex = kestrix::HashIndex<LeaseEntry, &LeaseEntry::keyNext, LeaseKeyHash>;
using FileIndex = kestrix::HashIndex<LeaseEntry, &LeaseEntry::fileNext, LeaseFileHash>;
using RequestIndex =
    kestrix::HashIndex<LeaseEntry, &LeaseEntry::requestNext, LeaseRequestHash>;

bool LogOn(int level) { return GetLogLevel() >= level; }

// An unpredictable first key. getrandom waits only until the kernel's pool
// is first seeded; should it fail, the clock and the PID still differ from run to run.
FSULONG RandomKeyStart() {
  FSULONG start = 0;
  ssize_t got;
  do got = getrandom(&start, sizeof start, 0);
  while (got < 0 && errno == EINTR);
  if (got == static_cast<ssize_t>(sizeof start)) return start;
  OSL_Log(KSX_ERROR, "Lease keys: no random start (errno %d); using the clock\n", errno);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<FSULONG>(now.tv_nsec) ^ static_cast<FSULONG>(now.tv_sec) * 2654435761u ^
         static_cast<FSULONG>(getpid()) << 16;
}

}  // namespace

namespace kestrix {

void InitLeaseList() {
  kestrix::spState.leaseLock = OSL_SemCreate(1);
  kestrix::dlist::MakeEmpty(&kestrix::spState.leaseHead);
  KeyIndex(&s_byKey).Reset();
  FileIndex(&s_byFile).Reset();
  RequestIndex(&s_byRequest).Reset();
  kestrix::InitLeaseLimits(kestrix::MaxLeasesPerClient(), kestrix::MaxLeases());
  kestrix::spState.nextKey = RandomKeyStart();
}

// Entries of equal keys sit newest first in each chain, as on the list, so
// every lookup finds the lease a walk from the front would find first.
void LinkLease(LeaseEntry* lease) {
  kestrix::dlist::InsertFront(&kestrix::spState.leaseHead, lease);
  KeyIndex(&s_byKey).Insert(lease);
  FileIndex(&s_byFile).Insert(lease);
  RequestIndex(&s_byRequest).Insert(lease);
}

void UnlinkLease(LeaseEntry* lease) {
  kestrix::dlist::Unlink(lease);
  KeyIndex(&s_byKey).Remove(lease);
  FileIndex(&s_byFile).Remove(lease);
  RequestIndex(&s_byRequest).Remove(lease);
  kestrix::GiveLeasePlace(lease->commCookie);
}

int LeaseCount() {
  SemGuard guard(kestrix::spState.leaseLock);
  int n = 0;
  const LeaseEntry* const head = &kestrix::spState.leaseHead;
  for (const LeaseEntry* e = head->next; e != head; e = e->next) ++n;
  return n;
}

}  // namespace kestrix

extern "C" {

int CompareFileCookies(const uint8_t* a, const uint8_t* b) {
  return memcmp(a, b, FS_COOKIE_SIZE);
}

LeaseEntry* GetLeasePointer(FSULONG key) {
  return KeyIndex(&s_byKey).Find(KeyHash(key),
                                 [key](const LeaseEntry* e) { return e->key == key; });
}

int MoreCookiesInList(const uint8_t* fileCookie) {
  auto sameFile = [fileCookie](const LeaseEntry* e) {
    return CompareFileCookies(e->fileCookie, fileCookie) == 0;
  };
  LeaseEntry* e = FileIndex(&s_byFile).Find(FileHash(fileCookie), sameFile);
  if (e == nullptr) return 0;
  OSL_Log(KSX_DEBUG1, "MoreCookiesInList\n");
  DumpKey(e);
  return 1;
}

int MoreCookiesInList2(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                       const uint8_t* messageCookie, const uint8_t* commCookie,
                       LeaseEntry** found) {
  // The volume cookie is not compared: the file, the request and the sender
  // name the lease.
  auto sameRequest = [&](const LeaseEntry* e) {
    return CompareFileCookies(e->fileCookie, fileCookie) == 0 &&
           LAN_CompareMessageCookies(e->messageCookie, messageCookie) == 0 &&
           LAN_CompareCommCookies(e->commCookie, commCookie) == 0;
  };
  LeaseEntry* e = RequestIndex(&s_byRequest)
                      .Find(RequestHash(fileCookie, messageCookie, commCookie), sameRequest);
  *found = e;
  if (e == nullptr) return 0;
  OSL_Log(KSX_DEBUG1, "MoreCookiesInList2\n");
  DumpKey(e);
  return 1;
}

void DumpKey(const LeaseEntry* lease) {
  if (!LogOn(KSX_DEBUG1)) return;  // no cookie texts for lines nobody writes
  char text[kCookieTextSize];
  OSL_Log(KSX_DEBUG1, "Key Data for 0x%x\n", lease->key);
  OSL_Log(KSX_DEBUG1, "  intention: %d\n", static_cast<int>(lease->intention));
  OSL_Log(KSX_DEBUG1, "  creation time: %u,  duration %u\n", lease->creationTime,
          lease->duration);
  OSL_Log(KSX_DEBUG1, "  volcookie:%s\n",
          bytesToString(lease->volumeCookie, FS_COOKIE_SIZE, text));
  OSL_Log(KSX_DEBUG1, "  filecookie:%s\n",
          bytesToString(lease->fileCookie, FS_COOKIE_SIZE, text));
  OSL_Log(KSX_DEBUG1, "  commcookie:%s\n",
          bytesToString(lease->commCookie, LAN_COMMCOOKIE_SIZE, text));
  OSL_Log(KSX_DEBUG1, "  msgcookie:%s\n",
          bytesToString(lease->messageCookie, LAN_MSGID_SIZE, text));
  OSL_Log(KSX_DEBUG1, "\n");
}

int AddLeaseToList(const uint8_t* volumeCookie, const uint8_t* fileCookie,
                   const uint8_t* messageCookie, const uint8_t* commCookie, FSULONG intention,
                   FSULONG duration, FSULONG* keyOut, FsLibrary* library,
                   const FSUNI* fileName) {
  auto* fresh = static_cast<LeaseEntry*>(ksxmem_memalign(-8, sizeof(LeaseEntry), "sael"));
  if (fresh == nullptr) {
    OSL_Log(KSX_ERROR, "Out of memory in AddToLeaseList\n");
    return -1;
  }
  memcpy(fresh->volumeCookie, volumeCookie, FS_COOKIE_SIZE);
  memcpy(fresh->fileCookie, fileCookie, FS_COOKIE_SIZE);
  memcpy(fresh->messageCookie, messageCookie, LAN_MSGID_SIZE);
  memcpy(fresh->commCookie, commCookie, LAN_COMMCOOKIE_SIZE);
  fresh->library = library;
  fresh->openedTime = OSL_MSeconds();
  if (fileName != nullptr) fsuni2mb(fresh->path, fileName, LEASE_PATH_BYTES);

  kestrix::SemGuard guard(kestrix::spState.leaseLock);
  // A file whose last lease has just gone is locked again only after its unlock.
  kestrix::WaitForUnlock(fileCookie);
  if (addInCriticalSection) OSL_Log(KSX_ERROR, "Semaphore breakdown in AddLeaseToList\n");
  addInCriticalSection = true;

  // A repeat of a request this sender already made for this file (same
  // message ID) gets that lease back, renewed, instead of a second one.
  LeaseEntry* lease = nullptr;
  const bool reused =
      MoreCookiesInList2(volumeCookie, fileCookie, messageCookie, commCookie, &lease) != 0;
  if (reused) {
    OSL_Log(KSX_INFO, "Duplicate lease detected.  Bailing...\n");
    ksxmem_free(fresh);
    OSL_Log(KSX_DEBUG1, "Re-using key 0x%x\n", lease->key);
  } else {
    const int place = kestrix::TakeLeasePlace(commCookie);
    if (place != 0) {
      ksxmem_free(fresh);
      addInCriticalSection = false;
      return place;
    }
    lease = fresh;
    // After a wrap a key may still be held; it is never handed out twice.
    while (GetLeasePointer(kestrix::spState.nextKey) != nullptr) ++kestrix::spState.nextKey;
    lease->key = kestrix::spState.nextKey++;
  }

  lease->intention = intention;
  *keyOut = lease->key;
  if (static_cast<FSLONG>(duration) < 0) {
    OSL_Log(KSX_ERROR, "Lease value is less than zero %d\n", static_cast<FSLONG>(duration));
  }
  lease->creationTime = OSL_MSeconds();
  lease->duration = duration;

  if (reused) {
    OSL_Log(KSX_DEBUG1, "Modified lease list  key:0x%x\n", lease->key);
  } else {
    kestrix::LinkLease(lease);
    if (LogOn(KSX_DEBUG1)) {
      char name[kFileNameBytes] = "";
      if (fileName != nullptr) fsuni2mb(name, fileName, kFileNameBytes);
      OSL_Log(KSX_DEBUG1, "Added to lease list  key:0x%x  name:[%s]\n", lease->key,
              kestrix::LogSafe(name).c_str());
    }
  }

  addInCriticalSection = false;
  return 0;
}

int GetLeaseCopy(FSULONG key, LeaseEntry* copy) {
  kestrix::SemGuard guard(kestrix::spState.leaseLock);
  const LeaseEntry* lease = GetLeasePointer(key);
  if (lease == nullptr) return LEASE_NOT_FOUND_COPY;
  *copy = *lease;
  return 0;
}

int GetOwnLeaseCopy(FSULONG key, const uint8_t* commCookie, LeaseEntry* copy) {
  kestrix::SemGuard guard(kestrix::spState.leaseLock);
  const LeaseEntry* lease = GetLeasePointer(key);
  if (lease == nullptr) return LEASE_NOT_FOUND_COPY;
  if (LAN_CompareCommCookies(lease->commCookie, commCookie) != 0) {
    OSL_Log(KSX_SP, "Lease key 0x%x asked for by another sender; answered as unknown\n", key);
    return LEASE_NOT_FOUND_COPY;
  }
  *copy = *lease;
  return 0;
}

int GetCookiesFromList(FSULONG key, uint8_t* volumeCookieOut, uint8_t* fileCookieOut) {
  LeaseEntry copy;
  const int status = GetLeaseCopy(key, &copy);
  if (status != 0) return status;
  memcpy(volumeCookieOut, copy.volumeCookie, FS_COOKIE_SIZE);
  memcpy(fileCookieOut, copy.fileCookie, FS_COOKIE_SIZE);
  return 0;
}

int RemoveLeaseFromList(FSULONG key, uint8_t* volumeCookieOut, uint8_t* fileCookieOut,
                        FsLibrary* library, const char* callerName) {
  const bool canUnlock = library != nullptr && library->FS_UnlockMap != nullptr;
  bool unlock = false;
  {
    kestrix::SemGuard guard(kestrix::spState.leaseLock);
    LeaseEntry* lease = GetLeasePointer(key);
    if (lease == nullptr) return LEASE_NOT_FOUND_REMOVE;

    memcpy(volumeCookieOut, lease->volumeCookie, FS_COOKIE_SIZE);
    memcpy(fileCookieOut, lease->fileCookie, FS_COOKIE_SIZE);
    OSL_Log(KSX_DEBUG1, "RemoveLeaseFromList (%s) 0x%x\n", callerName, key);
    kestrix::UnlinkLease(lease);

    if (MoreCookiesInList(lease->fileCookie)) {
      // Another lease still holds the file: its map stays locked.
      OSL_Log(KSX_DEBUG1, "Skipping unlock,dup key detect (below)\n");
      DumpKey(lease);
    } else if (canUnlock && !kestrix::BeginUnlock(lease->fileCookie)) {
      library->FS_UnlockMap(volumeCookieOut, fileCookieOut);  // no mark free: under the lock
    } else {
      unlock = canUnlock;
    }
    ksxmem_free(lease);
  }

  // The caller's library, outside the lock; the result does not matter here.
  // New leases on the file wait for the mark to go.
  if (unlock) {
    library->FS_UnlockMap(volumeCookieOut, fileCookieOut);
    kestrix::EndUnlock(fileCookieOut);
  }
  return 0;
}

int ChangeLeaseEntry(FSULONG key, FSLONG duration) {
  kestrix::SemGuard guard(kestrix::spState.leaseLock);
  LeaseEntry* lease = GetLeasePointer(key);
  if (lease == nullptr) return -1;
  lease->creationTime = OSL_MSeconds();
  lease->duration = static_cast<FSULONG>(duration);
  return 0;
}

void FSMDCSP_DumpKeyList(void) {
  // Its lines are at levels 4 and 10: below 4 there is nothing to write.
  if (!LogOn(KSX_SP)) return;
  auto* text = static_cast<char*>(ksxmem_memalign(-8, kDumpBufferBytes, "dklt"));
  if (text == nullptr) return;
  {
    kestrix::SemGuard guard(kestrix::spState.leaseLock);
    if (kestrix::spState.leaseHead.next == &kestrix::spState.leaseHead) {
      OSL_Log(KSX_SP, "Key list is empty\n");
    } else {
      OSL_Log(KSX_DEBUG1, "Key List Start\n");
      for (LeaseEntry* e = kestrix::spState.leaseHead.next; e != &kestrix::spState.leaseHead;
           e = e->next) {
        OSL_Log(KSX_DEBUG1, "  key: 0x%x\n", e->key);
        OSL_Log(KSX_DEBUG1, "  volcookie:%s\n",
                bytesToString(e->volumeCookie, FS_COOKIE_SIZE, text));
        OSL_Log(KSX_DEBUG1, "  filecookie:%s\n",
                bytesToString(e->fileCookie, FS_COOKIE_SIZE, text));
        OSL_Log(KSX_DEBUG1, "\n");
      }
      OSL_Log(KSX_DEBUG1, "Key List End\n");
    }
  }
  ksxmem_free(text);
}

}  // extern "C"
