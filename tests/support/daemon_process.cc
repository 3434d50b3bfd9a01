#include "support/daemon_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace kestrix::test {

namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> Argv(std::vector<std::string>& words) {
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  return argv;
}

// Forks and execs program; stderr goes to errPath and stdout to outPath
// when they are not empty.
pid_t Spawn(const std::string& program, std::vector<std::string> args,
            const std::map<std::string, std::string>& env, const std::string& errPath,
            const std::string& outPath = "") {
  std::vector<std::string> words{program};
  words.insert(words.end(), args.begin(), args.end());
  pid_t pid = fork();
  if (pid != 0) return pid;
  for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
  if (!errPath.empty()) {
    int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) dup2(fd, 2);
  }
  if (!outPath.empty()) {
    int fd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) dup2(fd, 1);
  }
  int devnull = open("/dev/null", O_RDONLY);
  if (devnull >= 0) dup2(devnull, 0);
  auto argv = Argv(words);
  execv(program.c_str(), argv.data());
  _exit(127);
}

// Waits for pid; its exit status, -1 for a signal, -2 on time-out.
int WaitFor(pid_t pid, int timeoutMs) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (r < 0) return -1;
    if (Clock::now() > deadline) return -2;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

uint16_t FreeUdpPort() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

RunResult RunToExit(const std::string& program, const std::vector<std::string>& args,
                    const std::map<std::string, std::string>& env, int timeoutMs) {
  TempDir dir;
  std::string errPath = dir.File("stderr.txt"), outPath = dir.File("stdout.txt");
  pid_t pid = Spawn(program, args, env, errPath, outPath);
  RunResult result;
  result.exitStatus = WaitFor(pid, timeoutMs);
  if (result.exitStatus == -2) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    result.exitStatus = -1;
  }
  result.standardError = ReadFile(errPath);
  result.standardOutput = ReadFile(outPath);
  return result;
}

DaemonProcess::DaemonProcess(std::string binary, std::string libDir)
    : binary_(binary.empty() ? std::string(KESTRIXD_BINARY) : binary),
      libDir_(std::move(libDir)),
      logPath_(dir_.File("kestrixd.log")) {
  if (libDir_.empty()) {
    libDir_ = dir_.File("lib");
    mkdir(libDir_.c_str(), 0755);
  }
}

DaemonProcess::~DaemonProcess() { Stop(); }

bool DaemonProcess::Start(const std::vector<std::string>& extraArgs, int timeoutMs) {
  if (port_ == 0) port_ = FreeUdpPort();
  auto env = env_;
  env["KESTRIX_PORT"] = std::to_string(port_);
  env["KESTRIX_LIBDIR"] = libDir_;
  if (env.find("KESTRIX_SMBPATH") == env.end()) env["KESTRIX_SMBPATH"] = dir_.File("smb.conf");
  std::vector<std::string> args{"-d", "-f", logPath_};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  pid_ = Spawn(binary_, args, env, dir_.File("stderr.txt"), dir_.File("stdout.txt"));
  return WaitForLog("kestrixd started.", timeoutMs);
}

void DaemonProcess::Stop() {
  if (pid_ <= 0) return;
  // SIGTERM first: a coverage build writes its counters on it.
  kill(pid_, SIGTERM);
  if (WaitFor(pid_, 2000) == -2) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
}

int DaemonProcess::WaitExit(int timeoutMs) {
  if (pid_ <= 0) return -1;
  int status = WaitFor(pid_, timeoutMs);
  if (status == -2) return -1;
  pid_ = -1;
  return status;
}

bool DaemonProcess::WaitForLog(const std::string& needle, int timeoutMs) const {
  return PollUntil([&] { return Log().find(needle) != std::string::npos; }, timeoutMs);
}

}  // namespace kestrix::test
