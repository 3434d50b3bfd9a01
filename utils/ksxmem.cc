// Tracking allocator: tagged blocks with a header below the user pointer and
// a guard word past the user area, one global list of live blocks, the
// running byte total, and the allocator's own lock.
#include "utils/ksxmem.h"

#include <semaphore.h>
#include <stddef.h>
#include <string.h>

#include "utils/log.h"
#include "utils/osl.h"

static_assert(offsetof(MemBlockHeader, next) == 0);
static_assert(offsetof(MemBlockHeader, prev) == 8);
static_assert(offsetof(MemBlockHeader, orig) == 16);
static_assert(offsetof(MemBlockHeader, frontMark) == 24);
static_assert(offsetof(MemBlockHeader, request) == 28);
static_assert(offsetof(MemBlockHeader, total) == 32);
static_assert(offsetof(MemBlockHeader, tag) == 36);
static_assert(offsetof(MemBlockHeader, align) == 40);
static_assert(offsetof(MemBlockHeader, magic) == 44);
static_assert(sizeof(MemBlockHeader) == 48);

extern "C" {

// The list head; only next and prev are used. It starts out pointing at
// itself so that a walk or destroy before the first allocation sees an
// empty list; the first allocation sets the links again all the same.
MemBlockHeader sol_ksxmemHead = {&sol_ksxmemHead, &sol_ksxmemHead, nullptr, 0, 0, 0, {0, 0, 0, 0}, 0, 0};
int32_t g_kmemstat = 0;
int32_t g_sizeofMem = 0;
// Storage of the allocator's lock; it cannot come from the allocator itself.
sem_t g_mem_sem_data;
void* g_mem_sem = &g_mem_sem_data;

}  // extern "C"

namespace {

int32_t s_semCreated = 0;   // lock-created count
int32_t s_semNesting = 0;   // holders of the lock at this moment (0 or 1)
int32_t s_listInit = 0;     // list-initialised flag

constexpr int32_t kBaseAlign = 8;
constexpr int32_t kFreeFillBytes = 4096;  // most bytes a free fills with 'A'

// g_kmemstat changes under the allocator's lock but is read without it (log
// lines, statistics), so every access is atomic.
int32_t MemStat() { return __atomic_load_n(&g_kmemstat, __ATOMIC_RELAXED); }
void AddMemStat(int32_t delta) { __atomic_fetch_add(&g_kmemstat, delta, __ATOMIC_RELAXED); }

uint32_t RoundUp8(uint32_t n) { return (n + 7u) & ~7u; }

MemBlockHeader* HeaderOf(void* p) {
  return reinterpret_cast<MemBlockHeader*>(static_cast<char*>(p) - g_sizeofMem);
}

uint32_t* GuardOf(void* p, int32_t request) {
  return reinterpret_cast<uint32_t*>(static_cast<char*>(p) + RoundUp8(static_cast<uint32_t>(request)));
}

// Callers pass 8 or -8 (sign already taken off here). Anything below 8
// becomes 8, anything else the next power of two, at most 8192.
int32_t NormalizeAlign(int64_t align) {
  if (align <= kBaseAlign) return kBaseAlign;
  if (align >= KSXMEM_MAX_ALIGN) return KSXMEM_MAX_ALIGN;
  int32_t power = kBaseAlign;
  while (power < align) power <<= 1;
  return power;
}

}  // namespace

