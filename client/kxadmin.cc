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

#include <nlohmann/json.hpp>

#include "client/kxcmdline.h"

namespace kestrix::client {

namespace {

using nlohmann::json;

constexpr int kExitOk = 0, kExitNoAnswer = 2, kExitError = 3;
constexpr int kTimeoutSeconds = 5;

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

// Prints the answer to command; the exit status.
int Show(bool asJson, const std::string& command, const json& answer) {
  if (!answer.value("ok", false)) {
    std::fprintf(stderr, "kestrix-cli: %s\n", answer.value("error", "error answer").c_str());
    return kExitError;
  }
  if (command == "revoke") {
    const json& revoked = answer.at("revoked");
    if (!asJson) {
      for (const json& key : revoked) std::printf("revoked 0x%x\n", key.get<uint32_t>());
      if (revoked.empty()) std::fprintf(stderr, "kestrix-cli: no lease matched\n");
    }
    return revoked.empty() ? kExitError : kExitOk;
  }
  if (!asJson) {
    if (command == "leases") PrintLeases(answer.at("leases"));
    else PrintStats(answer.at("metrics"));
  }
  return kExitOk;
}

}  // namespace

AdminCommands::AdminCommands(CLI::App& app) {
  const char* env = std::getenv("KESTRIX_ADMIN_SOCKET");
  socket_ = env != nullptr && *env != '\0' ? env : "/run/kestrixd/admin.sock";
  admin_ = app.add_subcommand("admin", "leases, revocation and counters over the daemon's admin socket");
  admin_->group("Commands")->require_subcommand(1);
  admin_->footer("--json and --socket PATH go with every admin command, before or after its word.\n"
                 "exit status: 0 done, 1 usage, 2 no answer from the socket, 3 an error answer or nothing revoked");
  admin_->add_flag("--json", json_, "the daemon's answer as one JSON document");
  admin_->add_option("--socket", socket_,
                     "the admin socket (default $KESTRIX_ADMIN_SOCKET\nor /run/kestrixd/admin.sock)")
      ->type_name("PATH");
  admin_->add_subcommand("leases", "the leases the daemon holds")->fallthrough()->group("Commands");
  admin_->add_subcommand("stats", "the daemon's counters")->fallthrough()->group("Commands");
  CLI::App* revoke = admin_->add_subcommand("revoke", "end leases at once: one KEY, or those of --client or --path");
  revoke->fallthrough()->group("Commands");
  revoke->add_option("KEY", key_, "a lease key")->type_name("")->check(Within(0, UINT32_MAX, "key"));
  revoke->add_option("--client", client_, "every lease of a client (IPv4 address)")->type_name("ADDR");
  revoke->add_option("--path", path_, "every lease on a file (its full path on the daemon)")->type_name("FILE");
}

bool AdminCommands::given() const { return admin_->parsed(); }

int AdminCommands::Run() {
  const std::string command = GivenCommand(*admin_).get_name();
  json request{{"command", command}};
  if (command == "revoke") {
    if (!key_.empty() + !client_.empty() + !path_.empty() != 1)
      return UsageError(*admin_, "revoke takes one of KEY, --client, --path");
    if (!key_.empty()) request["key"] = std::strtoull(key_.c_str(), nullptr, 0);
    if (!client_.empty()) request["client"] = client_;
    if (!path_.empty()) request["path"] = path_;
  }
  std::string why;
  std::optional<std::string> line = Ask(socket_, request.dump(), &why);
  const json answer = line ? json::parse(*line, nullptr, false) : json();
  if (!line || !answer.is_object()) {
    std::fprintf(stderr, "kestrix-cli: no answer from the admin socket%s%s\n",
                 why.empty() ? "" : ": ", why.c_str());
    return kExitNoAnswer;
  }
  if (json_) std::printf("%s\n", answer.dump().c_str());
  // An answer of the wrong shape makes the JSON library throw; it is no answer.
  try {
    return Show(json_, command, answer);
  } catch (const json::exception& e) {
    std::fprintf(stderr, "kestrix-cli: malformed answer from the admin socket: %s\n", e.what());
    return kExitNoAnswer;
  }
}

}  // namespace kestrix::client
