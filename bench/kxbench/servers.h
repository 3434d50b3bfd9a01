// kxbench's servers: the daemon it starts itself (or one already running),
// the minimal echo responder it compares the daemon with, and the CPU time a
// server process has used, read from /proc.
#ifndef KESTRIX_BENCH_KXBENCH_SERVERS_H_
#define KESTRIX_BENCH_KXBENCH_SERVERS_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kxbench {

// CPU time (user and system, all threads) of a process in nanoseconds, from
// the scheduler's accounting of each of its threads; -1 when it cannot be read.
int64_t ProcessCpuNs(pid_t pid);


// A server child process of kxbench, stopped by its PID when it goes.
class ServerProcess {
 public:
  ServerProcess() = default;
  ~ServerProcess() { Stop(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // kestrixd in the foreground on `port`, with the plug-in alone in a
  // temporary plug-in directory and the log in a file there; waits until it
  // answers. With metered, its admin socket lies there too and its metrics
  // are served on 127.0.0.1:`port` over TCP, so that it counts and times
  // every request; without, it has neither and counts nothing. False (with
  // the reason in error()) when it does not answer.
  bool StartDaemon(const std::string& daemon, const std::string& plugin,
                   const std::vector<std::string>& options, uint16_t port, bool metered);
  // The echo responder on `port`: one thread that answers each datagram with
  // its header (function code negated) in a reply of replySize[code] bytes,
  // or of the datagram's own size for codes without one.
  bool StartEcho(uint16_t port, const uint32_t (&replySize)[100]);
  void Stop();

  pid_t pid() const { return pid_; }
  const std::string& error() const { return error_; }

 private:
  bool WaitUntilAnswering(uint16_t port);

  pid_t pid_ = -1;
  std::string dir_;
  std::string error_;
};

}  // namespace kxbench

#endif  // KESTRIX_BENCH_KXBENCH_SERVERS_H_
