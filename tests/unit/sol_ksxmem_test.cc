#include "utils/ksxmem.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "support/test_util.h"
#include "utils/osl.h"

namespace {

using kestrix::test::CountOf;
using kestrix::test::LogCapture;

constexpr int32_t kHeader = static_cast<int32_t>(sizeof(MemBlockHeader));

MemBlockHeader* Header(void* p) { return reinterpret_cast<MemBlockHeader*>(static_cast<char*>(p) - kHeader); }

uint32_t GuardAt(void* p, size_t offset) {
  uint32_t word;
  memcpy(&word, static_cast<char*>(p) + offset, sizeof(word));
  return word;
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return buffer;
}

// What OSL_freemem was handed, seen just before the memory goes back.
struct FreeSeen {
  void* orig = nullptr;
  int32_t size = 0;
  std::string userBytes;  // the first 20 bytes of the user area
};
FreeSeen g_seen;

void RecordFree(void* orig, int32_t size) {
  g_seen.orig = orig;
  g_seen.size = size;
  g_seen.userBytes.assign(static_cast<char*>(orig) + kHeader, 20);
}

TEST(SolKsxmemTest, TenByteBlockLayout) {
  EXPECT_EQ(g_sizeofMem, 0);
  const int32_t before = g_kmemstat;
  auto* p = static_cast<unsigned char*>(ksxmem_memalign(-8, 10, "abcd"));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(g_sizeofMem, 48);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);

  MemBlockHeader* h = Header(p);
  EXPECT_EQ(h->orig, static_cast<void*>(h));  // no slack in front with alignment 8
  EXPECT_EQ(h->frontMark, 0xaabbccddu);
  EXPECT_EQ(h->magic, 0xabcddcbau);
  EXPECT_EQ(h->request, 10);
  EXPECT_EQ(h->total, 16u + 48u + 4u);
  EXPECT_EQ(h->align, 8);
  EXPECT_EQ(memcmp(h->tag, "abcd", 4), 0);
  EXPECT_EQ(sol_ksxmemHead.next, h);
  EXPECT_EQ(h->prev, &sol_ksxmemHead);
  EXPECT_EQ(GuardAt(p, 16), 0xfeabbaefu);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(p[i], 0) << i;
  EXPECT_EQ(g_kmemstat, before + 68);

  char name[5] = "zzzz";
  EXPECT_STREQ(ksxmem_gettag(p, name), "abcd");
  EXPECT_EQ(ksxmem_gettag(nullptr, name), name);

  EXPECT_EQ(ksxmem_free(p), 10);
  EXPECT_EQ(g_kmemstat, before);
  EXPECT_EQ(sol_ksxmemHead.next, &sol_ksxmemHead);
  EXPECT_EQ(ksxmem_free(nullptr), 0);
}

TEST(SolKsxmemTest, OverrunPastTheRoundedAreaIsReportedWithTheTag) {
  LogCapture log(2);
  const int32_t before = g_kmemstat;
  auto* inside = static_cast<char*>(ksxmem_memalign(-8, 10, "insd"));
  memset(inside + 10, 'x', 6);  // bytes 11 to 16: rounding room
  EXPECT_EQ(ksxmem_free(inside), 10);
  EXPECT_EQ(log.Text(), "");

  auto* over = static_cast<char*>(ksxmem_memalign(-8, 10, "ovrn"));
  over[16] = 'x';  // byte 17 is the guard word
  EXPECT_EQ(ksxmem_free(over), 10);  // freed all the same
  EXPECT_EQ(log.Text(), "Error Memory Corruption: End of memory was over written!! tag:ovrn\n");
  EXPECT_EQ(g_kmemstat, before);
}

