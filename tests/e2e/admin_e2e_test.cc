// The operator's view end to end: kestrix-cli admin against the daemon's
// admin socket (listing, revocation, refusals), the metrics endpoint read
// with a Prometheus text parser, and readiness on a notify socket.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <thread>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::MakeCloseRequest;
using client::MakeGetExtendedMapRequest;
using client::MakeGetInitialMapRequest;

const std::string kFiles =
    "file /export/data/a vol-a file-a\nfile /export/data/b vol-a file-b\n"
    "file /export/data/c vol-a file-c\n";

// A Unix socket of the given type at path: bound for a datagram socket,
// connected for a stream socket; -1 on failure.
int UnixSocket(int type, const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  auto* address = reinterpret_cast<sockaddr*>(&a);
  const bool ok =
      type == SOCK_DGRAM ? bind(fd, address, sizeof a) == 0 : connect(fd, address, sizeof a) == 0;
  if (!ok) close(fd);
  return ok ? fd : -1;
}

// What arrives on fd within timeoutMs: one datagram, or a stream until the peer closes.
std::string ReceiveText(int fd, int timeoutMs, bool stream = true) {
  std::string text;
  char buffer[4096];
  pollfd p{fd, POLLIN, 0};
  while (poll(&p, 1, timeoutMs) == 1) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
    if (!stream) break;
  }
  return text;
}

class AdminE2E : public MapE2E {
 protected:
  void SetUp() override {
    MapE2E::SetUp();
    daemon_.SetEnv("KESTRIX_ADMIN_SOCKET", socket_);
    fs_ = std::make_unique<TestFs>(Serve(kFiles));
  }
  RunResult Cli(std::vector<std::string> args, const std::string& user = "") {
    args.insert(args.begin(), {"admin"});
    args.insert(args.end(), {"--socket", socket_});
    if (user.empty()) return RunToExit(KESTRIX_CLI, args, {});
    args.insert(args.begin(),
                {"--reuid=" + user, "--regid=nogroup", "--clear-groups", KESTRIX_CLI});
    return RunToExit("/usr/bin/setpriv", args, {});
  }
  // The leases as "KEY CLIENT PATH INTENTION" lines, sorted.
  std::set<std::string> Leases() {
    std::set<std::string> out;
    const nlohmann::json doc =
        nlohmann::json::parse(Cli({"leases", "--json"}).standardOutput, nullptr, false);
    if (doc.is_discarded() || !doc.contains("leases")) return {"unreadable"};
    for (const auto& l : doc["leases"])
      out.insert(std::to_string(l["key"].get<uint32_t>()) + " " + l["client"].get<std::string>() +
                 " " + l["path"].get<std::string>() + " " + l["intention"].get<std::string>());
    return out;
  }
  int Unlocks() const { return CountOf(MapCalls(*fs_), "unlock|"); }

  std::string socket_ = daemon_.dir().File("admin.sock");
  std::unique_ptr<TestFs> fs_;
};

std::string Key(uint32_t key) { return std::to_string(key); }
std::string HexKey(uint32_t key) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", key);
  return text;
}

