// The map requests end to end: GetInitialMap, GetExtendedMap, SetSize and
// Close, their replies and the calls testfs records; leases across requests,
// their expiry by the purge thread and many clients at once.
#include <signal.h>

#include <cstdio>
#include <set>
#include <thread>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::MakeGetInitialMapRequest;
using GetInitialMapE2E = MapE2E;
using GetExtendedMapE2E = MapE2E;
using SetSizeE2E = MapE2E;
using CloseE2E = MapE2E;
using LeaseE2E = MapE2E;
const std::string kFile = "file /export/data/f vol-a file-f\n";

TEST_F(GetInitialMapE2E, TheLibrarysAnswersDecideWhetherTheLeaseIsKept) {
  // size and alloc are the request's new sizes (-1: unchanged), flag its
  // map flags; conf is what testfs is told to answer, calls what it records.
  struct Row {
    int64_t size, alloc;
    uint32_t flag;
    const char* conf;
    int result;
    const char* calls;
  };
  const Row rows[] = {
      {.size = -1, .alloc = -1, .flag = 0, .conf = "", .result = 0, .calls = "map 0 -1 0|"},
      {.size = 1000, .alloc = -1, .flag = 0, .conf = "result FS_SetFileSizes 400",
       .result = 0, .calls = "map 0 -1 0|size 1000 -1|"},
      {.size = -1, .alloc = 4096, .flag = 0, .conf = "",
       .result = 0, .calls = "map 0 -1 0|size -1 4096|map 0 -1 2|"},
      {.size = -1, .alloc = 4096, .flag = 2, .conf = "result FS_SetFileSizes 1",
       .result = 0, .calls = "map 0 -1 2|size -1 4096|map 0 -1 2|"},
      {.size = -1, .alloc = -1, .flag = 0, .conf = "result FS_GetLockedMap 1",
       .result = 1, .calls = "map 0 -1 0|"},
      {.size = -1, .alloc = -1, .flag = 8, .conf = "", .result = 0, .calls = "map 0 -1 8|unlock|"},
      {.size = -1, .alloc = -1, .flag = 0, .conf = "result FS_GetLockedMap 12",
       .result = 12, .calls = "map 0 -1 0|unlock|"},
      {.size = 5, .alloc = -1, .flag = 0, .conf = "result FS_SetFileSizes 7",
       .result = 7, .calls = "map 0 -1 0|size 5 -1|unlock|"},
      {.size = -1, .alloc = 4096, .flag = 0, .conf = "result FS_GetLockedMap 0 9",
       .result = 9, .calls = "map 0 -1 0|size -1 4096|map 0 -1 2|unlock|"}};
  TestFs fs = Serve("");
  for (const Row& row : rows) {
    fs.Configure(kFile + row.conf + "\n");
    fs.ClearCalls();
    Restart();
    const client::MapReply open = Open("f", {row.size, row.alloc, 0, 1, row.flag});
    const bool delivered = row.result == 0 || row.result == 1;
    const bool held = delivered && row.flag != 8;
    // Length 160 + msgLen 80 + 4: the first extent's bytes also read as a 1-unit text.
    EXPECT_EQ(std::tuple(open.result, MapCalls(fs), open.lease >= 5000, open.volumeCookie[0],
                         open.fileCookie[5], open.header.length),
              std::tuple(row.result, row.calls, delivered, delivered ? 'v' : 0,
                         delivered ? 'f' : 0, 244u));
    // Only a lease still held can be mapped further.
    EXPECT_EQ(Result(client::MakeGetExtendedMapRequest(open.key, 0, 0)), held ? row.result : 407)
        << row.calls;
  }
}

