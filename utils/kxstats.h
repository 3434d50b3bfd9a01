// The daemon's counters: requests by function and result with their
// latency, filesystem-library calls with theirs, datagrams refused at the
// header, leases expired and revoked, log lines by level.
//
// Everything is a relaxed atomic, so counting takes no lock on the request
// path. The request and library timings read the clock and are kept only
// while Enabled() is true (someone can read them: the admin socket or the
// metrics endpoint); the other counters are always kept, as they cost one
// increment on paths that are rare or already slow.
#ifndef KESTRIX_UTILS_KXSTATS_H_
#define KESTRIX_UTILS_KXSTATS_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "lanheader.h"

namespace kestrix::stats {

// Upper bounds of the latency buckets in nanoseconds (the last bucket has no
// bound: +Inf).
inline constexpr std::array<uint64_t, 17> kBucketBoundsNs = {
    10'000,     25'000,     50'000,      100'000,     250'000,     500'000,
    1'000'000,  2'500'000,  5'000'000,   10'000'000,  25'000'000,  50'000'000,
    100'000'000, 250'000'000, 500'000'000, 1'000'000'000, 2'500'000'000};

// A latency histogram; each bucket holds its own count (not cumulative).
// The number of samples is the buckets' sum, not a counter of its own, so
// that an observation costs two atomic additions.
struct Histogram {
  std::array<std::atomic<uint64_t>, kBucketBoundsNs.size() + 1> buckets{};
  std::atomic<uint64_t> sumNs{0};
  void Observe(uint64_t ns);
  uint64_t Count() const;
};

// Function codes with a name; every other code counts as kOtherFunction.
inline constexpr int kOtherFunction = 0;
inline constexpr int kFunctionSlots = 8;
// The name of a function slot ("GetVolume" ... "SendStringCmd", "other");
// null for the unused slot 6 (code 6 has no handler and counts as other).
const char* FunctionName(int slot);
int FunctionSlot(FSLONG functionCode);

// Results are counted per distinct value in a small table per function;
// values beyond it are counted together as "other".
inline constexpr int kResultSlots = 16;
inline constexpr int64_t kNoReply = INT64_MIN;      // the handler sent nothing
inline constexpr int64_t kEmptySlot = INT64_MIN + 1;

// The library entry points, in FsLibrary's slot order; all are counted but
// the first, FS_GetVersion.
inline constexpr int kLibraryEntries = 10;
inline constexpr int kFirstTimedEntry = 1;
const char* LibraryEntryName(int entry);

struct ResultCount {
  int64_t result;  // kNoReply for "none"
  uint64_t count;
};

// True when the timings are kept; set once at start-up, before any thread.
bool Enabled();
void Enable(bool on);

uint64_t NowNs();

// One request answered (or, with kNoReply, handled without a reply), with
// the time from its receipt to its reply being ready.
void CountRequest(FSLONG functionCode, int64_t result, uint64_t elapsedNs);
// The result a reply carries: the LAN-level result of the header when set,
// else the service result that opens the body, else 0.
int64_t ReplyResult(const LanHeader* reply);
void CountHeaderRefused();
void CountLibraryCall(int entry, uint64_t elapsedNs);
void CountLeasesExpired(uint64_t n);
void CountLeasesRevoked(uint64_t n);
void CountLogLine(int level);

// Reading, for the admin socket and the metrics endpoint.
std::vector<ResultCount> RequestResults(int functionSlot);
uint64_t OtherResults(int functionSlot);  // results beyond the table
const Histogram& RequestLatency(int functionSlot);
uint64_t LibraryCalls(int entry);
const Histogram& LibraryLatency(int entry);
uint64_t HeaderRefused();
uint64_t LeasesExpired();
uint64_t LeasesRevoked();
uint64_t LogLines(int level);

}  // namespace kestrix::stats

#endif  // KESTRIX_UTILS_KXSTATS_H_