TEST_F(AdminE2E, LeasesListedAndRevokedByKeyClientAndPath) {
  Start();
  // Close takes a lease off the list.
  const uint32_t closed = Open("a").key;
  EXPECT_EQ(Leases(), std::set<std::string>{Key(closed) + " 127.0.0.1 /export/data/a read"});
  EXPECT_EQ(Result(MakeCloseRequest(closed)), 0);
  EXPECT_EQ(Leases(), std::set<std::string>{});

  // File a is held by two clients: only the last lease to go unlocks it.
  const uint32_t a1 = Open("a").key, b1 = Open("b", {.intention = 2}).key;
  const Bytes openA2 = MakeGetInitialMapRequest("data", "a", {.intention = 2});
  const uint32_t a2 = client::ParseMapReply(AskFrom("127.0.0.2", openA2))->key;
  const uint32_t c2 =
      client::ParseMapReply(AskFrom("127.0.0.2", MakeGetInitialMapRequest("data", "c")))->key;
  EXPECT_EQ(Leases(), (std::set<std::string>{Key(a1) + " 127.0.0.1 /export/data/a read",
                                             Key(b1) + " 127.0.0.1 /export/data/b write",
                                             Key(a2) + " 127.0.0.2 /export/data/a write",
                                             Key(c2) + " 127.0.0.2 /export/data/c read"}));
  const std::string table = Cli({"leases"}).standardOutput;
  EXPECT_NE(table.find("127.0.0.2       write"), std::string::npos) << table;
  EXPECT_NE(table.find("/export/data/b"), std::string::npos) << table;

  struct Row {
    std::vector<std::string> args;
    std::set<uint32_t> revoked;  // each then answers 407 to its owner
    size_t left;
    int unlocks, exitStatus;
  };
  for (const Row& row : {Row{{"revoke", Key(a1)}, {a1}, 3, 1, 0},
                         Row{{"revoke", "--client", "127.0.0.2"}, {a2, c2}, 1, 3, 0},
                         Row{{"revoke", "--path", "/export/data/b"}, {b1}, 0, 4, 0},
                         Row{{"revoke", "--path", "/export/data/b"}, {}, 0, 4, 3}}) {
    const RunResult r = Cli(row.args);
    EXPECT_EQ(r.exitStatus, row.exitStatus) << r.standardError;
    for (uint32_t key : row.revoked) {
      EXPECT_NE(r.standardOutput.find("revoked " + HexKey(key)), std::string::npos)
          << r.standardOutput;
      const Bytes extend = MakeGetExtendedMapRequest(key, 0, 0);
      const Bytes reply = key == a2 || key == c2 ? AskFrom("127.0.0.2", extend) : Send(extend);
      EXPECT_EQ(client::Read<int32_t>(reply, 48), 407) << key;
    }
    EXPECT_EQ(Leases().size(), row.left);
    EXPECT_EQ(Unlocks(), row.unlocks) << MapCalls(*fs_);  // 1 for the Close
  }
  // The log says who revoked what.
  EXPECT_TRUE(daemon_.WaitForLog("on [/export/data/c] revoked by uid 0 pid ")) << daemon_.Log();
}

