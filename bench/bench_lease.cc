// The lease list with many leases open: one open/find/renew/close round of
// a further lease, from 10 to 100,000 open leases (the cost should stay flat),
// and the allocator bytes each open lease holds, which go back to the idle
// figure once every lease is closed.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "sp/lease.h"
#include "sp/lease_limits.h"
#include "utils/ksxmem.h"
#include "utils/log.h"

namespace {

int g_level = KSX_ERROR;
FsLibrary g_library{};
const FSUNI kName[] = {'f', 0};

// A file cookie, message ID and sender for lease n.
struct Ids {
  uint8_t volume[FS_COOKIE_SIZE] = {1};
  uint8_t file[FS_COOKIE_SIZE] = {};
  uint8_t message[LAN_MSGID_SIZE] = {};
  uint8_t comm[LAN_COMMCOOKIE_SIZE] = {127, 0, 0, 1};
  explicit Ids(uint64_t n) {
    std::memcpy(file, &n, sizeof n);
    std::memcpy(message, &n, sizeof n);
  }
};

FSULONG Open(uint64_t n) {
  Ids ids(n);
  FSULONG key = 0;
  AddLeaseToList(ids.volume, ids.file, ids.message, ids.comm, 2, 60000, &key, &g_library, kName);
  return key;
}

void Close(FSULONG key) {
  uint8_t volume[FS_COOKIE_SIZE], file[FS_COOKIE_SIZE];
  RemoveLeaseFromList(key, volume, file, &g_library, "bench");
}

void BM_LeaseRoundWithOpenLeases(benchmark::State& state) {
  OSL_SetLog(&g_level, "/dev/null", "kestrixd");
  kestrix::InitLeaseList();
  const int64_t open = state.range(0);
  // All of them from one sender, beyond the default bounds; counting stays in the round.
  kestrix::InitLeaseLimits(static_cast<uint32_t>(open) + 1, static_cast<uint32_t>(open) + 1);
  const int32_t idle = g_kmemstat;
  std::vector<FSULONG> keys;
  for (int64_t i = 0; i < open; ++i) keys.push_back(Open(static_cast<uint64_t>(i)));
  const double perLease = static_cast<double>(g_kmemstat - idle) / static_cast<double>(open);

  uint64_t n = static_cast<uint64_t>(open);
  for (auto _ : state) {
    const FSULONG key = Open(++n);
    LeaseEntry copy;
    benchmark::DoNotOptimize(GetLeaseCopy(key, &copy));
    ChangeLeaseEntry(key, 30000);
    Close(key);
  }
  for (FSULONG key : keys) Close(key);
  state.counters["bytes_per_lease"] = perLease;
  state.counters["bytes_left_when_closed"] = g_kmemstat - idle;
}
BENCHMARK(BM_LeaseRoundWithOpenLeases)->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
