// Runs programs for end-to-end tests, above all the real kestrixd: in the
// foreground (-d), logging to a file, on a free loopback port given through
// KESTRIX_PORT, stopped by its PID.
#ifndef KESTRIX_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define KESTRIX_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "client/kxclient.h"
#include "support/test_util.h"

namespace kestrix::test {

using Env = std::map<std::string, std::string>;
using client::FreeLoopbackPort;  // a UDP port on 127.0.0.1 free a moment ago

struct RunResult {
  int exitStatus = -1;  // -1 when the process did not exit normally
  std::string standardError, standardOutput;
};

// Forks and execs program with env added, reading /dev/null (or inFd) and
// writing its standard output (unless to outFd) and error to the files named.
pid_t Spawn(const std::string& program, const std::vector<std::string>& args, const Env& env,
            const std::string& outPath, const std::string& errPath, int inFd = -1, int outFd = -1);
// Waits for pid; its exit status, -1 for a signal, -2 on time-out.
int WaitFor(pid_t pid, int timeoutMs);
// Stops pid with signal, and with SIGKILL if it is still there after 2 s.
void Kill(pid_t pid, int signal);

// Runs a program to its end with the given environment additions.
RunResult RunToExit(const std::string& program, const std::vector<std::string>& args,
                    const Env& env, int timeoutMs = 20000);

// A program running beside the test, its standard input (and output, when
// outFd >= 0) on the test's descriptors; killed by its PID if still running
// when the object goes.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& args, const Env& env,
               int inFd, int outFd = -1);
  ~ChildProcess();
  // Waits for the exit (killing it after timeoutMs); stdout unless outFd was given.
  RunResult Wait(int timeoutMs = 60000);

 private:
  TempDir dir_;
  pid_t pid_;
};

class DaemonProcess {
 public:
  // libDir: KESTRIX_LIBDIR, by default an empty directory of the test's own.
  DaemonProcess() { std::filesystem::create_directory(libDir_); }
  ~DaemonProcess() { Stop(); }

  void SetEnv(const std::string& name, const std::string& value) { env_[name] = value; }
  void SetPort(uint16_t port) { port_ = port; }
  // Starts with -d -f <log> plus extraArgs, and waits for the start line.
  bool Start(const std::vector<std::string>& extraArgs = {}, int timeoutMs = 10000);
  // Stops the process by its PID (SIGTERM, then SIGKILL) and reaps it.
  void Stop();
  // Waits for the process to exit by itself; its status, or -1.
  int WaitExit(int timeoutMs);

  uint16_t port() const { return port_; }
  pid_t pid() const { return pid_; }
  const std::string& logPath() const { return logPath_; }
  std::string Log() const { return ReadFile(logPath_); }
  std::string Stdout() const { return ReadFile(dir_.File("stdout.txt")); }
  std::string Stderr() const { return ReadFile(dir_.File("stderr.txt")); }
  // Polls the log until it contains needle.
  bool WaitForLog(const std::string& needle, int timeoutMs = 5000) const {
    return PollUntil([&] { return Log().find(needle) != std::string::npos; }, timeoutMs);
  }
  const TempDir& dir() const { return dir_; }
  const std::string& libDir() const { return libDir_; }

 private:
  TempDir dir_;
  std::string libDir_ = dir_.File("lib"), logPath_ = dir_.File("kestrixd.log");
  Env env_;
  uint16_t port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_DAEMON_PROCESS_H_