TEST_F(GetInitialMapE2E, LibrariesAreAskedInLoadOrder) {
  TestFs a = Serve("", "liba.so"), b = Serve("", "libb.so");
  Start();
  const bool aFirst = LoadOrder().at(0) == "liba.so";
  const TestFs& first = aFirst ? a : b;
  const TestFs& second = aFirst ? b : a;
  const Bytes open = MakeGetInitialMapRequest("data", "f");
  for (auto [one, two, result] : {std::tuple{-380, 12, 405}, {12, -380, -380}}) {
    first.Configure("miss FS_GetCookies " + std::to_string(one) + "\n");
    second.Configure("miss FS_GetCookies " + std::to_string(two) + "\n");
    EXPECT_EQ(Result(open), result);  // only the last library's answer counts
  }
  // A volume cookie a refusing library left behind reaches no later call.
  first.Configure("misscookie vol-x\n");
  second.Configure("file /export/data/f - file-f\n");
  EXPECT_EQ(Result(open), 0);
  EXPECT_EQ(second.Calls("FS_GetLockedMap").at(0).Get("vol"), "");
}

TEST_F(GetInitialMapE2E, TheFileNameIsJoinedToTheSharePath) {
  TestFs fs = Serve("");
  Start();
  for (auto [separator, name, path] :
       {std::tuple{u'/', "a/b", "/export/data/a/b"}, {u'/', "/a", "/export/data/a"},
        {u'\\', "a\\b", "/export/data/a/b"}, {u'\0', "x", "/export/datax"}}) {
    Send(MakeGetInitialMapRequest("data", name, {-1, -1, 0, 1, 0, separator}));
    EXPECT_EQ(fs.Calls("FS_GetCookies").back().Get("path"), path);
  }
}

TEST_F(GetInitialMapE2E, SameRequestAgainRenewsItsOwnLease) {
  TestFs fs = Serve(kFile);
  Start();
  const Bytes request = MakeGetInitialMapRequest("data", "f");  // its message ID stays 0
  const uint32_t key = client::ParseMapReply(Ask(request))->key;
  EXPECT_EQ(client::ParseMapReply(Ask(request))->key, key);
  EXPECT_EQ(Open("f").key, key + 1);  // the repeat raised no key
  EXPECT_EQ(fs.CountCalls("FS_GetLockedMap"), 3);
}

// The large reply buffers are used again; none of an earlier reply's bytes reach a later one.
TEST_F(GetInitialMapE2E, ALaterReplyCarriesNoBytesOfAnEarlierOne) {
  const std::string file = "file /export/data/f vol-a file-f\nmap.extentType 1\n";
  TestFs fs = Serve(file + "map.nExtents 400\n");
  Start({"-l", "2"});
  // 400 extents of 32 bytes: the map reaches far into the buffer.
  ASSERT_EQ(Open("f").map.extents.size(), 400u);
  // Now the library writes only the map's fixed part but claims as many
  // bytes; what it did not write reads as zero, not as the earlier extents.
  fs.Configure(file + "map.nExtents 0\nmap.msgLen 12864\n");
  const Bytes reply = Send(client::MakeGetInitialMapRequest("data", "f"));
  ASSERT_EQ(reply.size(), 160u + 12864 + 2);
  EXPECT_EQ(std::count(reply.begin() + 160 + 64, reply.end(), 0),
            static_cast<std::ptrdiff_t>(reply.size() - 224));
}

