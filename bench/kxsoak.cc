// kxsoak: runs the real daemon (-s 0 -t 10, the testfs plug-in serving
// /vol/a through the share "data") under 8 client threads for a bounded time,
// then checks that it is alive and answering, holds no lease, keeps its
// tracker within the bound and its allocator total at the idle value.
//
//   kxsoak KESTRIXD TESTFS_PLUGIN [SECONDS [THREADS]]
//
// Each thread repeats full cycles on a file of its own and on one shared by
// all: open (GetInitialMap), map (GetExtendedMap), resize (SetSize), close,
// resending requests with and without the duplicate flag, and in between
// sends string commands and garbage datagrams. The daemon's state comes
// from its log: SIGUSR1 makes it write a "State:" line. Exit status 0 when
// every check holds, 1 otherwise (each failure is printed).
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client/kxclient.h"
#include "spmsgs.h"

namespace {

namespace fs = std::filesystem;
using kestrix::client::Bytes;
using Clock = std::chrono::steady_clock;
namespace client = kestrix::client;

constexpr int kBound = 100;          // the daemon's tracker bound (-m)
constexpr int kReplyTimeoutMs = 2000;
constexpr int kNoReply = -1000000;   // Exchange's result when nothing came back

std::atomic<long> g_requests{0}, g_unexpected{0}, g_lost{0}, g_cycles{0};
std::atomic<bool> g_stop{false};
int g_failures = 0;

void Fail(const std::string& what) {
  std::fprintf(stderr, "kxsoak: FAILED: %s\n", what.c_str());
  ++g_failures;
}

std::string Read(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// One client: its own socket, replies matched to requests by message ID.
class Client {
 public:
  Client(uint16_t port, int id) : endpoint_("127.0.0.1", port), id_(id), random_(id) {}

  // Sends the request with a fresh message ID (flags bit 0 when tracked) and
  // returns the reply's result, resending the same datagram when the reply
  // is lost. *reply receives the reply.
  int Exchange(Bytes& request, bool tracked, Bytes* reply = nullptr) {
    char text[32] = {};  // "client-sequence", its first 16 bytes the ID
    std::snprintf(text, sizeof text, "%d-%ld", id_, ++sequence_);
    std::memcpy(request.data() + 8, text, LAN_MSGID_SIZE);
    client::HeaderOf(request)->flags = tracked ? LAN_FLAG_TRACK : 0;
    retried_ = false;
    for (int attempt = 0; attempt < 3; ++attempt, retried_ = true) {
      int result = Resend(request, reply);
      if (result != kNoReply) return result;
      ++g_lost;
    }
    return kNoReply;
  }

  // The same datagram again; the reply's result (byte 48) or kNoReply.
  int Resend(const Bytes& request, Bytes* reply = nullptr) {
    ++g_requests;
    endpoint_.Send(request);
    const auto deadline = Clock::now() + std::chrono::milliseconds(kReplyTimeoutMs);
    while (Clock::now() < deadline) {
      auto got = endpoint_.Receive(kReplyTimeoutMs);
      if (!got) break;
      auto header = client::ParseHeader(*got);
      // Replies to earlier garbage or to lost copies are passed over.
      if (!header || std::memcmp(header->messageID.data(), request.data() + 8, LAN_MSGID_SIZE) != 0)
        continue;
      if (reply != nullptr) *reply = *got;
      return got->size() >= 52 ? client::Read<int32_t>(*got, 48) : header->result;
    }
    return kNoReply;
  }

  void Expect(int result, std::initializer_list<int> wanted, const char* what) {
    for (int w : wanted)
      if (result == w) return;
    if (g_unexpected++ < 10)
      std::fprintf(stderr, "kxsoak: thread %d: %s answered %d\n", id_, what, result);
  }

  // open, map, resize, close on the file; resends along the way.
  void Cycle(const std::string& file) {
    const bool tracked = random_() % 2 == 0;
    client::OpenOptions options;
    options.intention = 2;
    Bytes open = client::MakeGetInitialMapRequest("data", file, options);
    Bytes reply;
    Expect(Exchange(open, tracked, &reply), {0}, "open");
    auto map = client::ParseMapReply(reply);
    if (!map || map->result != 0) return;
    const uint32_t key = map->key;
    // A resend, tracked or not, names the same lease.
    Bytes again;
    if (Resend(open, &again) == 0) {
      auto second = client::ParseMapReply(again);
      if (!second || second->key != key) Expect(-1, {}, "resent open (another key)");
    }
    Bytes extend = client::MakeGetExtendedMapRequest(key, 4096 * (random_() % 64), 65536, 2000);
    Expect(Exchange(extend, tracked), {0}, "map");
    Bytes resize = client::MakeSetSizeRequest(key, 4096 + random_() % 1000000, 2000);
    Expect(Exchange(resize, tracked), {0}, "resize");
    Expect(Resend(resize), {0}, "resent resize");
    Bytes close = client::MakeCloseRequest(key, random_() % 4 == 0 ? 8192 : -1);
    const int closed = Exchange(close, tracked);
    // An untracked close whose reply was lost finds its key gone the second time.
    Expect(closed, {0, retried_ && !tracked ? SP_RESULT_KEY_NOT_FOUND : 0}, "close");
    // Tracked: the stored reply, unless a hundred newer answers pushed it
    // out of the tracker first (a client thread can wait that long for the
    // CPU); untracked: the key is gone by now.
    Expect(Resend(close), {tracked ? 0 : SP_RESULT_KEY_NOT_FOUND, SP_RESULT_KEY_NOT_FOUND},
           "resent close");
  }

  void Noise(const std::string& logFile) {
    Bytes command = random_() % 2 ? client::MakeStringCommandRequest("LOG|2|" + logFile)
                                  : client::MakeStringCommandRequest("STATUS please");
    Expect(Exchange(command, random_() % 2 == 0), {0}, "string command");
    // Garbage: random bytes, sometimes behind a valid marker and length.
    Bytes junk(1 + random_() % 3000);
    for (auto& b : junk) b = static_cast<uint8_t>(random_());
    if (junk.size() >= LAN_HEADER_SIZE && random_() % 2) {
      client::HeaderOf(junk)->byteOrder = LAN_BYTEORDER_MARK;
      client::HeaderOf(junk)->length = static_cast<uint32_t>(junk.size());
      client::HeaderOf(junk)->functionCode = static_cast<int32_t>(random_() % 10);
    }
    ++g_requests;
    endpoint_.Send(junk);
  }

 private:
  client::Endpoint endpoint_;
  int id_;
  long sequence_ = 0;
  bool retried_ = false;
  std::mt19937 random_;
};

struct Daemon {
  pid_t pid = -1;
  fs::path log;

  // The "State:" line SIGUSR1 makes the daemon write, as numbers:
  // leases, answered, in process, allocator total; empty when none came.
  std::vector<long> State() {
    const size_t before = Read(log).size();
    kill(pid, SIGUSR1);
    for (int i = 0; i < 200; ++i) {
      std::string text = Read(log).substr(before);
      size_t at = text.find("State: leases ");
      if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
        long leases, answered, inProcess, bound, total;
        if (std::sscanf(text.c_str() + at,
                        "State: leases %ld, tracker %ld answered %ld in process (bound %ld), "
                        "allocator total %ld",
                        &leases, &answered, &inProcess, &bound, &total) == 5)
          return {leases, answered, inProcess, total};
      }
      usleep(10000);
    }
    return {};
  }
};

// Fills the tracker with answered header-only requests until exactly
// bound - 1 of them remain (a purge leaves that many), all of one size, so
// that two states can be compared; then the state.
std::vector<long> SettledState(Daemon& daemon, Client& client) {
  for (int i = 0; i < kBound + 2; ++i) {
    Bytes flush = client::MakeRequest(9, LAN_HEADER_SIZE);
    client.Exchange(flush, true);
  }
  // A listener frees a reply only after sending it: let the last go first.
  usleep(200000);
  std::vector<long> state = daemon.State();
  if (!state.empty() && state[1] == kBound) {
    Bytes flush = client::MakeRequest(9, LAN_HEADER_SIZE);
    client.Exchange(flush, true);
    usleep(200000);
    state = daemon.State();
  }
  return state;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s KESTRIXD TESTFS_PLUGIN [SECONDS [THREADS]]\n", argv[0]);
    return 2;
  }
  const int seconds = argc > 3 ? std::atoi(argv[3]) : 120;
  const int threads = argc > 4 ? std::atoi(argv[4]) : 8;
  char pattern[] = "/tmp/kxsoak-XXXXXX";
  const fs::path dir = fs::canonical(mkdtemp(pattern));
  fs::create_directories(dir / "lib");
  fs::create_directories(dir / "steer");
  fs::copy_file(argv[2], dir / "lib" / "liba.so");
  std::ofstream(dir / "smb.conf") << "[data]\n   path = /vol/a\n";
  std::ostringstream conf;
  conf << "volume /vol/a VOLA\nfile /vol/a/shared VOLA SHARED\nmap.nExtents 4\n";
  for (int t = 0; t < threads; ++t) conf << "file /vol/a/t" << t << " VOLA T" << t << "\n";
  std::ofstream(dir / "steer" / "liba.so.conf") << conf.str();

