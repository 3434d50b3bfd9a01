// localfs (or the build KESTRIX_BENCH_PLUGIN names) on an ext4 or XFS
// directory named by KESTRIX_BENCH_DIR (default $TMPDIR or /tmp; its block
// device must be readable): looking a file up,
// mapping files of 1 to 1024 data extents (a hole between each two), and
// allocating written space.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fslibrary.h"

namespace {

constexpr char kCannotServe[] = "localfs cannot serve the directory (see KESTRIX_BENCH_DIR)";

struct LocalFs {
  std::string dir;
  FsLibrary fs = {};
  uint8_t vol[32] = {}, file[32] = {};
};

std::vector<FSUNI> Fsuni(const std::string& ascii) {
  std::vector<FSUNI> units(ascii.begin(), ascii.end());
  units.push_back(0);
  return units;
}

// The library, exporting a fresh directory; null when it cannot be set up.
LocalFs* Setup() {
  static LocalFs* lib = [] {
    const char* base = getenv("KESTRIX_BENCH_DIR");
    if (base == nullptr || *base == '\0') base = getenv("TMPDIR");
    std::string dir = std::string(base && *base ? base : "/tmp") + "/kestrix-bench-XXXXXX";
    // KESTRIX_BENCH_PLUGIN compares another build of the plug-in.
    const char* plugin = getenv("KESTRIX_BENCH_PLUGIN");
    if (plugin == nullptr || *plugin == '\0') plugin = KESTRIX_LOCALFS_PLUGIN;
    void* handle = dlopen(plugin, RTLD_NOW);
    if (mkdtemp(dir.data()) == nullptr || handle == nullptr) return static_cast<LocalFs*>(nullptr);
    std::ofstream(dir + "/localfs.conf") << dir << "\n";
    setenv("KESTRIX_LOCALFS_CONF", (dir + "/localfs.conf").c_str(), 1);
    auto* l = new LocalFs{dir};
    l->fs.FS_Init = reinterpret_cast<FS_Init_t>(dlsym(handle, "FS_Init"));
    l->fs.FS_GetCookies = reinterpret_cast<FS_GetCookies_t>(dlsym(handle, "FS_GetCookies"));
    l->fs.FS_GetLockedMap = reinterpret_cast<FS_GetLockedMap_t>(dlsym(handle, "FS_GetLockedMap"));
    l->fs.FS_UnlockMap = reinterpret_cast<FS_UnlockMap_t>(dlsym(handle, "FS_UnlockMap"));
    l->fs.FS_SetFileSizes = reinterpret_cast<FS_SetFileSizes_t>(dlsym(handle, "FS_SetFileSizes"));
    l->fs.FS_Init();
    atexit([] { std::filesystem::remove_all(lib->dir); });
    return l;
  }();
  return lib;
}

// A file of `extents` 4 KiB blocks, each followed by a hole; its cookies.
bool MakeFile(LocalFs* l, const std::string& name, int extents) {
  const std::string path = l->dir + "/" + name;
  int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  std::string block(4096, 'x');
  for (int i = 0; i < extents; ++i) pwrite(fd, block.data(), block.size(), 2 * i * 4096);
  fsync(fd);
  close(fd);
  return l->fs.FS_GetCookies(Fsuni(path).data(), l->vol, l->file) == 0;
}

void BM_GetCookies(benchmark::State& state) {
  LocalFs* l = Setup();
  if (l == nullptr || !MakeFile(l, "one", 1)) return state.SkipWithError(kCannotServe);
  const auto path = Fsuni(l->dir + "/one");
  for (auto _ : state) benchmark::DoNotOptimize(l->fs.FS_GetCookies(path.data(), l->vol, l->file));
}
BENCHMARK(BM_GetCookies);

// One map of the whole file and its unlock, as GetInitialMap and Close do.
void BM_MapAndUnlock(benchmark::State& state) {
  LocalFs* l = Setup();
  if (l == nullptr || !MakeFile(l, "map" + std::to_string(state.range(0)), state.range(0)))
    return state.SkipWithError(kCannotServe);
  std::vector<uint8_t> reply(65536 - 256);
  for (auto _ : state) {
    FSULONG room = reply.size();
    benchmark::DoNotOptimize(l->fs.FS_GetLockedMap(
        l->vol, l->file, 0, -1, 0, reinterpret_cast<FSMapInfo*>(reply.data()), &room));
    l->fs.FS_UnlockMap(l->vol, l->file);
  }
}
BENCHMARK(BM_MapAndUnlock)->Arg(1)->Arg(64)->Arg(1024)->UseRealTime();

// Allocating written zeros in an empty file, as a new file's first
// GetInitialMap asks: 16 MiB, and 1 GiB asked again until all of it is
// granted, as a client does when the library grants it in parts. Compare the
// bytes per second with dd writing the same size with oflag=direct on the
// same device (scripts/bench-zerofill does both on a loop device).
void BM_AllocateWritten(benchmark::State& state) {
  LocalFs* l = Setup();
  if (l == nullptr || !MakeFile(l, "alloc", 0)) return state.SkipWithError(kCannotServe);
  const int64_t bytes = state.range(0) << 20;
  const std::string path = l->dir + "/alloc";
  for (auto _ : state) {
    state.PauseTiming();
    l->fs.FS_SetFileSizes(l->vol, l->file, 0, 0, -1, -1);
    state.ResumeTiming();
    for (int calls = 0; calls < 4096 && std::filesystem::file_size(path) < uint64_t(bytes); ++calls)
      if (l->fs.FS_SetFileSizes(l->vol, l->file, 0, -1, bytes, -1) != 0)
        return state.SkipWithError("the allocation failed");
  }
  state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_AllocateWritten)->Arg(16)->Arg(1024)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
