// kxbench's server processes and their CPU accounting.
#include "bench/kxbench/servers.h"

#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "lanheader.h"

namespace kxbench {

int64_t ProcessCpuNs(pid_t pid) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = opendir(tasks.c_str());
  if (dir == nullptr) return -1;
  int64_t total = 0;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    FILE* f = std::fopen((tasks + "/" + entry->d_name + "/schedstat").c_str(), "r");
    if (f == nullptr) continue;  // a thread that just ended
    long long ns = 0;
    if (std::fscanf(f, "%lld", &ns) == 1) total += ns;
    std::fclose(f);
  }
  closedir(dir);
  return total;
}

bool ServerProcess::StartDaemon(const std::string& daemon, const std::string& plugin,
                                const std::vector<std::string>& options, uint16_t port,
                                bool metered) {
  char dirTemplate[] = "/tmp/kxbench.XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) return error_ = "cannot make a temporary directory", false;
  dir_ = dirTemplate;
  std::filesystem::create_directory(dir_ + "/lib");
  std::error_code ec;
  std::filesystem::create_symlink(std::filesystem::absolute(plugin), dir_ + "/lib/libnullfs.so",
                                  ec);
  if (ec) return error_ = "cannot link the plug-in: " + ec.message(), false;

  std::vector<std::string> args = {daemon, "-d", "-f", dir_ + "/kestrixd.log"};
  args.insert(args.end(), options.begin(), options.end());
  const std::string libDir = dir_ + "/lib", portText = std::to_string(port);
  pid_ = fork();
  if (pid_ < 0) return error_ = "fork failed", false;
  if (pid_ == 0) {
    setenv("KESTRIX_LIBDIR", libDir.c_str(), 1);
    setenv("KESTRIX_PORT", portText.c_str(), 1);
    setenv("KESTRIX_ADMIN_SOCKET", metered ? (dir_ + "/admin.sock").c_str() : "", 1);
    if (metered) setenv("KESTRIX_METRICS", ("127.0.0.1:" + portText).c_str(), 1);
    else unsetenv("KESTRIX_METRICS");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (!WaitUntilAnswering(port)) {
    error_ = "the daemon did not answer; its log is " + dir_ + "/kestrixd.log";
    Stop();
    return false;
  }
  return true;
}

namespace {

[[noreturn]] void EchoLoop(int fd, const uint32_t (&replySize)[100]) {
  static uint8_t buffer[65536];
  for (;;) {
    sockaddr_in from;
    socklen_t length = sizeof from;
    ssize_t n = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < static_cast<ssize_t>(LAN_HEADER_SIZE)) continue;
    auto* header = reinterpret_cast<LanHeader*>(buffer);
    const int32_t code = header->functionCode;
    size_t size = static_cast<size_t>(n);
    if (code > 0 && code < 100 && replySize[code] != 0) size = replySize[code];
    header->functionCode = -code;
    header->length = static_cast<uint32_t>(size);
    sendto(fd, buffer, size, 0, reinterpret_cast<sockaddr*>(&from), length);
  }
}

}  // namespace

bool ServerProcess::StartEcho(uint16_t port, const uint32_t (&replySize)[100]) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    if (fd >= 0) close(fd);
    return error_ = "cannot bind the echo responder", false;
  }
  pid_ = fork();
  if (pid_ == 0) EchoLoop(fd, replySize);
  close(fd);
  if (pid_ < 0) return error_ = "fork failed", false;
  return true;
}

bool ServerProcess::WaitUntilAnswering(uint16_t port) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  LanHeader probe{};
  probe.byteOrder = LAN_BYTEORDER_MARK;
  probe.functionCode = 9;
  probe.length = LAN_HEADER_SIZE;
  bool answered = false;
  for (int i = 0; i < 100 && !answered; ++i) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      break;
    }
    send(fd, &probe, sizeof probe, 0);
    pollfd p{fd, POLLIN, 0};
    answered = poll(&p, 1, 100) == 1 && recv(fd, &probe, sizeof probe, 0) > 0;
    if (!answered) usleep(100000);  // refused at once while the port is not bound yet
  }
  close(fd);
  return answered;
}

void ServerProcess::Stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    for (int i = 0; i < 50 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i) usleep(20000);
    if (waitpid(pid_, nullptr, WNOHANG) == 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
  }
  if (!dir_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    dir_.clear();
  }
}

}  // namespace kxbench
