// The tracking allocator: alignment, zero fill, guard word, counting, tags, refusals.
#include "utils/ksxmem.h"

#include <stdlib.h>
#include <string.h>

#include "gtest/gtest.h"
#include "support/test_util.h"
#include "utils/osl.h"

namespace {

MemBlockHeader* Header(void* p) { return static_cast<MemBlockHeader*>(p) - 1; }

// What OSL_freemem was given just before the release: the size and up to 20 user bytes.
int32_t g_freedSize = 0;
std::string g_freedBytes;
void RecordFree(void* orig, int32_t size) {
  g_freedSize = size;
  g_freedBytes.assign(static_cast<char*>(orig) + sizeof(MemBlockHeader),
                      std::min<size_t>(20, size - sizeof(MemBlockHeader)));
}

// Negative asks for zero fill; below 8 is 8, others the next power of two up to 8192.
// Each block lies inside what was obtained, is counted, and is given back whole.
TEST(KsxmemTest, BlocksFollowTheAlignmentAsked) {
  kestrix::test::LogCapture log(2);
  const struct { int32_t asked, size, used;
  } cases[] = {{-8, 10, 8},           {0, 10, 8},       {3, 10, 8},
               {-5, 10, 8},           {-16, 10, 16},    {24, 10, 32},
               {4096, 10, 4096},      {9000, 10, 8192}, {1 << 20, 10, 8192},
               {INT32_MIN, 10, 8192}, {8, 0, 8}};
  kestrix::SetFreememObserverForTesting(RecordFree);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.asked << " size " << c.size);
    const int32_t before = g_kmemstat;
    auto* p = static_cast<unsigned char*>(ksxmem_memalign(c.asked, c.size, "alig"));
    ASSERT_NE(p, nullptr);
    MemBlockHeader* h = Header(p);
    const int32_t rounded = (c.size + 7) / 8 * 8;
    EXPECT_EQ(std::tuple(reinterpret_cast<uintptr_t>(p) % c.used, h->align, sol_ksxmemHead.next),
              std::tuple(0u, c.used, h));
    EXPECT_GE(reinterpret_cast<char*>(h), static_cast<char*>(h->orig));
    EXPECT_LE(p + rounded + 4, static_cast<unsigned char*>(h->orig) + h->total);
    uint32_t guard;
    memcpy(&guard, p + rounded, sizeof guard);
    EXPECT_EQ(guard, KSXMEM_GUARD);
    for (int i = 0; c.asked < 0 && i < rounded; ++i) EXPECT_EQ(p[i], 0);
    const int32_t total = static_cast<int32_t>(h->total);
    EXPECT_EQ(g_kmemstat - before, total);
    EXPECT_EQ(ksxmem_free(p), c.size);
    EXPECT_EQ(std::tuple(g_kmemstat, g_freedSize), std::tuple(before, total));
  }
  kestrix::SetFreememObserverForTesting(nullptr);
  EXPECT_EQ(log.Text(), "");
}

TEST(KsxmemTest, FreedBlocksAreFilledWithA) {
  kestrix::test::LogCapture log(2);
  const int32_t before = g_kmemstat;
  auto* p = static_cast<char*>(ksxmem_memalign(-8, 10, "fill"));
  memset(p + 10, 'x', 6);  // bytes 11 to 16 are rounding room
  kestrix::SetFreememObserverForTesting(RecordFree);
  EXPECT_EQ(ksxmem_free(p), 10);
  kestrix::SetFreememObserverForTesting(nullptr);
  EXPECT_EQ(g_freedBytes, std::string(10, 'A') + "xxxxxx" + std::string(4, '\0'));
  EXPECT_EQ(log.Text(), "");
  EXPECT_EQ(g_kmemstat, before);
}

TEST(KsxmemTest, AnOverwrittenGuardIsLoggedAndTheBlockStillFreed) {
  kestrix::test::LogCapture log(2);
  const int32_t before = g_kmemstat;
  MemBlockHeader* const newest = sol_ksxmemHead.next;
  auto* p = static_cast<char*>(ksxmem_memalign(-8, 10, "ovrn"));
  p[16] = 'x';  // byte 17 is the guard word
  EXPECT_EQ(ksxmem_free(p), 10);
  EXPECT_EQ(log.Text(), "Error Memory Corruption: End of memory was over written!! tag:ovrn\n");
  EXPECT_EQ(g_kmemstat, before);
  EXPECT_EQ(sol_ksxmemHead.next, newest);  // the block is off the list
}

TEST(KsxmemTest, TagsKeepAtMostFourBytes) {
  const char shortTag[3] = {'a', 'b', '\0'};  // nothing readable past the NUL
  void* s = ksxmem_memalign(-8, 4, shortTag);
  void* l = ksxmem_memalign(-8, 4, "longer");
  char name[5];
  EXPECT_EQ(std::tuple(std::string(ksxmem_gettag(s, name)), memcmp(Header(s)->tag, "ab\0\0", 4),
                       memcmp(Header(l)->tag, "long", 4)),
            std::tuple("ab", 0, 0));
  EXPECT_EQ(ksxmem_free(s) + ksxmem_free(l), 8);
}

// A free before the first allocation is refused without reading the caller's
// memory; only a fresh process, started for the check, has such an allocator.
TEST(KsxmemTest, AFreeBeforeAnyAllocationIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        alignas(8) static unsigned char early[8];
        exit(ksxmem_free(early) == -1 && g_kmemstat == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(KsxmemTest, RefusalsAreLoggedWithoutChangingTheCount) {
  kestrix::test::LogCapture log(2);
  const int32_t before = g_kmemstat;
  EXPECT_EQ(ksxmem_memalign(-8, -1, "negs"), nullptr);
  EXPECT_EQ(ksxmem_memalign(-8, INT32_MAX, "huge"), nullptr);
  kestrix::FailGetmem(2);
  void* first = ksxmem_memalign(-8, 10, "ok_1");
  EXPECT_EQ(ksxmem_memalign(-8, 10, "fail"), nullptr);
  void* third = ksxmem_memalign(-8, 10, "ok_3");
  kestrix::FailGetmem(0, 0);
  ASSERT_TRUE(first != nullptr && third != nullptr);
  EXPECT_EQ(Header(third)->next, Header(first));
  alignas(8) static unsigned char foreign[128];
  EXPECT_EQ(ksxmem_free(foreign + 64), -1);
  EXPECT_EQ(ksxmem_free(first) + ksxmem_free(third), 20);
  EXPECT_EQ(g_kmemstat, before);
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "Error sol_ksxmem invalid size:-1 tag:negs");
  EXPECT_TRUE(lines[1].starts_with("Error sol_ksxmem malloc failed size:"));
  EXPECT_TRUE(lines[1].ends_with(" tag:huge"));
  EXPECT_TRUE(lines[2].starts_with("Error sol_ksxmem malloc failed size:"));
  EXPECT_TRUE(lines[2].ends_with(" tag:fail"));
  EXPECT_TRUE(lines[3].starts_with("Error ksxmem_free could not locate the proper memory: 0x"))
      << lines[3];
}

}  // namespace
