// Tests of the tracking allocator: layout, guard word, fill, alignments, tags, refusals.
#include "utils/ksxmem.h"

#include <stdio.h>
#include <string.h>

#include <string>

#include "gtest/gtest.h"
#include "support/test_util.h"
#include "utils/osl.h"

namespace {

MemBlockHeader* Header(void* p) { return static_cast<MemBlockHeader*>(p) - 1; }
uint32_t GuardAt(const unsigned char* at) { uint32_t w; memcpy(&w, at, sizeof w); return w; }

// The size and first 20 user bytes OSL_freemem saw just before the release.
int32_t g_freedSize = 0;
std::string g_freedBytes;
void RecordFree(void* orig, int32_t size) {
  g_freedSize = size;
  g_freedBytes.assign(static_cast<char*>(orig) + sizeof(MemBlockHeader), 20);
}

// Layout constants are the code's own; what matters is that the block is
// zero-filled, guarded, counted and released whole.
TEST(SolKsxmemTest, TenByteBlockGuardAndRelease) {
  kestrix::test::LogCapture log(2);
  auto* p = static_cast<unsigned char*>(ksxmem_memalign(-8, 10, "abcd"));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Header(p)->orig, static_cast<void*>(Header(p)));  // no slack in front with alignment 8
  EXPECT_EQ(sol_ksxmemHead.next, Header(p));
  EXPECT_EQ(GuardAt(p + 16), 0xfeabbaefu);
  EXPECT_EQ(std::string(p, p + 16), std::string(16, '\0'));
  EXPECT_EQ(g_kmemstat, 68);

  memset(p + 10, 'x', 6);  // bytes 11 to 16 are rounding room
  kestrix::SetFreememObserverForTesting(RecordFree);
  EXPECT_EQ(ksxmem_free(p), 10);
  kestrix::SetFreememObserverForTesting(nullptr);
  EXPECT_EQ(log.Text(), "");
  EXPECT_EQ(g_freedSize, 68);
  EXPECT_EQ(g_freedBytes, std::string(10, 'A') + "xxxxxx" + std::string(4, '\0'));
  EXPECT_EQ(g_kmemstat, 0);
  EXPECT_EQ(sol_ksxmemHead.next, &sol_ksxmemHead);

  auto* over = static_cast<char*>(ksxmem_memalign(-8, 10, "ovrn"));
  over[16] = 'x';  // byte 17 is the guard word
  EXPECT_EQ(ksxmem_free(over), 10);  // freed all the same
  EXPECT_EQ(log.Text(), "Error Memory Corruption: End of memory was over written!! tag:ovrn\n");
  EXPECT_EQ(g_kmemstat, 0);
}

TEST(SolKsxmemTest, AlignmentsSizesAndTags) {
  // Negative asks for zero fill; below 8 is 8, others the next power of two up to 8192.
  const struct { int32_t asked, size, used; uint32_t total; } cases[] = {
      {8, 10, 8, 68}, {-8, 10, 8, 68}, {0, 10, 8, 68}, {3, 10, 8, 68}, {-5, 10, 8, 68},
      {16, 10, 16, 84}, {-16, 10, 16, 84}, {24, 10, 32, 100}, {4096, 10, 4096, 4164},
      {8192, 10, 8192, 8260}, {9000, 10, 8192, 8260}, {1 << 20, 10, 8192, 8260},
      {INT32_MIN, 10, 8192, 8260}, {8, 0, 8, 52}};
  const int32_t before = g_kmemstat;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.asked << " size " << c.size);
    auto* p = static_cast<unsigned char*>(ksxmem_memalign(c.asked, c.size, "alig"));
    ASSERT_NE(p, nullptr);
    MemBlockHeader* h = Header(p);
    const int32_t rounded = (c.size + 7) / 8 * 8;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % c.used, 0u);
    EXPECT_EQ(h->align, c.used);
    EXPECT_EQ(h->total, c.total);
    EXPECT_GE(reinterpret_cast<char*>(h), static_cast<char*>(h->orig));  // all inside the memory
    EXPECT_LE(p + rounded + 4, static_cast<unsigned char*>(h->orig) + h->total);
    EXPECT_EQ(GuardAt(p + rounded), 0xfeabbaefu);
    for (int i = 0; c.asked < 0 && i < c.size; ++i) EXPECT_EQ(p[i], 0);
    EXPECT_EQ(ksxmem_free(p), c.size);
  }
  EXPECT_EQ(g_kmemstat, before);

  const char shortTag[3] = {'a', 'b', '\0'};  // nothing readable past the NUL
  void* p = ksxmem_memalign(-8, 4, shortTag);
  void* q = ksxmem_memalign(-8, 4, "longer");
  EXPECT_EQ(memcmp(Header(p)->tag, "ab\0\0", 4), 0);
  EXPECT_EQ(memcmp(Header(q)->tag, "long", 4), 0);
  char name[5];
  EXPECT_STREQ(ksxmem_gettag(p, name), "ab");
  EXPECT_EQ(ksxmem_free(p) + ksxmem_free(q), 8);
}

TEST(SolKsxmemTest, RefusalsLogAndCountNothing) {
  kestrix::test::LogCapture log(2);
  alignas(8) static unsigned char early[8];
  EXPECT_EQ(ksxmem_free(early), -1);  // before any allocation nothing is read
  EXPECT_EQ(ksxmem_memalign(-8, -1, "negs"), nullptr);
  EXPECT_EQ(ksxmem_memalign(-8, INT32_MAX, "huge"), nullptr);
  kestrix::FailGetmem(2);
  void* first = ksxmem_memalign(-8, 10, "ok_1");
  EXPECT_EQ(ksxmem_memalign(-8, 10, "fail"), nullptr);
  void* third = ksxmem_memalign(-8, 10, "ok_3");
  kestrix::FailGetmem(0, 0);
  ASSERT_TRUE(first != nullptr && third != nullptr);
  EXPECT_EQ(g_kmemstat, 2 * 68);
  EXPECT_EQ(Header(third)->next, Header(first));
  alignas(8) static unsigned char foreign[128];
  EXPECT_EQ(ksxmem_free(foreign + 64), -1);
  EXPECT_EQ(ksxmem_free(first) + ksxmem_free(third), 20);
  EXPECT_EQ(g_kmemstat, 0);
  char line[96];
  snprintf(line, sizeof line, "Error ksxmem_free could not locate the proper memory: 0x%x",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(foreign + 64)));
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[1], "Error sol_ksxmem invalid size:-1 tag:negs");
  EXPECT_TRUE(lines[2].starts_with("Error sol_ksxmem malloc failed size:") &&
              lines[2].ends_with(" tag:huge")) << lines[2];
  EXPECT_EQ(lines[3], "Error sol_ksxmem malloc failed size:68 tag:fail");
  EXPECT_EQ(lines[4], line);
}

}  // namespace
