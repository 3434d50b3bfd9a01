// The log: a message above the level (the common case in production), one
// line appended to a file, and the escaping of a client text with and
// without anything to escape.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>

#include "utils/log.h"

namespace {

void BM_LogSuppressed(benchmark::State& state) {
  int level = KSX_ERROR;
  OSL_SetLog(&level, "SCREEN", "kestrixd");
  for (auto _ : state) OSL_Log(KSX_DEBUG1, "ksxmem_memalign\tp:%p size:%d\n", &level, 48);
}
BENCHMARK(BM_LogSuppressed);

void BM_LogLineToFile(benchmark::State& state) {
  char path[] = "/tmp/bench_log_XXXXXX";
  int fd = mkstemp(path);
  if (fd >= 0) close(fd);
  int level = KSX_SP;
  OSL_SetLog(&level, path, "kestrixd");
  for (auto _ : state) OSL_Log(KSX_SP, "SP path %s\n", "/export/data/some/file");
  OSL_SetLog(&level, "SCREEN", "kestrixd");
  unlink(path);
}
BENCHMARK(BM_LogLineToFile);

void BM_LogSafe(benchmark::State& state) {
  std::string text(static_cast<size_t>(state.range(0)), 'a');
  if (state.range(1) != 0) text[text.size() / 2] = '\n';
  for (auto _ : state) {
    kestrix::LogSafe safe(text.c_str());
    benchmark::DoNotOptimize(safe.c_str());
  }
}
// Text length, and whether it holds a line feed to escape.
BENCHMARK(BM_LogSafe)->ArgNames({"bytes", "escape"})
    ->Args({64, 0})->Args({64, 1})->Args({1023, 0})->Args({1023, 1});

}  // namespace

BENCHMARK_MAIN();
