// Tracking allocator: every record and buffer of the daemon comes from here.
//
// Each block carries a header (owner tag, sizes, alignment, magic) just
// below the user pointer and a guard word just past the user area rounded up
// to 8. Live blocks sit on one global list; g_kmemstat is the running total
// of bytes held. Freeing checks the magic and the guard word and fills the
// user area (its first 4096 bytes at most) with 'A' before the memory goes
// back to the platform.
#ifndef KESTRIX_UTILS_KSXMEM_H_
#define KESTRIX_UTILS_KSXMEM_H_

#include "utils/plugin_api.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MemBlockHeader {
  struct MemBlockHeader* next;  // towards older blocks
  struct MemBlockHeader* prev;  // towards newer blocks
  void* orig;                   // what OSL_getmem returned
  uint32_t frontMark;           // 0xaabbccdd
  int32_t request;              // size the caller asked for
  uint32_t total;               // bytes obtained from OSL_getmem
  char tag[4];                  // owner, no terminator
  int32_t align;                // alignment used, after sign and clamp
  uint32_t magic;               // 0xabcddcba while live, 0 once freed
} MemBlockHeader;

enum {
  KSXMEM_FRONT_MARK = 0xaabbccdd,
  KSXMEM_MAGIC = 0xabcddcba,
  KSXMEM_GUARD = 0xfeabbaef,
  KSXMEM_MAX_ALIGN = 8192,
};

extern MemBlockHeader sol_ksxmemHead;
extern int32_t g_kmemstat;
extern int32_t g_sizeofMem;
extern void* g_mem_sem;

void* ksxmem_memalign(int32_t align, int32_t size, const char* tag);
int32_t ksxmem_free(void* p);
int32_t free_up(void* p, int32_t takeLock);
void ksxmem_walk(int32_t ignored);
void ksxmem_destroy(void);
void ksxmem_stats(uint32_t* used, uint32_t* zero);
char* ksxmem_gettag(void* p, char* destination);
KESTRIX_FOR_PLUGINS void* ksxmem_realloc(void* p, int32_t a, int32_t b);
void ksxmem_setDbg(int32_t ignored);
void ksxmem_addmemory(void* p, int32_t size);
int32_t ksxmem_check(void);
KESTRIX_FOR_PLUGINS void* ksxmem_GetMemory_cb(int32_t* size);
void ksxmem_sem(int32_t request);
// Forms the four tag characters and a NUL in out (at least 5 bytes).
char* tag(const char* field, char* out);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // KESTRIX_UTILS_KSXMEM_H_
