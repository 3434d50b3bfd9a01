// kestrix-cli and the client library against the real daemon: every
// command's JSON document in both byte orders, exit statuses, and a retry
// after a lost reply that does not run the request twice.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

#include "client/kxsession.h"
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using Json = std::map<std::string, std::string>;

class KxCliE2E : public MapE2E {
 protected:
  std::pair<int, Json> Cli(std::vector<std::string> args) {
    args.insert(args.begin(), {"--json", "-p", std::to_string(daemon_.port())});
    RunResult r = RunToExit(KESTRIX_CLI, args, {});
    return {r.exitStatus, FlatJson(r.standardOutput)};
  }
};

TEST_F(KxCliE2E, EveryCommandGivesTheSameJsonInEitherByteOrder) {
  Serve("volume /export/data vol-a\nfile /export/data/f vol-a file-f\n"
        "map.extentType 1\nmap.nExtents 2\n");
  Start();
  const std::vector<std::pair<std::vector<std::string>, int>> commands = {
      {{"getvolume", "data"}, 0},
      {{"getvolume", "nosuch"}, 3},
      {{"getvolume-cookie", "766f6c2d61"}, 0},  // "vol-a"
      {{"open", "data", "f", "--write", "--size", "100"}, 0},
      {{"--lease", "5000", "map", "KEY", "65536"}, 0},
      {{"setsize", "KEY", "100000"}, 0},
      {{"close", "KEY"}, 0},
      {{"close", "KEY"}, 3},
      {{"raw", "9"}, 0},
      {{"log", "4", "SCREEN"}, 0},
      {{"cmd", "HELLO"}, 0},
      {{"-h", "127.0.0.2", "getvolume", "data"}, 0}};  // answered from the address asked
  std::vector<Json> docs[2];
  for (int swapped : {0, 1}) {
    if (swapped) Restart();  // the same calls again; keys start elsewhere
    Fs("liba.so").ClearCalls();
    std::string key;  // the open's, for the commands that name it
    for (auto [args, status] : commands) {
      if (swapped) args.push_back("--swapped");
      std::replace(args.begin(), args.end(), std::string("KEY"), key);
      auto [exitStatus, json] = Cli(args);
      EXPECT_EQ(exitStatus, status) << args[0] << " " << swapped;
      EXPECT_FALSE(json.empty()) << args[0];
      if (args[0] == "open") key = json["/key"];
      json.erase("/messageID");
      json.erase("/key");
      docs[swapped].push_back(json);
    }
    EXPECT_EQ(MapCalls(Fs("liba.so")),
              "map 0 -1 0|size 100 -1|map 65536 -1 0|size 100000 -1|unlock|");
  }
  EXPECT_EQ(docs[0], docs[1]);
  std::vector<Json>& d = docs[0];
  // Spot checks of the documents, by the command that gave them.
  const Json& volume = d[0];
  EXPECT_EQ(volume.at("/nDisks"), "1");
  EXPECT_EQ(volume.at("/disks/0/IDlength"), "16");
  EXPECT_EQ(volume.at("/disks/0/nBlocks"), "100000");
  EXPECT_EQ(d[1].at("/result"), "3") << "getvolume nosuch";
  EXPECT_EQ(d[2].at("/cookie").substr(0, 10), "766f6c2d61") << "getvolume-cookie";
  const Json& open = d[3];
  EXPECT_EQ(open.at("/extents/1/logical"), "65536");
  EXPECT_EQ(open.at("/extents/1/kind"), "data");
  const Json& map = d[4];
  EXPECT_EQ(map.at("/result"), "0");
  EXPECT_EQ(map.at("/lease"), "5000");
  EXPECT_EQ(map.at("/nExtents"), "2");
  const Json& secondClose = d[7];
  EXPECT_EQ(secondClose.at("/result"), "407");
  EXPECT_EQ(secondClose.at("/resultName"), "no lease with that key");
  EXPECT_EQ(d[8].at("/result"), "8") << "raw 9";
  EXPECT_EQ(d[8].at("/functionCode"), "-9") << "raw 9";
  // A library's text with a lone surrogate: still one valid document.
  Fs("liba.so").Configure(
      "volume /export/data vol-a\nvol.vendorStatus 7\nvol.error \xed\xa0\x80!\n");
  EXPECT_EQ(Cli({"getvolume", "data"}).second["/error"], "\uFFFD!");
}