TEST_F(GetExtendedMapE2E, EachRequestIsAnsweredWithTheLibrarysMapAndLease) {
  // size is the request's new file size (-1: unchanged), start and length the
  // range asked for; lease is the renewal expected, replyLength in bytes.
  struct Row {
    int64_t size, start, length;
    const char* conf;
    int result;
    const char* calls;
    uint32_t lease, replyLength;
  };
  const Row rows[] = {
      {.size = -1, .start = 8192, .length = 0, .conf = "", .result = 0,  // read rules, to the end
       .calls = "map 8192 -1 4|", .lease = 5000, .replyLength = 244},
      {.size = 100, .start = 0, .length = 4096, .conf = "", .result = 0,
       .calls = "size 100 -1|map 0 4096 4|", .lease = 3600000, .replyLength = 244},
      {.size = 5, .start = 0, .length = 0, .conf = "result FS_SetFileSizes 7", .result = 7,
       .calls = "size 5 -1|", .lease = 0, .replyLength = 162},
      {.size = -1, .start = 0, .length = 0, .conf = "result FS_GetLockedMap 12", .result = 12,
       .calls = "map 0 -1 4|", .lease = 0, .replyLength = 244},
      {.size = -1, .start = 0, .length = 0, .conf = "map.msgLen 70000", .result = 0,
       .calls = "map 0 -1 4|", .lease = 5000, .replyLength = 65507},  // one datagram at most
      {.size = -1, .start = 0, .length = 0, .conf = "map.msgLen -100000", .result = 0,
       .calls = "map 0 -1 4|", .lease = 5000, .replyLength = 162},  // the fixed part only
      {.size = -1, .start = 0, .length = 0, .conf = "map.msgLen 70000\nresult FS_GetLockedMap 1",
       .result = 1, .calls = "map 0 -1 4|", .lease = 0, .replyLength = 184}};
  TestFs fs = Serve(kFile);
  Start();
  for (const Row& row : rows) {
    fs.Configure(kFile);
    const uint32_t key = Open("f", {-1, -1, 0, 0}).key;  // a write lease
    fs.Configure(kFile + row.conf + "\n");
    fs.ClearCalls();
    Bytes request =
        client::MakeGetExtendedMapRequest(key, row.start, row.length, 0, row.size, -1, 4);
    client::HeaderOf(request)->revision = 77;  // echoed in the reply
    client::HeaderOf(request)->result = 9;     // cleared in the reply
    const Bytes bytes = Send(request);
    const client::MapReply r = client::ParseMapReply(bytes).value();
    EXPECT_EQ(std::tuple(r.result, MapCalls(fs), r.lease - row.lease < 1000, bytes.size(),
                         r.header.revision, r.header.result),
              std::tuple(row.result, row.calls, true, size_t{row.replyLength},
                         bytes.size() == 184 ? 230 : 77, 0));
  }
  const Bytes unknown = Send(client::MakeGetExtendedMapRequest(999, 0, 0));
  EXPECT_EQ(std::tuple(client::Read<int32_t>(unknown, 48), unknown.size()), std::tuple(407, 184u));
}

// The lease runs from when the client gets the reply: the time the library
// spent on the map is added to the 5000 ms a read lease gets. The daemon's
// clock counts whole seconds, so a map taking 1.1 s adds 1 or 2 of them.
TEST_F(GetExtendedMapE2E, TheLibrarysTimeIsAddedToTheRenewedLease) {
  constexpr uint32_t kReadLeaseMs = 5000, kMapDelayMs = 1100;
  TestFs fs = Serve(kFile);
  Start();
  const uint32_t key = Open("f").key;
  fs.Configure(kFile + "delay.map " + std::to_string(kMapDelayMs) + "\n");
  const Bytes bytes = Send(client::MakeGetExtendedMapRequest(key, 0, 0));
  const client::MapReply reply = client::ParseMapReply(bytes).value();
  EXPECT_EQ(reply.result, 0);
  EXPECT_GE(reply.lease, kReadLeaseMs + 1000);
  EXPECT_LE(reply.lease, kReadLeaseMs + 2000);
}

