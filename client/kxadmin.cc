// kestrix-cli admin: one request line of JSON to the admin socket, one
// answer line back, printed as a table or passed on as JSON.
#include "client/kxadmin.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kestrix::client {

namespace {

using nlohmann::json;

constexpr int kExitOk = 0, kExitUsage = 1, kExitNoAnswer = 2, kExitError = 3;
constexpr int kTimeoutSeconds = 5;

const char kAdminUsage[] =
    "usage: kestrix-cli admin COMMAND [--json] [--socket PATH]\n"
    "  leases                  the leases the daemon holds\n"
    "  revoke KEY              end one lease at once\n"
    "  revoke --client ADDR    end every lease of a client (IPv4 address)\n"
    "  revoke --path FILE      end every lease on a file (its full path on the daemon)\n"
    "  stats                   the daemon's counters\n"
    "  --socket PATH           the admin socket (default $KESTRIX_ADMIN_SOCKET\n"
    "                          or /run/kestrixd/admin.sock)\n";

struct AdminArgs {
  std::vector<std::string> words;  // "admin" first
  bool json = false;
  std::string socket, client, path;
};

int Usage(const std::string& why) {
  if (!why.empty()) std::fprintf(stderr, "kestrix-cli: %s\n", why.c_str());
  std::fputs(kAdminUsage, stderr);
  return kExitUsage;
}

// The answer line to one request line, or nothing (with why).
std::optional<std::string> Ask(const std::string& socketPath, const std::string& request,
                               std::string* why) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path) return *why = "socket path too long", std::nullopt;
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return *why = std::strerror(errno), std::nullopt;
  const timeval timeout{kTimeoutSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    *why = socketPath + ": " + std::strerror(errno);
  } else {
    const std::string line = request + "\n";
    if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
      *why = std::string("sending: ") + std::strerror(errno);
    char buffer[4096];
    for (ssize_t n; why->empty() && (n = recv(fd, buffer, sizeof buffer, 0)) != 0;) {
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) *why = std::string("receiving: ") + std::strerror(errno);
      else answer.append(buffer, static_cast<size_t>(n));
    }
  }
  close(fd);
  if (!why->empty()) return std::nullopt;
  return answer;
}

std::string Seconds(int64_t ms) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1fs", static_cast<double>(ms) / 1000.0);
  return text;
}

void PrintLeases(const json& leases) {
  std::printf("%-10s %-15s %-9s %10s %10s %10s  %s\n", "KEY", "CLIENT", "INTENTION", "DURATION",
              "LEFT", "AGE", "PATH");
  for (const json& l : leases) {
    std::printf("0x%-8x %-15s %-9s %10s %10s %10s  %s\n", l.value("key", 0u),
                l.value("client", "").c_str(), l.value("intention", "").c_str(),
                Seconds(l.value("duration_ms", 0)).c_str(), Seconds(l.value("left_ms", 0)).c_str(),
                Seconds(l.value("age_ms", 0)).c_str(), l.value("path", "").c_str());
  }
}

std::string Labels(const json& labels) {
  std::string text;
  for (const auto& [name, value] : labels.items())
    text += (text.empty() ? "{" : ",") + name + "=\"" + value.get<std::string>() + "\"";
  return text.empty() ? text : text + "}";
}

// One line per sample, "name{labels} value"; a histogram as its count and
// its mean in seconds.
void PrintStats(const json& families) {
  for (const json& f : families) {
    const std::string name = f.value("name", "");
    for (const json& s : f.value("samples", json::array())) {
      const std::string labels = Labels(s.value("labels", json::object()));
      if (f.value("type", "") == "histogram") {
        const uint64_t count = s.value("count", uint64_t{0});
        if (count == 0) continue;
        std::printf("%s_count%s %llu\n", name.c_str(), labels.c_str(),
                    static_cast<unsigned long long>(count));
        std::printf("%s_mean%s %.6f\n", name.c_str(), labels.c_str(), s.value("sum", 0.0) / count);
      } else {
        std::printf("%s%s %.15g\n", name.c_str(), labels.c_str(), s.value("value", 0.0));
      }
    }
  }
}

