// kxbench: a closed-loop load generator for kestrixd. It drives the daemon
// (one it starts itself, or one already running) with requests of one kind,
// then, with --echo, a minimal echo responder with the same load, and prints
// requests per second, latency percentiles, the server's CPU time per request
// and the efficiency: the echo's CPU per request divided by the daemon's.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "bench/kxbench/load.h"
#include "bench/kxbench/servers.h"
#include "client/kxclient.h"

namespace kxbench {
namespace {

const char kUsage[] =
    "usage: kxbench [options]\n"
    "  --kind K[,K...]   header | getvolume | cycle | setsize | string (default header)\n"
    "  --dup             set the duplicate flag (header flags bit 0) on every request\n"
    "  --threads N       client threads (default 2)\n"
    "  --sockets N       sockets per client thread (default 1)\n"
    "  --window N        requests in flight per socket (default 1)\n"
    "  --duration S      measured seconds (default 5), after --warmup S (default 1)\n"
    "  --hold N          keep N further leases open on the daemon while measuring\n"
    "  --echo            also run the same load against a minimal echo responder\n"
    "  --metrics         also run it against the daemon with its admin socket and\n"
    "                    metrics on, and print the cost of counting: the two\n"
    "                    alternate for --rounds N (default 3) rounds, and each\n"
    "                    keeps its round of least CPU per request\n"
    "  --json            one JSON object per kind instead of the table\n"
    "  --daemon PATH     the kestrixd to start (default: the one built beside kxbench)\n"
    "  --plugin PATH     its only filesystem plug-in (default: the built nullfs)\n"
    "  --args \"OPTS\"     daemon options, e.g. \"-t 1 -m 2000\"\n"
    "  --port P          use a daemon already running on 127.0.0.1:P instead\n"
    "  --pid PID         that daemon's process, for its CPU time\n";

struct Options {
  std::vector<Kind> kinds{Kind::kHeader};
  LoadShape shape;
  double duration = 5, warmup = 1;
  int hold = 0, rounds = 3;
  bool echo = false, json = false, metrics = false;
  std::string daemon = KXBENCH_DAEMON, plugin = KXBENCH_PLUGIN;
  std::vector<std::string> daemonArgs;
  uint16_t runningPort = 0;
  pid_t runningPid = -1;
};

bool ParseOptions(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    auto number = [&](double* out) {
      const char* v = value();
      return v != nullptr && (*out = std::atof(v)) > 0;
    };
    auto count = [&](int* out) {
      const char* v = value();
      return v != nullptr && (*out = std::atoi(v)) > 0;
    };
    bool ok = true;
    if (a == "--kind") {
      const char* v = value();
      o->kinds.clear();
      std::stringstream list(v != nullptr ? v : "");
      for (std::string name; ok && std::getline(list, name, ',');) {
        Kind k;
        ok = ParseKind(name, &k);
        o->kinds.push_back(k);
      }
      ok = ok && !o->kinds.empty();
    } else if (a == "--dup") {
      o->shape.duplicateFlag = true;
    } else if (a == "--threads") {
      ok = count(&o->shape.threads);
    } else if (a == "--sockets") {
      ok = count(&o->shape.sockets);
    } else if (a == "--window") {
      ok = count(&o->shape.window);
    } else if (a == "--duration") {
      ok = number(&o->duration);
    } else if (a == "--warmup") {
      ok = number(&o->warmup);
    } else if (a == "--hold") {
      const char* v = value();
      ok = v != nullptr && (o->hold = std::atoi(v)) >= 0;
    } else if (a == "--echo") {
      o->echo = true;
    } else if (a == "--metrics") {
      o->metrics = true;
    } else if (a == "--rounds") {
      ok = count(&o->rounds);
    } else if (a == "--json") {
      o->json = true;
    } else if (a == "--daemon" || a == "--plugin") {
      const char* v = value();
      ok = v != nullptr;
      if (ok) (a == "--daemon" ? o->daemon : o->plugin) = v;
    } else if (a == "--args") {
      const char* v = value();
      ok = v != nullptr;
      std::stringstream words(ok ? v : "");
      for (std::string w; words >> w;) o->daemonArgs.push_back(w);
    } else if (a == "--port") {
      int port = 0;
      ok = count(&port) && port < 65536;
      o->runningPort = static_cast<uint16_t>(port);
    } else if (a == "--pid") {
      int pid = 0;
      ok = count(&pid);
      o->runningPid = pid;
    } else {
      ok = false;
    }
    if (!ok) return false;
  }
  return true;
}

// What one server did under the load.
struct Figures {
  double requestsPerSecond = 0;
  double p50Us = 0, p99Us = 0, p999Us = 0;
  double cpuUsPerRequest = -1;  // unknown without the server's process
  uint64_t requests = 0, timeouts = 0;
  uint32_t replySize[100] = {};
};

double Seconds() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double Percentile(const std::vector<uint32_t>& sorted, double p) {
  if (sorted.empty()) return 0;
  const auto at = static_cast<size_t>(p * static_cast<double>(sorted.size()));
  const size_t i = std::min(sorted.size() - 1, at);
  return sorted[i] / 1000.0;
}

// The load against one server; the progress line goes to standard error.
bool Measure(const Options& o, const char* label, uint16_t port, pid_t pid, Figures* f) {
  LoadShape shape = o.shape;
  shape.port = port;
  Load load(shape);
  if (!load.Start()) {
    std::fprintf(stderr, "kxbench: cannot make the client sockets\n");
    return false;
  }
  const double start = Seconds();
  while (Seconds() - start < o.warmup) usleep(50000);
  const int64_t cpuBefore = pid > 0 ? ProcessCpuNs(pid) : -1;
  const double begin = Seconds();
  load.Measure(true);
  for (double now = begin; now - begin < o.duration; now = Seconds()) {
    const uint64_t before = load.Replies();
    usleep(static_cast<useconds_t>(std::min(1.0, o.duration - (now - begin)) * 1e6));
    std::fprintf(stderr, "\r%-8s %5.1f / %.0f s  %9.0f req/s   ", label, Seconds() - begin,
                 o.duration, static_cast<double>(load.Replies() - before) / (Seconds() - now));
  }
  load.Measure(false);
  const double elapsed = Seconds() - begin;
  const int64_t cpuAfter = pid > 0 ? ProcessCpuNs(pid) : -1;
  std::fprintf(stderr, "\r%60s\r", "");
  LoadResult r = load.Stop();
  std::sort(r.latencyNs.begin(), r.latencyNs.end());
  f->requests = r.requests;
  f->timeouts = r.timeouts;
  f->requestsPerSecond = static_cast<double>(r.requests) / elapsed;
  f->p50Us = Percentile(r.latencyNs, 0.50);
  f->p99Us = Percentile(r.latencyNs, 0.99);
  f->p999Us = Percentile(r.latencyNs, 0.999);
  if (cpuBefore >= 0 && cpuAfter >= 0 && r.requests > 0)
    f->cpuUsPerRequest =
        static_cast<double>(cpuAfter - cpuBefore) / 1000.0 / static_cast<double>(r.requests);
  std::copy(std::begin(r.replySize), std::end(r.replySize), std::begin(f->replySize));
  return r.requests > 0;
}

void PrintRow(const char* label, const Figures& f) {
  std::printf("%-8s %10.0f %9.1f %9.1f %9.1f %11.2f %8llu\n", label, f.requestsPerSecond, f.p50Us,
              f.p99Us, f.p999Us, f.cpuUsPerRequest, static_cast<unsigned long long>(f.timeouts));
}

std::string JsonFigures(const Figures& f) {
  char text[256];
  std::snprintf(text, sizeof text,
                "{\"requests\":%llu,\"req_per_s\":%.1f,\"p50_us\":%.1f,\"p99_us\":%.1f,"
                "\"p999_us\":%.1f,\"cpu_us_per_req\":%.3f,\"timeouts\":%llu}",
                static_cast<unsigned long long>(f.requests), f.requestsPerSecond, f.p50Us, f.p99Us,
                f.p999Us, f.cpuUsPerRequest, static_cast<unsigned long long>(f.timeouts));
  return text;
}

int RunKind(const Options& o, Kind kind) {
  Options run = o;
  run.shape.kind = kind;
  Figures daemon, echo, metered;
  // The daemon under the load, started for the run unless one is running.
  auto measureDaemon = [&](bool withMetrics, const char* label, Figures* f) {
    ServerProcess server;
    uint16_t port = o.runningPort;
    pid_t pid = o.runningPid;
    if (port == 0) {
      port = kestrix::client::FreeLoopbackPort();
      if (!server.StartDaemon(o.daemon, o.plugin, o.daemonArgs, port, withMetrics)) {
        std::fprintf(stderr, "kxbench: %s\n", server.error().c_str());
        return false;
      }
      pid = server.pid();
    }
    std::vector<uint32_t> held;
    if (o.hold > 0) OpenLeases(port, o.hold, &held);
    const bool measured = Measure(run, label, port, pid, f);
    CloseLeases(port, held);
    if (!measured) std::fprintf(stderr, "kxbench: no replies from the daemon\n");
    return measured;
  };
  // Other load on the machine only adds CPU time, so of several rounds the
  // least costly is the closest to the daemon's own cost.
  const int rounds = o.metrics ? o.rounds : 1;
  for (int round = 0; round < rounds; ++round) {
    Figures plain, counted;
    if (!measureDaemon(false, "daemon", &plain)) return 1;
    if (round == 0 || plain.cpuUsPerRequest < daemon.cpuUsPerRequest) daemon = plain;
    if (!o.metrics) break;
    if (!measureDaemon(true, "metrics", &counted)) return 1;
    if (round == 0 || counted.cpuUsPerRequest < metered.cpuUsPerRequest) metered = counted;
  }
  if (o.echo) {
    ServerProcess server;
    const uint16_t port = kestrix::client::FreeLoopbackPort();
    if (!server.StartEcho(port, daemon.replySize) ||
        !Measure(run, "echo", port, server.pid(), &echo)) {
      std::fprintf(stderr, "kxbench: the echo responder failed: %s\n", server.error().c_str());
      return 1;
    }
  }
  const bool haveRatio = o.echo && daemon.cpuUsPerRequest > 0 && echo.cpuUsPerRequest > 0;
  const double efficiency = haveRatio ? echo.cpuUsPerRequest / daemon.cpuUsPerRequest : 0;
  // What counting costs: the metered daemon's CPU per request over the plain one's.
  const bool haveCost = o.metrics && daemon.cpuUsPerRequest > 0 && metered.cpuUsPerRequest > 0;
  const double cost = haveCost ? metered.cpuUsPerRequest / daemon.cpuUsPerRequest - 1 : 0;

  if (o.json) {
    std::printf("{\"kind\":\"%s\",\"dup\":%s,\"threads\":%d,\"sockets\":%d,\"window\":%d,"
                "\"duration_s\":%.1f,\"held\":%d,\"daemon\":%s",
                KindName(kind), o.shape.duplicateFlag ? "true" : "false", o.shape.threads,
                o.shape.sockets, o.shape.window, o.duration, o.hold, JsonFigures(daemon).c_str());
    if (o.echo) std::printf(",\"echo\":%s", JsonFigures(echo).c_str());
    if (o.metrics) std::printf(",\"metrics\":%s", JsonFigures(metered).c_str());
    if (haveCost) std::printf(",\"metrics_cpu_cost\":%.4f", cost);
    if (haveRatio) std::printf(",\"efficiency\":%.3f", efficiency);
    std::printf("}\n");
  } else {
    std::printf("kind %s%s: %d threads x %d sockets x window %d, %.0f s measured, %d leases held\n",
                KindName(kind), o.shape.duplicateFlag ? " (duplicate flag)" : "", o.shape.threads,
                o.shape.sockets, o.shape.window, o.duration, o.hold);
    std::printf("%-8s %10s %9s %9s %9s %11s %8s\n", "server", "req/s", "p50 us", "p99 us",
                "p99.9 us", "cpu us/req", "resent");
    PrintRow("daemon", daemon);
    if (o.echo) PrintRow("echo", echo);
    if (o.metrics) PrintRow("metrics", metered);
    if (haveCost) std::printf("counting costs %+.1f%% CPU per request\n", cost * 100);
    if (haveRatio) std::printf("efficiency %.2f\n", efficiency);
  }
  std::fflush(stdout);
  return 0;
}

}  // namespace
}  // namespace kxbench

int main(int argc, char** argv) {
  kxbench::Options options;
  if (!kxbench::ParseOptions(argc, argv, &options)) {
    std::fputs(kxbench::kUsage, stderr);
    return 2;
  }
  for (kxbench::Kind kind : options.kinds) {
    if (int rc = kxbench::RunKind(options, kind); rc != 0) return rc;
  }
  return 0;
}