// A port nobody holds is refused at once, not after the 2 x 30 s the
// time-outs allow (RunToExit gives up after 20 s); a socket that never
// answers is waited out. Both exit with status 2.
TEST_F(KxCliE2E, NoDaemonIsReportedWithStatus2) {
  int silent = socket(AF_INET, SOCK_DGRAM, 0);  // bound, never answers
  sockaddr_in at{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof at;
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
  ASSERT_EQ(getsockname(silent, reinterpret_cast<sockaddr*>(&at), &length), 0);
  for (auto [port, wait, error] : {std::tuple{FreeLoopbackPort(), "30000", ": connection refused"},
                                   {ntohs(at.sin_port), "100", "after 2 attempts"}}) {
    RunResult r = RunToExit(
        KESTRIX_CLI,
        {"getvolume", "data", "--json", "-p", std::to_string(port), "-t", wait, "-r", "1"}, {});
    EXPECT_EQ(r.exitStatus, 2);
    EXPECT_NE(FlatJson(r.standardOutput)["/error"].find(error), std::string::npos)
        << r.standardOutput;
  }
  close(silent);
}

// Help per command on standard output; a mistake named on standard error
// above the usage of the command it concerns; a command's name as an
// argument is an argument.
TEST_F(KxCliE2E, UsageMistakesAreNamedAboveTheUsage) {
  Serve("volume /export/data vol-a\n");
  Start();
  struct Row {
    std::vector<std::string> args;
    int status;
    std::string out, err;
  };
  const std::string port = std::to_string(daemon_.port());
  for (const Row& row :
       {Row{{"map", "--help"}, 0, "Usage: kestrix-cli map [OPTIONS] KEY [START] [LENGTH]", ""},
        Row{{"--help"}, 0, "  getvolume SHARE_OR_PATH ", ""},
        Row{{"--port", "0", "getvolume", "data"}, 1, "", "bad number '0'"},
        Row{{"--size", "x", "close", "1"}, 1, "", "Usage: kestrix-cli close"},
        Row{{"open", "data", "f", "--disk", "/dev/null"}, 1, "", "'open' takes no --disk option"},
        Row{{"getvolume"}, 1, "", ""},
        Row{{"getvolume", "a", "b"}, 1, "", "unexpected argument 'b'"},
        Row{{"frobnicate"}, 1, "", "unknown command frobnicate"},
        Row{{"-p", port, "getvolume", "open"}, 3, "", ""}}) {
    RunResult r = RunToExit(KESTRIX_CLI, row.args, {});
    EXPECT_EQ(r.exitStatus, row.status) << row.args[0] << r.standardError;
    if (!row.out.empty()) {
      EXPECT_NE(r.standardOutput.find(row.out), std::string::npos) << r.standardOutput;
    }
    if (!row.err.empty()) {
      EXPECT_NE(r.standardError.find(row.err), std::string::npos) << r.standardError;
    }
  }
}

// Through a relay that forwards datagrams both ways but loses the first reply.
TEST_F(KxCliE2E, ARetryAfterALostReplyGetsTheStoredReply) {
  Serve("volume /export/data vol-a\nfile /export/data/f vol-a file-f\n");
  Start();
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in relay{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}}, client{}, from{};
  const sockaddr_in daemon{AF_INET, htons(daemon_.port()), {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t n = sizeof relay;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&relay), n), 0);
  getsockname(fd, reinterpret_cast<sockaddr*>(&relay), &n);
  std::atomic<bool> stop{false};
  std::vector<Bytes> requests;  // read after the join
  std::thread forward([&] {
    for (bool dropped = false; !stop;) {
      pollfd p{fd, POLLIN, 0};
      Bytes b(65536);
      socklen_t len = sizeof from;
      ssize_t got = poll(&p, 1, 50) > 0 ? recvfrom(fd, b.data(), b.size(), 0,
                                                   reinterpret_cast<sockaddr*>(&from), &len)
                                        : -1;
      if (got < 0) continue;
      b.resize(static_cast<size_t>(got));
      const bool reply = from.sin_port == daemon.sin_port;
      if (!reply) client = from, requests.push_back(b);
      if (reply && !std::exchange(dropped, true)) continue;
      sendto(fd, b.data(), b.size(), 0,
             reinterpret_cast<const sockaddr*>(reply ? &client : &daemon), sizeof from);
    }
  });
  // A time-out well above the handler's time, even under the sanitizers.
  client::Client c({.port = ntohs(relay.sin_port), .timeoutMs = 1000});
  std::optional<client::MapReply> m = c.Open("data", "f");
  stop = true;
  forward.join();
  close(fd);
  ASSERT_TRUE(m.has_value()) << c.error();
  EXPECT_EQ(std::tuple(m->result, c.attempts()), std::tuple(0, 2));
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0], requests[1]);  // the same message ID, flags included
  EXPECT_EQ(client::HeaderOf(requests[1])->flags & LAN_FLAG_TRACK, 1u);
  EXPECT_EQ(MapCalls(Fs("liba.so")), "map 0 -1 0|");  // the handler ran once
  EXPECT_TRUE(daemon_.WaitForLog("Found duplicate message")) << daemon_.Log();
}

}  // namespace
}  // namespace kestrix::test