TEST_F(AdminE2E, OnlyTheDaemonsUserGetsIn) {
  if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0)
    GTEST_SKIP() << "SKIPPED: running kestrix-cli as nobody needs root and /usr/bin/setpriv";
  Start();
  const uint32_t key = Open("a").key;
  const std::set<std::string> before = Leases();
  struct stat st{};
  ASSERT_EQ(stat(socket_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  // Through the file's permissions nobody gets in; past them (widened by
  // hand here) the daemon refuses the peer by its user.
  chmod(daemon_.dir().path().c_str(), 0711);
  for (auto [mode, exitStatus, error] :
       {std::tuple{0600, 2, "Permission denied"}, {0666, 3, "permission denied"}}) {
    chmod(socket_.c_str(), mode);
    const RunResult r = Cli({"revoke", Key(key)}, "nobody");
    EXPECT_EQ(r.exitStatus, exitStatus) << r.standardError;
    EXPECT_NE(r.standardError.find(error), std::string::npos) << r.standardError;
  }
  EXPECT_EQ(Leases(), before);
  EXPECT_EQ(Unlocks(), 0);
}

// A client that says nothing holds the socket's thread, never the requests.
TEST_F(AdminE2E, ASilentClientHoldsUpNoRequest) {
  Start();
  const uint32_t key = Open("a").key;
  const int silent = UnixSocket(SOCK_STREAM, socket_);
  EXPECT_EQ(Result(MakeGetExtendedMapRequest(key, 0, 0)), 0);
  EXPECT_NE(ReceiveText(silent, 5000).find("request timed out"), std::string::npos);
  close(silent);
}

TEST_F(AdminE2E, BadRequestsAreRefusedWithNothingChanged) {
  Start();
  Open("a");
  const std::set<std::string> before = Leases();
  for (auto [request, error] :
       {std::pair{std::string("not json\n"), "malformed request"},
        {"[1,2]\n", "malformed request"},
        {"{\"command\":\"unmake\"}\n", "unknown command 'unmake'"},
        {"{\"command\":\"revoke\",\"key\":-1}\n", "bad key"},
        {"{\"command\":\"revoke\",\"key\":4294967296}\n", "bad key"},
        {"{\"command\":\"revoke\",\"key\":0,\"path\":\"/export/data/a\"}\n", "exactly one"},
        {"{\"command\":\"revoke\",\"client\":\"127.1\"}\n", "bad client address"},
        {"{\"command\":\"revoke\",\"path\":\"\"}\n", "bad path"},
        {std::string(4080, ' ') + "{\"command\":\"revoke\",\"key\":0}\n", "request too long"},
        {std::string(5000, ' ') + "{\"command\":\"revoke\",\"key\":0}\n", "request too long"}}) {
    const int fd = UnixSocket(SOCK_STREAM, socket_);
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    const nlohmann::json answer = nlohmann::json::parse(ReceiveText(fd, 5000), nullptr, false);
    close(fd);
    EXPECT_EQ(answer.value("ok", true), false) << request.substr(0, 60);
    EXPECT_NE(answer.value("error", "").find(error), std::string::npos) << answer.dump();
  }
  EXPECT_EQ(Leases(), before);
  EXPECT_EQ(Unlocks(), 0);
}

TEST_F(AdminE2E, CommandLineMistakesAreRefusedBeforeAsking) {
  for (auto [args, why] :
       {std::pair{std::vector<std::string>{"leases", "extra"}, "leases takes no arguments"},
        {{"revoke"}, "revoke takes one of KEY, --client, --path"},
        {{"revoke", "1", "--path", "/export/data/a"}, "revoke takes one of"},
        {{"revoke", "0x100000000"}, "bad key"},
        {{"revoke", ""}, "bad key"},
        {{"unmake"}, "unknown admin command unmake"},
        {{"stats", "--verbose"}, "unknown option --verbose"}}) {
    const RunResult r = Cli(args);  // no daemon: a request would find no socket (status 2)
    EXPECT_EQ(r.exitStatus, 1) << why;
    EXPECT_NE(r.standardError.find(why), std::string::npos) << r.standardError;
  }
  // Options before the command words, and help per command.
  const RunResult before = RunToExit(
      KESTRIX_CLI, {"--json", "--socket", socket_, "admin", "--path", "/x", "revoke"}, {});
  EXPECT_EQ(before.exitStatus, 2) << before.standardError;  // asked, but no daemon
  const RunResult help = RunToExit(KESTRIX_CLI, {"admin", "revoke", "--help"}, {});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.standardOutput.find("--client ADDR"), std::string::npos) << help.standardOutput;
}

// A TCP port on 127.0.0.1 that was free a moment ago.
uint16_t FreeTcpPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
  close(fd);
  return ntohs(a.sin_port);
}

