// The daemon's counters, all relaxed atomics: see utils/kxstats.h.
#include "utils/kxstats.h"

#include <time.h>

#include <cstring>

#include "spmsgs.h"

namespace kestrix::stats {

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr int kLogLevels = 13;

struct ResultSlot {
  std::atomic<int64_t> result{kEmptySlot};
  std::atomic<uint64_t> count{0};
};

struct FunctionCounters {
  std::array<ResultSlot, kResultSlots> results;
  std::atomic<uint64_t> otherResults{0};
  Histogram latency;
};


bool s_enabled = false;
std::array<FunctionCounters, kFunctionSlots> s_functions;
std::array<Histogram, kLibraryEntries> s_library;
std::atomic<uint64_t> s_headerRefused{0}, s_leasesExpired{0}, s_leasesRevoked{0};
std::array<std::atomic<uint64_t>, kLogLevels> s_logLines{};

// Indexed by function code; codes without a name count as "other".
constexpr std::array<const char*, kFunctionSlots> kFunctionNames = [] {
  std::array<const char*, kFunctionSlots> names{};
  names[kOtherFunction] = "other";
  names[SP_FUNC_GETVOLUME] = "GetVolume";
  names[SP_FUNC_GETINITIALMAP] = "GetInitialMap";
  names[SP_FUNC_GETEXTENDEDMAP] = "GetExtendedMap";
  names[SP_FUNC_SETSIZE] = "SetSize";
  names[SP_FUNC_CLOSE] = "Close";
  names[SP_FUNC_SENDSTRINGCMD] = "SendStringCmd";
  return names;
}();
constexpr const char* kEntryNames[kLibraryEntries] = {
    "FS_GetVersion", "FS_SetLog",    "FS_GetVolCookie", "FS_GetVolByCookie", "FS_GetCookies",
    "FS_GetLockedMap", "FS_UnlockMap", "FS_SetFileSizes", "FS_GetMaxLeases",  "FS_Init"};

// Adds one to the slot of result, claiming a free slot for a value not seen
// before; a full table counts the value among the others.
void CountResult(FunctionCounters& f, int64_t result) {
  for (ResultSlot& slot : f.results) {
    int64_t held = slot.result.load(std::memory_order_acquire);
    if (held == kEmptySlot &&
        (slot.result.compare_exchange_strong(held, result, std::memory_order_acq_rel) ||
         held == result)) {
      held = result;
    }
    if (held == result) {
      slot.count.fetch_add(1, kRelaxed);
      return;
    }
  }
  f.otherResults.fetch_add(1, kRelaxed);
}

}  // namespace

void Histogram::Observe(uint64_t ns) {
  size_t i = 0;
  while (i < kBucketBoundsNs.size() && ns > kBucketBoundsNs[i]) ++i;
  buckets[i].fetch_add(1, kRelaxed);
  sumNs.fetch_add(ns, kRelaxed);
}

uint64_t Histogram::Count() const {
  uint64_t n = 0;
  for (const auto& bucket : buckets) n += bucket.load(kRelaxed);
  return n;
}

const char* FunctionName(int slot) { return kFunctionNames[slot]; }

int FunctionSlot(FSLONG functionCode) {
  const bool named = functionCode >= 1 && functionCode < kFunctionSlots &&
                     kFunctionNames[functionCode] != nullptr;
  return named ? functionCode : kOtherFunction;
}

const char* LibraryEntryName(int entry) { return kEntryNames[entry]; }

bool Enabled() { return s_enabled; }
void Enable(bool on) { s_enabled = on; }

uint64_t NowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

void CountRequest(FSLONG functionCode, int64_t result, uint64_t elapsedNs) {
  FunctionCounters& f = s_functions[FunctionSlot(functionCode)];
  CountResult(f, result);
  f.latency.Observe(elapsedNs);
}

int64_t ReplyResult(const LanHeader* reply) {
  if (reply == nullptr) return kNoReply;
  if (reply->result != 0) return reply->result;
  if (reply->length < LAN_HEADER_SIZE + sizeof(FSLONG)) return 0;
  FSLONG body;
  std::memcpy(&body, reinterpret_cast<const uint8_t*>(reply) + LAN_HEADER_SIZE, sizeof body);
  return body;
}

void CountHeaderRefused() { s_headerRefused.fetch_add(1, kRelaxed); }

void CountLibraryCall(int entry, uint64_t elapsedNs) {
  s_library[entry].Observe(elapsedNs);
}

void CountLeasesExpired(uint64_t n) { s_leasesExpired.fetch_add(n, kRelaxed); }
void CountLeasesRevoked(uint64_t n) { s_leasesRevoked.fetch_add(n, kRelaxed); }

void CountLogLine(int level) {
  if (level >= 0 && level < kLogLevels) s_logLines[level].fetch_add(1, kRelaxed);
}

std::vector<ResultCount> RequestResults(int functionSlot) {
  const FunctionCounters& f = s_functions[functionSlot];
  std::vector<ResultCount> out;
  for (const ResultSlot& slot : f.results) {
    const int64_t result = slot.result.load(std::memory_order_acquire);
    if (result != kEmptySlot) out.push_back({result, slot.count.load(kRelaxed)});
  }
  return out;
}

const Histogram& RequestLatency(int functionSlot) { return s_functions[functionSlot].latency; }
uint64_t OtherResults(int functionSlot) {
  return s_functions[functionSlot].otherResults.load(kRelaxed);
}
uint64_t LibraryCalls(int entry) { return s_library[entry].Count(); }
const Histogram& LibraryLatency(int entry) { return s_library[entry]; }
uint64_t HeaderRefused() { return s_headerRefused.load(kRelaxed); }
uint64_t LeasesExpired() { return s_leasesExpired.load(kRelaxed); }
uint64_t LeasesRevoked() { return s_leasesRevoked.load(kRelaxed); }
uint64_t LogLines(int level) { return s_logLines[level].load(kRelaxed); }

}  // namespace kestrix::stats