std::optional<AdminArgs> Parse(int argc, char** argv, std::string* why) {
  AdminArgs a;
  const char* env = std::getenv("KESTRIX_ADMIN_SOCKET");
  a.socket = env != nullptr && *env != '\0' ? env : "/run/kestrixd/admin.sock";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return *why = arg + " needs a value", false;
      *out = argv[++i];
      return true;
    };
    if (arg == "--json") a.json = true;
    else if (arg == "--socket") { if (!value(&a.socket)) return std::nullopt; }
    else if (arg == "--client") { if (!value(&a.client)) return std::nullopt; }
    else if (arg == "--path") { if (!value(&a.path)) return std::nullopt; }
    else if (arg.size() > 1 && arg[0] == '-') return *why = "unknown option " + arg, std::nullopt;
    else a.words.push_back(arg);
  }
  return a;
}

// The request line for the command, or nothing (with why) on a usage error.
std::optional<json> Request(const AdminArgs& a, std::string* why) {
  const std::string command = a.words.size() > 1 ? a.words[1] : "";
  const size_t words = a.words.size();
  const bool selectors = !a.client.empty() || !a.path.empty();
  if (command == "leases" || command == "stats") {
    if (words == 2 && !selectors) return json{{"command", command}};
    return *why = command + " takes no arguments", std::nullopt;
  }
  if (command != "revoke") return *why = command.empty() ? "" : "unknown admin command " + command, std::nullopt;
  const int named = static_cast<int>(words == 3) + !a.client.empty() + !a.path.empty();
  if (named != 1 || words > 3) return *why = "revoke takes one of KEY, --client, --path", std::nullopt;
  if (!a.client.empty()) return json{{"command", "revoke"}, {"client", a.client}};
  if (!a.path.empty()) return json{{"command", "revoke"}, {"path", a.path}};
  char* end = nullptr;
  errno = 0;
  const unsigned long long key = std::strtoull(a.words[2].c_str(), &end, 0);
  if (a.words[2].empty() || *end != '\0' || errno != 0 || key > 0xFFFFFFFFull ||
      a.words[2][0] == '-')
    return *why = "bad key '" + a.words[2] + "'", std::nullopt;
  return json{{"command", "revoke"}, {"key", key}};
}

// Prints the answer to command; the exit status.
int Show(const AdminArgs& args, const std::string& command, const json& answer) {
  if (!answer.value("ok", false)) {
    std::fprintf(stderr, "kestrix-cli: %s\n", answer.value("error", "error answer").c_str());
    return kExitError;
  }
  if (command == "revoke") {
    const json& revoked = answer.at("revoked");
    if (!args.json) {
      for (const json& key : revoked) std::printf("revoked 0x%x\n", key.get<uint32_t>());
      if (revoked.empty()) std::fprintf(stderr, "kestrix-cli: no lease matched\n");
    }
    return revoked.empty() ? kExitError : kExitOk;
  }
  if (!args.json) {
    if (command == "leases") PrintLeases(answer.at("leases"));
    else PrintStats(answer.at("metrics"));
  }
  return kExitOk;
}

}  // namespace

bool RunAdminCommand(int argc, char** argv, int* exitStatus) {
  int first = 1;
  while (first < argc && argv[first][0] == '-') first += std::strcmp(argv[first], "--socket") == 0 ? 2 : 1;
  if (first >= argc || std::strcmp(argv[first], "admin") != 0) return false;

  std::string why;
  std::optional<AdminArgs> args = Parse(argc, argv, &why);
  std::optional<json> request = args ? Request(*args, &why) : std::nullopt;
  if (!request) return *exitStatus = Usage(why), true;

  std::optional<std::string> line = Ask(args->socket, request->dump(), &why);
  const json answer = line ? json::parse(*line, nullptr, false) : json();
  if (!line || !answer.is_object()) {
    std::fprintf(stderr, "kestrix-cli: no answer from the admin socket%s%s\n",
                 why.empty() ? "" : ": ", why.c_str());
    return *exitStatus = kExitNoAnswer, true;
  }
  if (args->json) std::printf("%s\n", answer.dump().c_str());
  // An answer of the wrong shape makes the JSON library throw; it is no answer.
  try {
    *exitStatus = Show(*args, (*request)["command"], answer);
  } catch (const json::exception& e) {
    std::fprintf(stderr, "kestrix-cli: malformed answer from the admin socket: %s\n", e.what());
    *exitStatus = kExitNoAnswer;
  }
  return true;
}

}  // namespace kestrix::client