TEST_F(AdminE2E, MetricsCountAKnownSequenceOfRequests) {
  if (RunToExit("/usr/bin/python3", {"-c", "import prometheus_client"}, {}).exitStatus != 0)
    GTEST_SKIP() << "SKIPPED: python3-prometheus-client is not installed (scripts/install-deps)";
  const std::string address = "127.0.0.1:" + std::to_string(FreeTcpPort());
  daemon_.SetEnv("KESTRIX_METRICS", address);
  Start();
  // Two opens (one closed, one kept), a close, an unknown key, a refused
  // header, a code without handler, and a tracked request sent twice.
  EXPECT_EQ(Result(MakeCloseRequest(Open("a").key)), 0);
  Open("b", {.intention = 2});
  EXPECT_EQ(Result(MakeGetExtendedMapRequest(99, 0, 0)), 407);
  Bytes shortHeader = client::MakeRequest(5, 48);
  client::Write<uint32_t>(shortHeader, 28, 47);
  EXPECT_EQ(client::HeaderOf(Send(shortHeader))->result, 6);
  EXPECT_EQ(client::HeaderOf(Send(client::MakeRequest(6, 48)))->result, 8);
  Bytes tracked = MakeCloseRequest(77);
  client::HeaderOf(tracked)->flags = 1;
  client::Write(tracked, 8, ++sequence_);
  EXPECT_EQ(Ask(tracked), Ask(tracked));

  // The daemon's own endpoint, read by the Prometheus client's parser.
  const RunResult parsed = RunToExit(
      "/usr/bin/python3",
      {"-c",
       "import sys, urllib.request\n"
       "from prometheus_client.parser import text_string_to_metric_families\n"
       "text = urllib.request.urlopen('http://' + sys.argv[1] + '/metrics').read().decode()\n"
       "for f in text_string_to_metric_families(text):\n"
       "  for s in f.samples:\n"
       "    print(s.name + ','.join(sorted(k + '=' + v for k, v in s.labels.items())), s.value)\n",
       address},
      {});
  ASSERT_EQ(parsed.exitStatus, 0) << parsed.standardError;
  std::map<std::string, double> samples;
  for (const std::string& line : SplitLines(parsed.standardOutput))
    samples[line.substr(0, line.rfind(' '))] = std::stod(line.substr(line.rfind(' ') + 1));
  auto prints = [&] {
    int n = 0;
    for (const std::string& line : SplitLines(daemon_.Log())) n += line.rfind("Print ", 0) == 0;
    return static_cast<double>(n);
  };
  for (auto [name, value] :
       {std::pair{"kestrix_requests_totalfunction=GetInitialMap,result=0", 2.0},
        {"kestrix_requests_totalfunction=Close,result=0", 1.0},
        {"kestrix_requests_totalfunction=Close,result=407", 2.0},  // the copy too
        {"kestrix_requests_totalfunction=GetExtendedMap,result=407", 1.0},
        {"kestrix_requests_totalfunction=other,result=8", 1.0},
        {"kestrix_request_duration_seconds_countfunction=GetInitialMap", 2.0},
        {"kestrix_request_duration_seconds_bucketfunction=Close,le=+Inf", 3.0},
        {"kestrix_duplicates_answered_total", 1.0},
        {"kestrix_duplicates_dropped_total", 0.0},
        {"kestrix_header_refused_total", 1.0},
        {"kestrix_tracker_entriesstate=answered", 1.0},
        {"kestrix_leases_openintention=read", 0.0},
        {"kestrix_leases_openintention=write", 1.0},
        {"kestrix_leases_revoked_total", 0.0},
        {"kestrix_library_calls_totalentry=FS_GetCookies", 2.0},
        {"kestrix_library_calls_totalentry=FS_UnlockMap", 1.0},
        {"kestrix_library_call_duration_seconds_countentry=FS_GetLockedMap", 2.0},
        {"kestrix_log_lines_totallevel=Print", prints()}})
    EXPECT_EQ(samples.count(name) != 0 ? samples[name] : -1, value) << name;
  EXPECT_GT(samples["kestrix_allocator_bytes"], 0);
  // Every series the Grafana dashboard asks for is served.
  const std::string dashboard = ReadFile(KESTRIX_GRAFANA_DASHBOARD);
  const std::regex series("kestrix_[a-z_]+");
  for (std::sregex_iterator m(dashboard.begin(), dashboard.end(), series), end; m != end; ++m)
    EXPECT_TRUE(std::any_of(samples.begin(), samples.end(), [&](const auto& s) {
      return s.first.rfind(m->str(), 0) == 0;
    })) << m->str();
  // The admin socket shows the same counters.
  EXPECT_NE(Cli({"stats"}).standardOutput.find("kestrix_header_refused_total 1\n"),
            std::string::npos);
}

TEST_F(AdminE2E, ReadyIsReportedOnceTheSocketServes) {
  const std::string notify = daemon_.dir().File("notify");
  const int fd = UnixSocket(SOCK_DGRAM, notify);
  ASSERT_GE(fd, 0);
  daemon_.SetEnv("NOTIFY_SOCKET", notify);
  Start();
  EXPECT_EQ(ReceiveText(fd, 5000, false), "READY=1");
  close(fd);
  EXPECT_EQ(Result(MakeGetExtendedMapRequest(5, 0, 0)), 407);
  EXPECT_NE(daemon_.Log().find("Successfully loaded library"), std::string::npos);
}

}  // namespace
}  // namespace kestrix::test