  const uint16_t port = client::FreeLoopbackPort();
  Daemon daemon;
  daemon.log = dir / "kestrixd.log";
  daemon.pid = fork();
  if (daemon.pid == 0) {
    setenv("KESTRIX_LIBDIR", (dir / "lib").c_str(), 1);
    setenv("KESTRIX_TESTFS_DIR", (dir / "steer").c_str(), 1);
    setenv("KESTRIX_SMBPATH", (dir / "smb.conf").c_str(), 1);
    setenv("KESTRIX_LOG_DIR", dir.c_str(), 1);
    setenv("KESTRIX_PORT", std::to_string(port).c_str(), 1);
    setenv("KESTRIX_ADMIN_SOCKET", (dir / "admin.sock").c_str(), 1);  // counting on, as in service
    freopen((dir / "stderr.txt").c_str(), "w", stderr);
    freopen((dir / "stdout.txt").c_str(), "w", stdout);
    execl(argv[1], argv[1], "-d", "-s", "0", "-t", "10", "-m", std::to_string(kBound).c_str(),
          "-f", daemon.log.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 500 && Read(daemon.log).find("kestrixd started") == std::string::npos; ++i)
    usleep(20000);

  Client control(port, 1000);
  control.Cycle("shared");  // the volume is known from now on
  const std::vector<long> idle = SettledState(daemon, control);
  if (idle.empty()) Fail("the daemon wrote no state line at start (see " + dir.string() + ")");

  std::printf("kxsoak: %d threads for %d s against %s\n", threads, seconds, argv[1]);
  std::vector<std::thread> clients;
  for (int t = 0; t < threads; ++t) {
    clients.emplace_back([&, t] {
      Client c(port, t);
      const std::string own = std::string("t").append(std::to_string(t));
      for (long n = 0; !g_stop; ++n) {
        c.Cycle(n % 2 ? own : "shared");
        ++g_cycles;
        if (n % 4 == 0) c.Noise(daemon.log.string());
      }
    });
  }
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  while (Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    fs::remove(dir / "steer" / "liba.so.calls");  // the plug-in's call records grow
  }
  g_stop = true;
  for (auto& t : clients) t.join();

  const std::vector<long> after = SettledState(daemon, control);
  Bytes probe = client::MakeGetVolumeRequest("data");
  if (kill(daemon.pid, 0) != 0 || control.Exchange(probe, false) != 0)
    Fail("the daemon is not alive and answering");
  if (after.empty()) {
    Fail("the daemon wrote no state line at the end");
  } else if (!idle.empty()) {
    if (after[0] != 0) Fail(std::to_string(after[0]) + " leases left");
    if (after[1] > kBound || after[2] != 0)
      Fail("tracker " + std::to_string(after[1]) + " answered, " + std::to_string(after[2]) +
           " in process");
    if (after[3] != idle[3])
      Fail("allocator total " + std::to_string(after[3]) + ", idle " + std::to_string(idle[3]));
  }
  const std::string errors = Read(dir / "stderr.txt");
  if (errors.find("ThreadSanitizer") != std::string::npos ||
      errors.find("AddressSanitizer") != std::string::npos)
    Fail("sanitizer report:\n" + errors.substr(0, 4000));
  if (g_unexpected > 0) Fail(std::to_string(g_unexpected.load()) + " unexpected results");

  std::printf("kxsoak: %ld cycles, %ld datagrams (%.0f/s), %ld replies lost and resent\n",
              g_cycles.load(), g_requests.load(), g_requests.load() / double(seconds),
              g_lost.load());
  if (!after.empty())
    std::printf("kxsoak: leases %ld, tracker %ld answered %ld in process, allocator %ld (idle %ld)\n",
                after[0], after[1], after[2], after[3], idle.empty() ? -1 : idle[3]);
  kill(daemon.pid, SIGKILL);
  waitpid(daemon.pid, nullptr, 0);
  if (g_failures == 0) fs::remove_all(dir);
  else std::fprintf(stderr, "kxsoak: the daemon's files are kept in %s\n", dir.c_str());
  return g_failures == 0 ? 0 : 1;
}