extern "C" {

void* ksxmem_memalign(int32_t align, int32_t size, const char* tagText) {
  if (s_listInit == 0) {
    g_sizeofMem = static_cast<int32_t>(sizeof(MemBlockHeader));
    ksxmem_sem(1);
    sol_ksxmemHead.next = &sol_ksxmemHead;
    sol_ksxmemHead.prev = &sol_ksxmemHead;
    ksxmem_sem(0);
    s_listInit = 1;
  }
  const char* callerTag = tagText != nullptr ? tagText : "";

  if (size < 0) {
    OSL_Log(KSX_ERROR, "sol_ksxmem invalid size:%d tag:%s\n", size, callerTag);
    return nullptr;
  }

  int64_t wanted = align;
  bool zeroFill = false;
  if (wanted < 0) {
    wanted = -wanted;
    zeroFill = true;
  }
  const int32_t useAlign = NormalizeAlign(wanted);

  const int64_t total64 = static_cast<int64_t>(RoundUp8(static_cast<uint32_t>(size))) + g_sizeofMem +
                          static_cast<int64_t>(sizeof(uint32_t)) + (useAlign != kBaseAlign ? useAlign : 0);
  // The total is kept and reported as a 32-bit signed count; a block that
  // does not fit is refused rather than wrapped.
  if (total64 > INT32_MAX) {
    OSL_Log(KSX_ERROR, "sol_ksxmem malloc failed size:%d tag:%s\n", static_cast<int32_t>(total64), callerTag);
    return nullptr;
  }
  const uint32_t total = static_cast<uint32_t>(total64);

  void* orig = OSL_getmem(total);
  if (orig == nullptr) {
    OSL_Log(KSX_ERROR, "sol_ksxmem malloc failed size:%d tag:%s\n", static_cast<int32_t>(total), callerTag);
    return nullptr;
  }
  if (zeroFill) memset(orig, 0, total);

  uintptr_t user = reinterpret_cast<uintptr_t>(orig) + static_cast<uintptr_t>(g_sizeofMem);
  if (useAlign != kBaseAlign) {
    const uintptr_t mask = static_cast<uintptr_t>(useAlign) - 1;
    user = (user + mask) & ~mask;
  }
  void* p = reinterpret_cast<void*>(user);

  MemBlockHeader* header = HeaderOf(p);
  header->frontMark = KSXMEM_FRONT_MARK;
  header->magic = KSXMEM_MAGIC;
  header->request = size;
  header->total = total;
  // Copy at most four characters and stop at the caller's terminator.
  memset(header->tag, 0, sizeof(header->tag));
  for (size_t i = 0; i < sizeof(header->tag) && callerTag[i] != '\0'; ++i) header->tag[i] = callerTag[i];
  header->align = useAlign;
  header->orig = orig;
  *GuardOf(p, size) = KSXMEM_GUARD;

  ksxmem_sem(1);
  AddMemStat(static_cast<int32_t>(total));
  header->next = sol_ksxmemHead.next;
  header->prev = &sol_ksxmemHead;
  sol_ksxmemHead.next->prev = header;
  sol_ksxmemHead.next = header;
  ksxmem_sem(0);

  OSL_Log(KSX_DEBUG1, "ksxmem_memalign\tp:%p size:%d tag:%s used:%d sizeofMem:%d orig:%p\n", p,
          static_cast<int32_t>(total), callerTag, MemStat(), g_sizeofMem, orig);
  return p;
}

int32_t ksxmem_free(void* p) { return free_up(p, 1); }

int32_t free_up(void* p, int32_t takeLock) {
  if (p == nullptr) return 0;
  // Before the first allocation no block can be live, and the header size
  // is not known yet: refuse without touching the caller's memory.
  MemBlockHeader* header = s_listInit != 0 ? HeaderOf(p) : nullptr;
  if (header == nullptr || header->magic != KSXMEM_MAGIC) {
    OSL_Log(KSX_ERROR, "ksxmem_free could not locate the proper memory: 0x%x\n",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(p) & 0xffffffffu));
    return -1;
  }

  char tagText[5];
  uint32_t* guard = GuardOf(p, header->request);
  if (*guard != KSXMEM_GUARD) {
    OSL_Log(KSX_ERROR, "Memory Corruption: End of memory was over written!! tag:%s\n", tag(header->tag, tagText));
  }
  header->magic = 0;
  *guard = 0;

  OSL_Log(KSX_DEBUG1, "ksxmem_free\tp:%p size:%d tag:%s used:%d orig:%p\n", p, static_cast<int32_t>(header->total),
          tag(header->tag, tagText), MemStat(), header->orig);

  if (takeLock) ksxmem_sem(1);
  AddMemStat(-static_cast<int32_t>(header->total));
  header->prev->next = header->next;
  header->next->prev = header->prev;
  if (takeLock) ksxmem_sem(0);

  const int32_t request = header->request;
  void* orig = header->orig;
  const int32_t total = static_cast<int32_t>(header->total);
  // The fill makes a use after free visible; its first bytes do that as well
  // as all of them. Large blocks (the reply buffers) are filled only that
  // far, so a request does not pay a second 64 KiB pass: every block that
  // is sent is zero-filled or fully written when allocated, so nothing left
  // in freed memory reaches a reply.
  memset(p, 'A', static_cast<size_t>(request < kFreeFillBytes ? request : kFreeFillBytes));
  OSL_freemem(orig, total);
  return request;
}

