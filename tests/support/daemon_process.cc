#include "support/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrix::test {

pid_t Spawn(const std::string& program, const std::vector<std::string>& args, const Env& env,
            const std::string& outPath, const std::string& errPath, int inFd, int outFd) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
  dup2(inFd >= 0 ? inFd : open("/dev/null", O_RDONLY), 0);
  dup2(outFd >= 0 ? outFd : open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
  dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  execv(program.c_str(), argv.data());
  _exit(127);
}

int WaitFor(pid_t pid, int timeoutMs) {
  int status = 0;
  pid_t reaped = 0;
  PollUntil([&] { return (reaped = waitpid(pid, &status, WNOHANG)) != 0; }, timeoutMs);
  if (reaped == 0) return -2;
  return reaped == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Kill(pid_t pid, int signal) {
  kill(pid, signal);
  if (WaitFor(pid, 2000) == -2) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
}

RunResult RunToExit(const std::string& program, const std::vector<std::string>& args,
                    const Env& env, int timeoutMs) {
  TempDir dir;
  pid_t pid = Spawn(program, args, env, dir.File("out"), dir.File("err"));
  RunResult result;
  result.exitStatus = WaitFor(pid, timeoutMs);
  if (result.exitStatus == -2) result.exitStatus = (Kill(pid, SIGKILL), -1);
  result.standardError = ReadFile(dir.File("err"));
  result.standardOutput = ReadFile(dir.File("out"));
  return result;
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const Env& env, int inFd, int outFd)
    : pid_(Spawn(program, args, env, dir_.File("out"), dir_.File("err"), inFd, outFd)) {}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) Kill(pid_, SIGKILL);
}

RunResult ChildProcess::Wait(int timeoutMs) {
  RunResult result;
  result.exitStatus = WaitFor(pid_, timeoutMs);
  if (result.exitStatus == -2) result.exitStatus = (Kill(pid_, SIGKILL), -1);
  pid_ = -1;
  result.standardError = ReadFile(dir_.File("err"));
  result.standardOutput = ReadFile(dir_.File("out"));
  return result;
}

bool DaemonProcess::Start(const std::vector<std::string>& extraArgs, int timeoutMs) {
  if (port_ == 0) port_ = FreeLoopbackPort();
  Env env = env_;
  env["KESTRIX_PORT"] = std::to_string(port_);
  env["KESTRIX_LIBDIR"] = libDir_;
  env.try_emplace("KESTRIX_SMBPATH", dir_.File("smb.conf"));
  env.try_emplace("KESTRIX_ADMIN_SOCKET", "");  // tests that want one name their own
  std::vector<std::string> args{"-d", "-f", logPath_};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  pid_ = Spawn(KESTRIXD_BINARY, args, env, dir_.File("stdout.txt"), dir_.File("stderr.txt"));
  return WaitForLog("kestrixd started.", timeoutMs);
}

void DaemonProcess::Stop() {
  // SIGTERM first: a coverage build writes its counters on it.
  if (pid_ > 0) Kill(pid_, SIGTERM);
  pid_ = -1;
}

int DaemonProcess::WaitExit(int timeoutMs) {
  const int status = pid_ > 0 ? WaitFor(pid_, timeoutMs) : -1;
  if (status == -2) return -1;
  pid_ = -1;
  return status;
}

}  // namespace kestrix::test
