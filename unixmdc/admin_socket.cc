// The admin socket: its creation, the thread that accepts one connection at
// a time, bounded reads with a deadline, the check of the peer's user, and
// the answers to the requests.
#include "unixmdc/admin_socket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <nlohmann/json.hpp>

#include "sp/lease_admin.h"
#include "unixmdc/metrics.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace kestrix {

namespace {

using nlohmann::json;

std::string Error(const std::string& why) { return json{{"ok", false}, {"error", why}}.dump(); }

json LeasesJson() {
  json leases = json::array();
  for (const LeaseView& l : ListLeases()) {
    leases.push_back({{"key", l.key},
                      {"client", l.client},
                      {"path", l.path},
                      {"intention", l.intention == 1 ? "read" : "write"},
                      {"duration_ms", l.durationMs},
                      {"left_ms", l.leftMs},
                      {"age_ms", l.ageMs}});
  }
  return leases;
}

// The selector a revoke request names, or an error text.
std::string Selector(const json& request, LeaseSelector* s) {
  const int named = static_cast<int>(request.contains("key")) + request.contains("client") +
                    request.contains("path");
  if (named != 1) return "revoke needs exactly one of key, client, path";
  if (request.contains("key")) {
    const json& key = request["key"];
    if (!key.is_number_unsigned() || key.get<uint64_t>() > UINT32_MAX) return "bad key";
    s->kind = LeaseSelector::kKey;
    s->key = key.get<FSULONG>();
  } else if (request.contains("client")) {
    in_addr address;
    if (!request["client"].is_string() ||
        inet_pton(AF_INET, request["client"].get<std::string>().c_str(), &address) != 1)
      return "bad client address";
    s->kind = LeaseSelector::kClient;
    s->address = address.s_addr;
  } else {
    if (!request["path"].is_string() || request["path"].get<std::string>().empty())
      return "bad path";
    s->kind = LeaseSelector::kPath;
    s->path = request["path"].get<std::string>();
  }
  return "";
}

// Reads one line of at most kAdminRequestMax bytes before the deadline.
// False, with why, when the peer is too slow, too long-winded or gone.
bool ReadRequest(int fd, std::string* line, std::string* why) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kAdminTimeoutMs);
  char buffer[512];
  for (;;) {
    const size_t end = std::min(line->find('\n'), line->size());
    if (end > kAdminRequestMax) return *why = "request too long", false;
    if (end < line->size()) {
      line->resize(end);
      return true;
    }
    const int64_t left = std::chrono::duration_cast<std::chrono::milliseconds>(
                             deadline - std::chrono::steady_clock::now())
                             .count();
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || poll(&p, 1, static_cast<int>(left)) == 0)
      return *why = "request timed out", false;
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // A request without its line end is taken when the peer has finished.
      if (n == 0 && !line->empty()) return true;
      return *why = "no request", false;
    }
    line->append(buffer, static_cast<size_t>(n));
  }
}

void Send(int fd, std::string answer) {
  answer += '\n';
  size_t sent = 0;
  while (sent < answer.size()) {
    const ssize_t n = send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // the peer is gone or too slow (SO_SNDTIMEO)
    sent += static_cast<size_t>(n);
  }
}

// After the answer, the rest of what the peer sent is read and dropped, a
// bounded amount for a bounded time, so that closing with unread input does
// not reset the connection before the peer has read the answer.
void Finish(int fd) {
  shutdown(fd, SHUT_WR);
  char buffer[4096];
  pollfd p{fd, POLLIN, 0};
  for (int i = 0; i < 16 && poll(&p, 1, 200) == 1 && recv(fd, buffer, sizeof buffer, 0) > 0; ++i) {
  }
}

void Serve(int fd) {
  const timeval sendTimeout{kAdminTimeoutMs / 1000, (kAdminTimeoutMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
      (peer.uid != 0 && peer.uid != geteuid())) {
    OSL_Log(KSX_ERROR, "kestrixd: admin request from uid %u refused\n",
            static_cast<unsigned>(peer.uid));
    return Send(fd, Error("permission denied"));
  }
  std::string line, why;
  if (!ReadRequest(fd, &line, &why)) return Send(fd, Error(why));
  const std::string who = "uid " + std::to_string(peer.uid) + " pid " + std::to_string(peer.pid);
  Send(fd, AnswerAdminRequest(line, who));
}

void* AdminThread(void* listener) {
  const int fd = static_cast<int>(reinterpret_cast<intptr_t>(listener));
  for (;;) {
    const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      if (errno != EINTR && errno != ECONNABORTED) OSL_SleepMS(100);  // out of descriptors
      continue;
    }
    Serve(connection);
    Finish(connection);
    close(connection);
  }
}

}  // namespace

std::string AnswerAdminRequest(const std::string& text, const std::string& who) {
  const json request = json::parse(text, nullptr, false);
  if (request.is_discarded() || !request.is_object() || !request.contains("command") ||
      !request["command"].is_string())
    return Error("malformed request");
  const std::string command = request["command"].get<std::string>();
  if (command == "leases") return json{{"ok", true}, {"leases", LeasesJson()}}.dump();
  if (command == "stats") return json{{"ok", true}, {"metrics", MetricsJson()}}.dump();
  if (command == "revoke") {
    LeaseSelector selector;
    if (std::string bad = Selector(request, &selector); !bad.empty()) return Error(bad);
    return json{{"ok", true}, {"revoked", RevokeLeases(selector, who)}}.dump();
  }
  return Error("unknown command '" + command + "'");
}

bool StartAdminSocket(const std::string& path, std::string* why) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return *why = "path too long", false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

  if (const size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0)
    mkdir(path.substr(0, slash).c_str(), 0755);  // when it exists already, so much the better
  struct stat existing;
  if (lstat(path.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode)) return *why = "exists and is not a socket", false;
    unlink(path.c_str());  // left by an earlier daemon: this one holds the UDP port now
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return *why = std::strerror(errno), false;
  // The file takes the socket's mode when it is bound, so it never exists
  // with wider permissions; the chmod repeats it whatever the umask did.
  fchmod(fd, 0600);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), 0600) != 0 || listen(fd, 8) != 0) {
    *why = std::strerror(errno);
    close(fd);
    return false;
  }
  if (OSL_CreateThread(AdminThread, reinterpret_cast<void*>(static_cast<intptr_t>(fd))) != 0) {
    *why = "cannot start its thread";
    close(fd);
    unlink(path.c_str());
    return false;
  }
  return true;
}

}  // namespace kestrix