void ksxmem_walk(int32_t ignored) {
  OSL_Log(KSX_PRINT, "**************** ksxmem_walk Start ****************\n");
  OSL_Log(KSX_PRINT, "ksxmem_walk total memory:%d\n", MemStat());
  char tagText[5];
  ksxmem_sem(1);
  for (MemBlockHeader* cur = sol_ksxmemHead.next; cur != &sol_ksxmemHead; cur = cur->next) {
    OSL_Log(KSX_PRINT, "current:%p size:%d tag:%s align:%d request:%d\n", static_cast<void*>(cur),
            static_cast<int32_t>(cur->total), tag(cur->tag, tagText), cur->align, cur->request);
  }
  ksxmem_sem(0);
  OSL_Log(KSX_PRINT, "**************** ksxmem_walk Complete ****************\n");
}

void ksxmem_destroy(void) {
  OSL_Log(KSX_INFO, "MEM_destroy Start\n");
  OSL_Log(KSX_INFO, "MEM_destroy total memory:%d\n", MemStat());
  char tagText[5];
  ksxmem_sem(1);
  MemBlockHeader* cur = sol_ksxmemHead.next;
  while (cur != &sol_ksxmemHead) {
    MemBlockHeader* next = cur->next;
    void* user = reinterpret_cast<char*>(cur) + g_sizeofMem;
    OSL_Log(KSX_INFO, "ksxmem_destroy\tp:%p size:%d tag:%s used:%d orig:%p\n", user, static_cast<int32_t>(cur->total),
            tag(cur->tag, tagText), MemStat(), cur->orig);
    free_up(user, 0);
    cur = next;
  }
  ksxmem_sem(0);
  OSL_Log(KSX_INFO, "MEM_destroy Complete\n");
}

void ksxmem_stats(uint32_t* used, uint32_t* zero) {
  if (used != nullptr) *used = static_cast<uint32_t>(MemStat());
  if (zero != nullptr) *zero = 0;
}

char* ksxmem_gettag(void* p, char* destination) {
  if (p == nullptr) return destination;
  MemBlockHeader* header = reinterpret_cast<MemBlockHeader*>(static_cast<char*>(p) - sizeof(MemBlockHeader));
  char tagText[5];
  OSL_Log(KSX_DEBUG1, "ksxmem_gettag\tp:%p size:%d tag:%s used:%d orig:%p\n", static_cast<void*>(header),
          static_cast<int32_t>(header->total), tag(header->tag, tagText), MemStat(), header->orig);
  return tag(header->tag, destination);
}

void* ksxmem_realloc(void* p, int32_t a, int32_t b) { return nullptr; }

void ksxmem_setDbg(int32_t ignored) {}

void ksxmem_addmemory(void* p, int32_t size) {}

int32_t ksxmem_check(void) { return 0; }

void* ksxmem_GetMemory_cb(int32_t* size) {
  if (size == nullptr || *size < 0) return nullptr;
  return OSL_getmem(static_cast<uint32_t>(*size));
}

void ksxmem_sem(int32_t request) {
  if (s_semCreated == 0) {
    if (OSL_SemCreateM(1, g_mem_sem) != 0) OSL_Log(KSX_PANIC, "ksxmem:Failed to create semaphore!\n");
    ++s_semCreated;
  }
  if (request == 1) {
    OSL_SemDown(g_mem_sem);
    if (s_semNesting++ > 0) OSL_Log(KSX_PANIC, "inh_sem lock entered twice!!!");
  } else if (request == 0) {
    --s_semNesting;
    OSL_SemUp(g_mem_sem);
  } else {
    OSL_SemDestroyM(g_mem_sem);
    --s_semCreated;
  }
}

char* tag(const char* field, char* out) {
  memcpy(out, field, 4);
  out[4] = '\0';
  return out;
}

}  // extern "C"