TEST(SolKsxmemTest, FreeFillsExactlyTheRequestWithA) {
  kestrix::SetFreememObserverForTesting(RecordFree);
  void* p = ksxmem_memalign(-8, 10, "fill");
  void* orig = Header(p)->orig;
  EXPECT_EQ(ksxmem_free(p), 10);
  kestrix::SetFreememObserverForTesting(nullptr);

  EXPECT_EQ(g_seen.orig, orig);
  EXPECT_EQ(g_seen.size, 68);
  EXPECT_EQ(g_seen.userBytes.substr(0, 10), std::string(10, 'A'));
  EXPECT_EQ(g_seen.userBytes.substr(10), std::string(10, '\0'));  // rounding room and cleared guard
}

TEST(SolKsxmemTest, SizeZeroBlock) {
  const int32_t before = g_kmemstat;
  void* p = ksxmem_memalign(8, 0, "zero");
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Header(p)->total, 52u);
  EXPECT_EQ(GuardAt(p, 0), 0xfeabbaefu);
  EXPECT_EQ(ksxmem_free(p), 0);
  EXPECT_EQ(g_kmemstat, before);
}

TEST(SolKsxmemTest, Alignments) {
  struct Case {
    int32_t asked;
    int32_t used;
  };
  // 8 and -8 are what callers pass; the rest are normalised.
  const Case cases[] = {{8, 8},       {-8, 8},     {0, 8},         {3, 8},          {-5, 8},
                        {16, 16},     {-16, 16},   {24, 32},       {4096, 4096},    {8192, 8192},
                        {9000, 8192}, {1 << 20, 8192}, {INT32_MIN, 8192}};
  const int32_t before = g_kmemstat;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.asked);
    auto* p = static_cast<unsigned char*>(ksxmem_memalign(c.asked, 10, "alig"));
    ASSERT_NE(p, nullptr);
    MemBlockHeader* h = Header(p);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % c.used, 0u);
    EXPECT_EQ(h->align, c.used);
    EXPECT_EQ(h->total, 68u + (c.used == 8 ? 0u : static_cast<uint32_t>(c.used)));
    // The header and guard sit around the user area inside the obtained memory.
    auto* orig = static_cast<unsigned char*>(h->orig);
    EXPECT_GE(reinterpret_cast<unsigned char*>(h), orig);
    EXPECT_LE(p + 16 + 4, orig + h->total);
    EXPECT_EQ(GuardAt(p, 16), 0xfeabbaefu);
    if (c.asked < 0) {
      for (int i = 0; i < 10; ++i) EXPECT_EQ(p[i], 0);
    }
    memset(p, 0x5a, 10);
    EXPECT_EQ(ksxmem_free(p), 10);
  }
  EXPECT_EQ(g_kmemstat, before);
}

TEST(SolKsxmemTest, ShortTagIsPaddedWithZeros) {
  const char shortTag[3] = {'a', 'b', '\0'};  // nothing readable past the NUL
  void* p = ksxmem_memalign(-8, 4, shortTag);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(memcmp(Header(p)->tag, "ab\0\0", 4), 0);
  char name[5];
  EXPECT_STREQ(ksxmem_gettag(p, name), "ab");
  ksxmem_free(p);

  p = ksxmem_memalign(-8, 4, "longer");
  EXPECT_EQ(memcmp(Header(p)->tag, "long", 4), 0);
  ksxmem_free(p);
}

TEST(SolKsxmemTest, RefusedSizesReturnNullAndCountNothing) {
  LogCapture log(2);
  const int32_t before = g_kmemstat;
  EXPECT_EQ(ksxmem_memalign(-8, -1, "negs"), nullptr);
  EXPECT_EQ(log.Text(), "Error sol_ksxmem invalid size:-1 tag:negs\n");
  log.Clear();

  EXPECT_EQ(ksxmem_memalign(-8, INT32_MAX, "huge"), nullptr);
  EXPECT_EQ(CountOf(log.Text(), "Error sol_ksxmem malloc failed size:"), 1);
  EXPECT_EQ(CountOf(log.Text(), " tag:huge\n"), 1);
  EXPECT_EQ(ksxmem_memalign(-16, INT32_MAX - 64, "huge"), nullptr);
  EXPECT_EQ(g_kmemstat, before);
  EXPECT_EQ(sol_ksxmemHead.next, &sol_ksxmemHead);
}

