// Byte-order conversion of a GetInitialMap request written in the other
// byte order, and FSUNI-to-UTF-8 conversion of a long path.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "sp/sp_sup.h"
#include "utils/utils.h"

namespace {

// Converting toggles the body between the two orders; the marker stays, so
// every iteration does the full reversal.
void BM_TransGetInitialMap(benchmark::State& state) {
  GetInitialMapMsg msg{};
  msg.header.byteOrder = 0x01000000;  // 1 as the other byte order writes it
  msg.filesize = 0x0000000100000000LL;
  msg.allocsize = -1;
  msg.lease = 0x30750000;
  msg.intention = 0x01000000;
  const char16_t names[] = u"share\0dir/file.dat";
  for (size_t i = 0; i < sizeof names / 2; ++i)
    msg.names[i] = static_cast<FSUNI>(names[i] << 8 | names[i] >> 8);
  for (auto _ : state) {
    SPSUP_TransLanGetInitialMap(&msg);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TransGetInitialMap);

// A 255-unit path: all ASCII, or with two- and three-byte UTF-8 characters.
std::vector<FSUNI> Path(bool wide) {
  const std::u16string part = wide ? u"/d\u00e9j\u00e0-\u6587\u4ef6" : u"/segment";
  std::vector<FSUNI> path;
  while (path.size() < 255) path.push_back(part[path.size() % part.size()]);
  path.push_back(0);
  return path;
}

void BM_Fsuni2mb(benchmark::State& state) {
  const std::vector<FSUNI> path = Path(state.range(0) != 0);
  char out[1024];
  for (auto _ : state) {
    benchmark::DoNotOptimize(fsuni2mb(out, path.data(), sizeof out));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Fsuni2mb)->ArgName("wide")->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
