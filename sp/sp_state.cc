// The service provider's state record and the C names it is exported under.
#include "sp/sp_state.h"

#include <cstddef>
#include <cstdlib>

#include "utils/dlist.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix {

// The empty lease list's sentinel points at itself from the start. Taking a
// member's address inside the record's own initializer is well defined;
// clang warns about it all the same.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wuninitialized"
#endif
ServiceProviderState spState = {
    .libs = {},
    .libCount = 0,
    .dispatchHead = {},
    .dispatchLock = nullptr,
    .leaseHead = {&spState.leaseHead, &spState.leaseHead, nullptr, {}, {}, {}, {},
                  0, 0, 0, 0, nullptr, nullptr, nullptr, 0, {}},
    .leaseLock = nullptr,
    .nextKey = 0,
    .purgeThreadStarted = false,
    .purgeStop = false,
    .purgeRunning = false,
};
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

namespace {

// Each exported name is a symbol at its field's address inside spState,
// with the field's size, so a look-up by name reads the live field. The
// assembler can only place such a symbol in the object that defines
// spState, which is why the names are made here and nowhere else.
#define KESTRIX_EXPORT_FIELD(name, field)                                          \
  asm volatile(".globl " #name "\n\t.type " #name ", @object\n\t.size " #name      \
               ", %c1\n\t.set " #name ", kestrix_sp_state + %c0"                  \
               :                                                                   \
               : "i"(offsetof(ServiceProviderState, field)),                       \
                 "i"(sizeof(ServiceProviderState::field)))

[[gnu::used]] void ExportFieldNames() {
  KESTRIX_EXPORT_FIELD(libs, libs);
  KESTRIX_EXPORT_FIELD(libCount, libCount);
  KESTRIX_EXPORT_FIELD(dispatchListHeadGlb, dispatchHead);
  KESTRIX_EXPORT_FIELD(dispatchListLock, dispatchLock);
  KESTRIX_EXPORT_FIELD(leaseListHeadGlb, leaseHead);
  KESTRIX_EXPORT_FIELD(leaseListLock, leaseLock);
  KESTRIX_EXPORT_FIELD(globalKey, nextKey);
}

}  // namespace

void ResetServiceProviderForTesting() {
  spState.purgeStop = true;
  while (spState.purgeRunning) OSL_SleepMS(5);
  for (FsLibrary*& library : spState.libs) {
    std::free(library);
    library = nullptr;
  }
  spState.libCount = 0;
  if (spState.dispatchHead.next != nullptr) {
    while (spState.dispatchHead.next != &spState.dispatchHead) {
      VolumeDispatcher* entry = spState.dispatchHead.next;
      dlist::Unlink(entry);
      ksxmem_free(entry);
    }
  }
  while (spState.leaseHead.next != &spState.leaseHead) {
    LeaseEntry* lease = spState.leaseHead.next;
    UnlinkLease(lease);
    ksxmem_free(lease);
  }
  spState.purgeThreadStarted = false;
  spState.purgeStop = false;
}

}  // namespace kestrix