TEST(SolKsxmemTest, PlatformFailureIsLoggedAndNotCounted) {
  LogCapture log(2);
  const int32_t before = g_kmemstat;
  kestrix::FailGetmem(2);
  void* first = ksxmem_memalign(-8, 10, "ok_1");
  void* second = ksxmem_memalign(-8, 10, "fail");
  void* third = ksxmem_memalign(-8, 10, "ok_3");
  kestrix::FailGetmem(0, 0);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_NE(third, nullptr);
  EXPECT_EQ(log.Text(), "Error sol_ksxmem malloc failed size:68 tag:fail\n");
  EXPECT_EQ(g_kmemstat, before + 2 * 68);
  EXPECT_EQ(sol_ksxmemHead.next, Header(third));
  EXPECT_EQ(Header(third)->next, Header(first));
  ksxmem_free(first);
  ksxmem_free(third);
  EXPECT_EQ(g_kmemstat, before);
}

TEST(SolKsxmemTest, PointersThatAreNotLiveBlocksAreRefused) {
  LogCapture log(2);
  // Before any allocation nothing is live and nothing is read.
  alignas(8) static unsigned char early[8];
  EXPECT_EQ(ksxmem_free(early), -1);

  void* block = ksxmem_memalign(-8, 10, "live");
  const int32_t held = g_kmemstat;
  alignas(8) static unsigned char foreign[128];
  log.Clear();
  EXPECT_EQ(ksxmem_free(foreign + 64), -1);
  EXPECT_EQ(log.Text(), Format("Error ksxmem_free could not locate the proper memory: 0x%x\n",
                               static_cast<unsigned>(reinterpret_cast<uintptr_t>(foreign + 64))));

  // A write below the user area that destroys the magic keeps the block.
  Header(block)->magic ^= 1;
  EXPECT_EQ(ksxmem_free(block), -1);
  EXPECT_EQ(g_kmemstat, held);
  EXPECT_EQ(sol_ksxmemHead.next, Header(block));
  Header(block)->magic ^= 1;
  EXPECT_EQ(ksxmem_free(block), 10);
}

#if defined(__SANITIZE_ADDRESS__)
#define KESTRIX_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTRIX_ASAN 1
#endif
#endif

TEST(SolKsxmemTest, DoubleFreeIsRefused) {
#ifdef KESTRIX_ASAN
  GTEST_SKIP() << "reads released memory by design";
#else
  LogCapture log(2);
  void* p = ksxmem_memalign(-8, 10, "twic");
  const int32_t after = g_kmemstat - 68;
  EXPECT_EQ(ksxmem_free(p), 10);
  EXPECT_EQ(ksxmem_free(p), -1);
  EXPECT_EQ(CountOf(log.Text(), "Error ksxmem_free could not locate the proper memory: 0x"), 1);
  EXPECT_EQ(g_kmemstat, after);
#endif
}

TEST(SolKsxmemTest, WalkListsNewestFirst) {
  LogCapture log(1);
  ksxmem_walk(0);
  EXPECT_EQ(log.Text(),
            "Print **************** ksxmem_walk Start ****************\n"
            "Print ksxmem_walk total memory:0\n"
            "Print **************** ksxmem_walk Complete ****************\n");
  log.Clear();

  void* older = ksxmem_memalign(-8, 10, "oldr");
  void* newer = ksxmem_memalign(16, 20, "newr");
  ksxmem_walk(0);
  EXPECT_EQ(log.Text(),
            "Print **************** ksxmem_walk Start ****************\n"
            "Print ksxmem_walk total memory:160\n" +
                Format("Print current:%p size:92 tag:newr align:16 request:20\n", static_cast<void*>(Header(newer))) +
                Format("Print current:%p size:68 tag:oldr align:8 request:10\n", static_cast<void*>(Header(older))) +
                "Print **************** ksxmem_walk Complete ****************\n");
  ksxmem_free(older);
  ksxmem_free(newer);
}

