// kxbench's load: closed-loop clients that keep a window of requests of one
// kind in flight on each of their sockets, and what they measured.
#ifndef KESTRIX_BENCH_KXBENCH_LOAD_H_
#define KESTRIX_BENCH_KXBENCH_LOAD_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace kxbench {

enum class Kind { kHeader, kGetVolume, kCycle, kSetSize, kString };

// The kind named by text ("header", "getvolume", "cycle", "setsize",
// "string"); false when there is none of that name.
bool ParseKind(const std::string& text, Kind* kind);
const char* KindName(Kind kind);

struct LoadShape {
  Kind kind = Kind::kHeader;
  bool duplicateFlag = false;  // header flags bit 0: the daemon tracks each request
  int threads = 2;
  int sockets = 1;  // per thread
  int window = 1;   // requests in flight per socket
  uint16_t port = 0;  // on 127.0.0.1
};

// Counts of one measured interval, and the latency of every request in it.
struct LoadResult {
  uint64_t requests = 0;
  uint64_t timeouts = 0;  // requests re-sent after a second without a reply
  std::vector<uint32_t> latencyNs;
  // Reply sizes the server gave, by request function code (0: none seen).
  uint32_t replySize[100] = {};
};

// Runs the clients until Stop. Only replies that arrive while measuring is
// set count; the progress counter counts every reply.
class Load {
 public:
  explicit Load(const LoadShape& shape);
  ~Load();
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  bool Start();  // false when a socket cannot be made
  void Measure(bool on) { measuring_.store(on, std::memory_order_relaxed); }
  uint64_t Replies() const { return replies_.load(std::memory_order_relaxed); }
  // Stops and joins the clients, closes the leases they hold, and returns
  // what the measured interval saw.
  LoadResult Stop();

 private:
  struct Client;
  void Run(Client* client);

  LoadShape shape_;
  std::atomic<bool> running_{false};
  std::atomic<bool> measuring_{false};
  std::atomic<uint64_t> replies_{0};
  std::vector<Client*> clients_;
};

// Opens `count` leases (files "held<n>", an hour each) on the daemon at
// 127.0.0.1:port and closes them again, for measuring with many leases open.
// Keys of the leases whose open was answered go to keys.
void OpenLeases(uint16_t port, int count, std::vector<uint32_t>* keys);
void CloseLeases(uint16_t port, const std::vector<uint32_t>& keys);

}  // namespace kxbench

#endif  // KESTRIX_BENCH_KXBENCH_LOAD_H_