// SIGUSR1 asks the running daemon for its state: the lease list with the
// key of the one open file, the duplicate counters, the counts line.
TEST_F(LeaseE2E, SigusrOneDumpsTheLeasesAndCounters) {
  Serve(kFile);
  Start();
  const uint32_t key = Open("f").key;
  ASSERT_EQ(kill(daemon_.pid(), SIGUSR1), 0);
  ASSERT_TRUE(daemon_.WaitForLog("Print State: leases 1, ")) << daemon_.Log();
  const std::string log = daemon_.Log();
  char keyLine[32];
  std::snprintf(keyLine, sizeof keyLine, "  key: 0x%x\n", key);
  EXPECT_NE(log.find(keyLine), std::string::npos) << log;
  EXPECT_NE(log.find("Print Number of duplicate messages responded to: 0\n"), std::string::npos);
  EXPECT_NE(log.find("Print Number of duplicate messages dropped:      0\n"), std::string::npos);
}

TEST_F(SetSizeE2E, TheNewSizeReachesTheLibraryWithTheLeaseRenewed) {
  // intention 1 opens for reading, 0 for writing; lease is what SetSize asks for.
  const struct {
    uint32_t intention, lease;
    const char* conf;
    int result;
    uint32_t granted;
  } rows[] = {
      {.intention = 1, .lease = 0, .conf = "", .result = 0, .granted = 5000},  // read rules kept
      {.intention = 1, .lease = 0, .conf = "maxlease.read 2", .result = 0,
       .granted = 2000},  // capped by the library's maximum
      {.intention = 0, .lease = 7000, .conf = "", .result = 0, .granted = 7000},
      {.intention = 0, .lease = 0, .conf = "result FS_SetFileSizes 400", .result = 400,
       .granted = 0}};  // passed on as it is
  TestFs fs = Serve(kFile);
  Start();
  for (const auto& row : rows) {
    fs.Configure(kFile + row.conf + "\n");
    const uint32_t key = Open("f", {-1, -1, 0, row.intention}).key;
    fs.ClearCalls();
    const auto r =
        client::ParseStatusReply(Send(client::MakeSetSizeRequest(key, 5000, row.lease)));
    const CallRecord size = fs.Calls("FS_SetFileSizes").at(0);
    EXPECT_EQ(
        std::tuple(r->result, r->lease, size.Get("size"), size.Int("alloc"), size.Int("last")),
        std::tuple(row.result, row.granted, "5000", -1, -1));
  }
  const Bytes unknown = Send(client::MakeSetSizeRequest(999, 1));
  EXPECT_EQ(std::tuple(client::Read<int32_t>(unknown, 48), unknown.size()), std::tuple(407, 72u));
}

TEST_F(CloseE2E, EndsTheLeaseAfterSettingTheFinalSize) {
  TestFs fs = Serve(kFile);
  Start();
  for (auto [size, conf, result, calls] :
       {std::tuple{-1, "", 0, "unlock|"},
        {5000, "result FS_SetFileSizes 400", 0, "size 5000 5000|unlock|"},
        {5000, "result FS_SetFileSizes 7", 7, "size 5000 5000|unlock|"}}) {  // removed all the same
    const uint32_t key = Open("f").key;
    fs.Configure(kFile + conf + "\n");
    fs.ClearCalls();
    EXPECT_EQ(Result(client::MakeCloseRequest(key, size)), result);
    EXPECT_EQ(Result(client::MakeCloseRequest(key, size)), 407);
    EXPECT_EQ(MapCalls(fs), calls);
  }
}

// Two clients on one file: the map stays locked until the second closes.
TEST_F(CloseE2E, TheMapStaysLockedUntilTheLastLeaseCloses) {
  TestFs fs = Serve(kFile);
  Start();
  const uint32_t first = Open("f").key, second = Open("f").key;
  fs.ClearCalls();
  EXPECT_EQ(Result(client::MakeCloseRequest(first)), 0);
  EXPECT_EQ(MapCalls(fs), "");
  EXPECT_EQ(Result(client::MakeCloseRequest(second)), 0);
  EXPECT_EQ(MapCalls(fs), "unlock|");
}

const std::string kFiles = kFile + "file /export/data/g vol-a file-g\n";

TEST_F(LeaseE2E, PurgedLeasesUnlockEachFileOnce) {
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
