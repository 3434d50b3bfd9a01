// LAN_ProcessMessage on a header-only request that no handler serves:
// without tracking, and with a tracker full of answered requests.
#include <benchmark/benchmark.h>

#include <cstring>

#include "utils/ksxmem.h"
#include "utils/lanserver.h"
#include "utils/log.h"

namespace {

constexpr int kTrackerBound = 2000;
constexpr int kNoHandlerCode = 9;
const uint8_t kSender[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};

int g_level = KSX_ERROR;

// Level 2, and the few start-up lines away from the benchmark's output.
void QuietLog() { OSL_SetLog(&g_level, "/dev/null", "kestrixd"); }

LanHeader Request(uint64_t id, uint32_t flags) {
  LanHeader h{};
  h.byteOrder = LAN_BYTEORDER_MARK;
  h.functionCode = kNoHandlerCode;
  h.length = LAN_HEADER_SIZE;
  h.flags = flags;
  std::memcpy(h.messageID, &id, sizeof id);
  return h;
}

// Without tracking, every request goes to dispatch and gets result 8.
void BM_ProcessNoHandler(benchmark::State& state) {
  QuietLog();
  g_MaxDuplicateMessages = 0;
  LanServerInfo* server = nullptr;
  LAN_InitServer(&server);
  LanHeader request = Request(1, 0);
  for (auto _ : state) {
    LanHeader* reply = LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender);
    benchmark::DoNotOptimize(reply);
    ksxmem_free(reply);
  }
}
BENCHMARK(BM_ProcessNoHandler);

// A server tracking kTrackerBound answered requests from one sender.
LanServerInfo* FullTracker() {
  QuietLog();
  g_MaxDuplicateMessages = kTrackerBound;
  LanServerInfo* server = nullptr;
  LAN_InitServer(&server);
  for (uint64_t id = 1; id <= kTrackerBound; ++id) {
    LanHeader request = Request(id, LAN_FLAG_TRACK);
    ksxmem_free(LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender));
  }
  return server;
}

// A repeat of the newest request: the whole list is walked to find it, and
// the stored reply comes back.
void BM_ProcessTrackedRepeat(benchmark::State& state) {
  LanServerInfo* server = FullTracker();
  LanHeader request = Request(kTrackerBound, LAN_FLAG_TRACK);
  for (auto _ : state) {
    LanHeader* reply = LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender);
    benchmark::DoNotOptimize(reply);
    ksxmem_free(reply);
  }
}
BENCHMARK(BM_ProcessTrackedRepeat);

// A new request each time: the walk misses, the request is recorded and
// answered, and the oldest answered entries are purged.
void BM_ProcessTrackedNew(benchmark::State& state) {
  LanServerInfo* server = FullTracker();
  uint64_t id = kTrackerBound;
  for (auto _ : state) {
    LanHeader request = Request(++id, LAN_FLAG_TRACK);
    LanHeader* reply = LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender);
    benchmark::DoNotOptimize(reply);
    ksxmem_free(reply);
  }
}
BENCHMARK(BM_ProcessTrackedNew);

}  // namespace

BENCHMARK_MAIN();
