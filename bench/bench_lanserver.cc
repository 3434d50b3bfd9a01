// LAN_ProcessMessage on a header-only request that no handler serves:
// without tracking (with the request counters off and on), and with a
// tracker full of answered requests, from 1 to 2,000 of them (the cost per
// request should not depend on how many). Also what timing one library call
// adds.
#include <benchmark/benchmark.h>

#include <cstring>

#include "utils/ksxmem.h"
#include "utils/kxstats.h"
#include "utils/lanserver.h"
#include "utils/log.h"

namespace {

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

// Without tracking, every request goes to dispatch and gets result 8;
// with the argument 1 it is also counted and timed.
void BM_ProcessNoHandler(benchmark::State& state) {
  QuietLog();
  kestrix::stats::Enable(state.range(0) != 0);
  g_MaxDuplicateMessages = 0;
  LanServerInfo* server = nullptr;
  LAN_InitServer(&server);
  LanHeader request = Request(1, 0);
  for (auto _ : state) {
    LanHeader* reply = LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender);
    benchmark::DoNotOptimize(reply);
    ksxmem_free(reply);
  }
  kestrix::stats::Enable(false);
}
BENCHMARK(BM_ProcessNoHandler)->Arg(0)->Arg(1);

// What a library entry point's wrapper adds to the call: two clock reads
// and the counters.
void BM_LibraryCallTiming(benchmark::State& state) {
  for (auto _ : state) {
    const uint64_t started = kestrix::stats::NowNs();
    kestrix::stats::CountLibraryCall(4, kestrix::stats::NowNs() - started);
  }
}
BENCHMARK(BM_LibraryCallTiming);

// A server tracking `bound` answered requests from one sender.
LanServerInfo* FullTracker(int bound) {
  QuietLog();
  g_MaxDuplicateMessages = bound;
  LanServerInfo* server = nullptr;
  LAN_InitServer(&server);
  for (uint64_t id = 1; id <= static_cast<uint64_t>(bound); ++id) {
    LanHeader request = Request(id, LAN_FLAG_TRACK);
    ksxmem_free(LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender));
  }
  return server;
}

// A repeat of the newest request: it is looked up and the stored reply
// comes back.
void BM_ProcessTrackedRepeat(benchmark::State& state) {
  const int bound = static_cast<int>(state.range(0));
  LanServerInfo* server = FullTracker(bound);
  LanHeader request = Request(static_cast<uint64_t>(bound), LAN_FLAG_TRACK);
  for (auto _ : state) {
    LanHeader* reply = LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender);
    benchmark::DoNotOptimize(reply);
    ksxmem_free(reply);
  }
}
BENCHMARK(BM_ProcessTrackedRepeat)->Arg(1)->Arg(100)->Arg(2000);

// A new request each time: the look-up misses, the request is recorded and
// answered, and the oldest answered entries are purged.
void BM_ProcessTrackedNew(benchmark::State& state) {
  const int bound = static_cast<int>(state.range(0));
  LanServerInfo* server = FullTracker(bound);
  uint64_t id = static_cast<uint64_t>(bound);
  for (auto _ : state) {
    LanHeader request = Request(++id, LAN_FLAG_TRACK);
    LanHeader* reply = LAN_ProcessMessage(&request, LAN_HEADER_SIZE, server, kSender);
    benchmark::DoNotOptimize(reply);
    ksxmem_free(reply);
  }
}
BENCHMARK(BM_ProcessTrackedNew)->Arg(1)->Arg(100)->Arg(2000);

}  // namespace

BENCHMARK_MAIN();