TEST(SolKsxmemTest, TraceLinesAtDebug1) {
  LogCapture log(9);
  void* quiet = ksxmem_memalign(-8, 10, "quie");
  ksxmem_free(quiet);
  EXPECT_EQ(log.Text(), "");

  log.SetLevel(10);
  void* p = ksxmem_memalign(-8, 10, "trce");
  void* orig = Header(p)->orig;
  char name[5];
  ksxmem_gettag(p, name);
  ksxmem_free(p);
  EXPECT_EQ(log.Text(),
            Format("Debug1 ksxmem_memalign\tp:%p size:68 tag:trce used:68 sizeofMem:48 orig:%p\n", p, orig) +
                Format("Debug1 ksxmem_gettag\tp:%p size:68 tag:trce used:68 orig:%p\n", orig, orig) +
                Format("Debug1 ksxmem_free\tp:%p size:68 tag:trce used:68 orig:%p\n", p, orig));
}

TEST(SolKsxmemTest, DestroyFreesEverythingAndAllocationGoesOn) {
  LogCapture log(3);
  void* a = ksxmem_memalign(-8, 10, "aaaa");
  void* b = ksxmem_memalign(8, 1, "bbbb");
  ksxmem_destroy();
  EXPECT_EQ(g_kmemstat, 0);
  EXPECT_EQ(sol_ksxmemHead.next, &sol_ksxmemHead);
  EXPECT_EQ(sol_ksxmemHead.prev, &sol_ksxmemHead);
  EXPECT_EQ(log.Text(), "Info MEM_destroy Start\nInfo MEM_destroy total memory:128\n" +
                            Format("Info ksxmem_destroy\tp:%p size:60 tag:bbbb used:128 orig:%p\n", b, Header(b)) +
                            Format("Info ksxmem_destroy\tp:%p size:68 tag:aaaa used:68 orig:%p\n", a, Header(a)) +
                            "Info MEM_destroy Complete\n");

  void* again = ksxmem_memalign(-8, 10, "agin");
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(g_kmemstat, 68);
  ksxmem_free(again);
}

TEST(SolKsxmemTest, StatsReallocAndUncountedMemory) {
  void* p = ksxmem_memalign(-8, 10, "stat");
  uint32_t used = 1, zero = 1;
  ksxmem_stats(&used, &zero);
  EXPECT_EQ(used, static_cast<uint32_t>(g_kmemstat));
  EXPECT_EQ(zero, 0u);
  EXPECT_EQ(ksxmem_realloc(p, 100, 0), nullptr);
  EXPECT_EQ(Header(p)->magic, 0xabcddcbau);
  EXPECT_EQ(ksxmem_free(p), 10);

  const int32_t before = g_kmemstat;
  int32_t size = 100;
  void* raw = ksxmem_GetMemory_cb(&size);
  ASSERT_NE(raw, nullptr);
  memset(raw, 1, 100);
  EXPECT_EQ(g_kmemstat, before);
  OSL_freemem(raw, size);
}

TEST(SolKsxmemTest, ConcurrentUseKeepsListAndTotal) {
  void* keep = ksxmem_memalign(-8, 10, "keep");
  const int32_t before = g_kmemstat;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      std::vector<void*> blocks;
      for (int i = 0; i < 500; ++i) {
        blocks.push_back(ksxmem_memalign(i % 2 ? 8 : -8, (i * 7 + t) % 200, "thrd"));
        if (i % 3 == 0) {
          ksxmem_free(blocks.front());
          blocks.erase(blocks.begin());
        }
      }
      for (void* b : blocks) ksxmem_free(b);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(g_kmemstat, before);
  EXPECT_EQ(sol_ksxmemHead.next, Header(keep));
  EXPECT_EQ(Header(keep)->next, &sol_ksxmemHead);
  ksxmem_free(keep);
}

}  // namespace
