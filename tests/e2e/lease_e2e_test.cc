// Leases across requests end to end: expiry by the purge thread, and many
// clients opening, mapping, resizing and closing at once.
#include <set>
#include <thread>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

class LeaseE2E : public MapE2E {};
const char kFiles[] = "file /export/data/f vol-a file-f\nfile /export/data/g vol-a file-g\n";

TEST_F(LeaseE2E, UnrenewedLeasesArePurgedAndOnlyTheLastOnAFileUnlocks) {
  TestFs fs = Serve(kFiles);
  Start();
  for (const char* file : {"f", "f", "g"}) Open(file, {-1, -1, 1, 1});  // 1 ms, then the grace
  ASSERT_TRUE(PollUntil([&] { return CountOf(daemon_.Log(), "Purged lease") == 3; }, 45000));
  // The purge holds the lease list until its walk ends, so this waits for its unlocks.
  EXPECT_EQ(Result(client::MakeCloseRequest(0)), 407);
  std::multiset<std::string> unlocked;
  for (const CallRecord& c : fs.Calls("FS_UnlockMap")) unlocked.insert(c.Get("file"));
  EXPECT_EQ(unlocked, (std::multiset<std::string>{"file-f", "file-g"}));
}

TEST_F(LeaseE2E, ConcurrentClientsNeitherLoseNorDoubleALease) {
  Serve(kFiles);
  Start({"-s", "0", "-t", "10"});
  constexpr int kThreads = 4, kRounds = 50;
  std::vector<std::set<uint32_t>> keys(kThreads);
  std::atomic<int> failures{0};
  auto client = [&](int t) {
    client::Endpoint endpoint("127.0.0.1", daemon_.port());
    uint64_t id = static_cast<uint64_t>(t + 1) << 32;
    auto ask = [&](Bytes request) {
      client::Write(request, 8, ++id);
      const Bytes reply = endpoint.Transact(request, 10000).value_or(Bytes(60, 0xFF));
      failures += client::Read<int32_t>(reply, 48) != 0;
      return reply;
    };
    for (int round = 0; round < kRounds; ++round) {
      const uint32_t key = client::Read<uint32_t>(
          ask(client::MakeGetInitialMapRequest("data", (t + round) % 2 ? "f" : "g")), 56);
      keys[t].insert(key);
      ask(client::MakeGetExtendedMapRequest(key, 0, 0));
      ask(client::MakeSetSizeRequest(key, round));
      ask(client::MakeCloseRequest(key));
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(client, t);
  for (std::thread& thread : threads) thread.join();
  std::set<uint32_t> all;
  for (const auto& some : keys) all.insert(some.begin(), some.end());
  EXPECT_EQ(std::tuple(failures.load(), all.size()), std::tuple(0, size_t{kThreads * kRounds}));
}

}  // namespace
}  // namespace kestrix::test
