// Starts the real kestrixd binary for end-to-end tests: in the foreground
// (-d), logging to a file, on a free loopback port given through
// KESTRIX_PORT, and stops it by its PID.
#ifndef KESTRIX_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define KESTRIX_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace kestrix::test {

// A UDP port on 127.0.0.1 that was free a moment ago.
uint16_t FreeUdpPort();

struct RunResult {
  int exitStatus = -1;  // -1 when the process did not exit normally
  std::string standardError;
  std::string standardOutput;
};

// Runs a program to its end with the given environment additions.
RunResult RunToExit(const std::string& program, const std::vector<std::string>& args,
                    const std::map<std::string, std::string>& env, int timeoutMs = 20000);

class DaemonProcess {
 public:
  // binary: the kestrixd to start; libDir: KESTRIX_LIBDIR (empty: an empty
  // directory of the test's own).
  explicit DaemonProcess(std::string binary = "", std::string libDir = "");
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  void SetEnv(const std::string& name, const std::string& value) { env_[name] = value; }
  void SetPort(uint16_t port) { port_ = port; }
  // Starts with -d -f <log> plus extraArgs, and waits for the start line.
  bool Start(const std::vector<std::string>& extraArgs = {}, int timeoutMs = 10000);
  // Kills the process by its PID and reaps it.
  void Stop();
  // Waits for the process to exit by itself; its status, or -1.
  int WaitExit(int timeoutMs);

  pid_t pid() const { return pid_; }
  uint16_t port() const { return port_; }
  const std::string& logPath() const { return logPath_; }
  std::string Log() const { return ReadFile(logPath_); }
  // What the process wrote to standard output and standard error.
  std::string Stdout() const { return ReadFile(dir_.File("stdout.txt")); }
  std::string Stderr() const { return ReadFile(dir_.File("stderr.txt")); }
  // Polls the log until it contains needle.
  bool WaitForLog(const std::string& needle, int timeoutMs = 5000) const;
  const TempDir& dir() const { return dir_; }
  const std::string& libDir() const { return libDir_; }

 private:
  TempDir dir_;
  std::string binary_;
  std::string libDir_;
  std::string logPath_;
  std::map<std::string, std::string> env_;
  uint16_t port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_DAEMON_PROCESS_H_
