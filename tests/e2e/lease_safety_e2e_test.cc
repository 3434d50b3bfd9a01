// Leases as only their holder may use them: other addresses, keys of an
// earlier run, over-long lease requests, lease bounds, the open file limit,
// and a new lease on a file whose last unlock is still under way.
#include <sys/resource.h>

#include <thread>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::MakeCloseRequest;
using client::MakeGetInitialMapRequest;
using LeaseSafetyE2E = MapE2E;
const std::string kFiles = "file /export/data/f vol-a file-f\nfile /export/data/g vol-a file-g\n";

TEST_F(LeaseSafetyE2E, ALeaseAnswersOnlyTheAddressThatOpenedIt) {
  TestFs fs = Serve(kFiles);
  Start();
  const uint32_t key = Open("f", {-1, -1, 0, 0}).key;
  fs.ClearCalls();
  for (const Bytes& request : {client::MakeGetExtendedMapRequest(key, 0, 0, 0, 5),
                               client::MakeSetSizeRequest(key, 5), MakeCloseRequest(key, 5)})
    EXPECT_EQ(client::Read<int32_t>(AskFrom("127.0.0.2", request), 48), 407);
  EXPECT_EQ(MapCalls(fs), "");  // nothing mapped, resized or unlocked
  EXPECT_EQ(Result(MakeCloseRequest(key, 5)), 0);
  EXPECT_EQ(MapCalls(fs), "size 5 5|unlock|");
}

// A client of the first run closing its old key must not cut the file that
// the second run's first client opened.
TEST_F(LeaseSafetyE2E, KeysRiseByOneWithinARunAndStartElsewhereInTheNext) {
  TestFs fs = Serve(kFiles);
  Start();
  const uint32_t first = Open("f").key;
  EXPECT_EQ(Open("g").key, first + 1);
  Restart();
  EXPECT_NE(Open("g", {-1, -1, 0, 0}).key, first);  // equal by chance once in 2^32 runs
  fs.ClearCalls();
  EXPECT_EQ(Result(MakeCloseRequest(first, 5)), 407);
  EXPECT_EQ(MapCalls(fs), "");
}

TEST_F(LeaseSafetyE2E, NegativeLeaseRequestsAreCappedLikeLongOnes) {
  constexpr uint32_t kNegative = 4294901760u;  // -65536 ms read as signed
  TestFs fs = Serve(kFiles);
  Start();
  for (auto [conf, cap] :
       {std::pair{"maxlease.read 60", 60000u}, {"result FS_GetMaxLeases 1", 86400000u}}) {
    fs.Configure(kFiles + conf + "\n");
    const client::MapReply open = Open("f", {-1, -1, kNegative, 1});
    const auto extended =
        client::ParseMapReply(Send(client::MakeGetExtendedMapRequest(open.key, 0, 0, kNegative)));
    const auto sized =
        client::ParseStatusReply(Send(client::MakeSetSizeRequest(open.key, 1, kNegative)));
    EXPECT_EQ(std::tuple(open.lease, extended->lease - cap < 1000, sized->lease),
              std::tuple(cap, true, cap))
        << conf;
  }
}

TEST_F(LeaseSafetyE2E, ASenderAtItsBoundIsRefusedWhileOthersAreServed) {
  Serve(kFiles);
  daemon_.SetEnv("KESTRIX_MAX_LEASES_PER_CLIENT", "2");
  daemon_.SetEnv("KESTRIX_MAX_LEASES", "3");
  Start();
  std::vector<uint32_t> keys;
  auto open = [&](const char* from) {
    const Bytes reply = AskFrom(from, MakeGetInitialMapRequest("data", "f"));
    keys.push_back(client::Read<uint32_t>(reply, 56));
    return client::Read<int32_t>(reply, 48);
  };
  // Two leases for .1, its third refused; one for .2, then the daemon's bound.
  for (auto [from, result] : {std::pair{"127.0.0.1", 0}, {"127.0.0.1", 0}, {"127.0.0.1", 410},
                              {"127.0.0.2", 0}, {"127.0.0.2", 410}})
    EXPECT_EQ(open(from), result) << from;
  EXPECT_EQ(Result(MakeCloseRequest(keys[0])), 0);
  EXPECT_EQ(open("127.0.0.2"), 0);  // the place .1 gave back
  EXPECT_EQ(CountOf(daemon_.Log(), "Lease refused"), 2);
}

TEST_F(LeaseSafetyE2E, TheOpenFileLimitIsRaisedToTheHardLimit) {
  rlimit own{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &own), 0);
  if (own.rlim_max <= 256)
    GTEST_SKIP() << "hard open file limit " << own.rlim_max << ": nothing to raise to";
  const rlimit low{256, own.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  Start();  // the daemon inherits the low soft limit
  setrlimit(RLIMIT_NOFILE, &own);
  rlimit daemon{};
  ASSERT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, nullptr, &daemon), 0);
  EXPECT_EQ(daemon.rlim_cur, own.rlim_max);
}

// With requests handled at once, an open of a file whose last lease is being
// closed locks the map again only after the slow unlock has returned.
TEST_F(LeaseSafetyE2E, AnOpenDuringTheLastUnlockOfItsFileWaitsForIt) {
  TestFs fs = Serve(kFiles);
  Start({"-l", "10", "-s", "0", "-t", "4"});
  const uint32_t key = Open("f").key;
  fs.Configure(kFiles + "delay.unlock 500\n");
  fs.ClearCalls();
  std::thread closer([&] { AskFrom("127.0.0.1", MakeCloseRequest(key)); });
  EXPECT_TRUE(daemon_.WaitForLog("RemoveLeaseFromList (SP_LANClose)"));
  EXPECT_EQ(Open("f").result, 0);
  closer.join();
  EXPECT_EQ(MapCalls(fs), "unlock|map 0 -1 0|");
}

}  // namespace
}  // namespace kestrix::test
