// The tracking allocator: one ksxmem_memalign and its ksxmem_free, for a
// header-sized block and a receive-buffer-sized block, plain and zeroed.
#include <benchmark/benchmark.h>

#include "utils/ksxmem.h"

namespace {

void BM_AllocFree(benchmark::State& state) {
  const auto size = static_cast<int32_t>(state.range(0));
  const auto align = static_cast<int32_t>(state.range(1));
  for (auto _ : state) {
    void* block = ksxmem_memalign(align, size, "bnch");
    benchmark::DoNotOptimize(block);
    ksxmem_free(block);
  }
}
// Alignment -8: 8-byte aligned and zero-filled, as replies and buffers are.
BENCHMARK(BM_AllocFree)->ArgNames({"size", "align"})
    ->Args({48, 8})->Args({48, -8})->Args({65536, 8})->Args({65536, -8});

}  // namespace

BENCHMARK_MAIN();
