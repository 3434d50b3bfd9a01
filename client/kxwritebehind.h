// Write-behind for a mounted file: a program's write is answered once its
// bytes are copied into one of the file's buffers, and a thread of the
// file's own puts the buffers on the disk in the order they came, while
// the program prepares its next write. The disk write is the RemoteFile's,
// under the lease and every check; a failure is told at the next write,
// flush, fsync or close of the file, and at every one after it.
#ifndef KESTRIX_CLIENT_KXWRITEBEHIND_H_
#define KESTRIX_CLIENT_KXWRITEBEHIND_H_

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "client/kxdirect.h"
#include "client/kxreadahead.h"

namespace kestrix::client {

class WriteBehind {
 public:
  // Writes n bytes at offset from an aligned buffer: n, or a negative
  // errno value.
  using Put = std::function<ssize_t(int64_t offset, const uint8_t* buf, size_t n)>;
  static constexpr int kBuffers = 4;
  // Queued writes put on the disk at once; one that overlaps an earlier
  // queued write waits for it, so the last write of a byte lands last.
  // One: with two, a sequential reader's test saw a few hundred bytes of
  // zeros once in a few runs, not yet explained.
  static constexpr int kWriters = 1;
  static constexpr size_t kBufferBytes = size_t{1} << 20;  // the largest FUSE write
  // Every WriteBehind of the process together holds at most this much.
  static constexpr size_t kBudget = size_t{256} << 20;

  WriteBehind(ChangeCount& changes, Put put) : changes_(changes), put_(std::move(put)) {}
  ~WriteBehind();  // puts what is queued on the disk first
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;

  // A free buffer for n bytes, waited for while all are queued: its number,
  // or -1 when n is too large or the budget is spent (the caller then
  // writes itself, after Wait).
  int Take(size_t n);
  uint8_t* Data(int buffer) { return buffers_[buffer].buf.data(); }
  // Queues the taken buffer's n bytes for offset. The change counts from
  // here until the bytes are on the disk.
  void Queue(int buffer, int64_t offset, size_t n);
  // Gives a taken buffer back unqueued.
  void Give(int buffer);
  // Waits until every queued write is on the disk.
  void Wait();
  // The first failure of a queued write, as a negative errno value, or 0.
  // It stays: every later write, flush and fsync of the file fails with it
  // until the file's last close, so that no handle (nor a forked child's
  // close) takes it away from the program that lost data.
  int Failed();
  // The end of the furthest queued write, or -1: the file is at least this
  // long once they are on the disk.
  int64_t QueuedEnd();

 private:
  enum class State { kFree, kTaken, kQueued };
  struct Buffer {
    State state = State::kFree;
    int64_t at = 0;
    size_t n = 0;
    bool writing = false;
    AlignedBuffer buf;
  };
  void Run();
  // The first queued buffer that is not being written and overlaps no
  // earlier queued one, or -1.
  int Next() const;

  ChangeCount& changes_;
  const Put put_;
  std::mutex lock_;
  std::condition_variable changed_;
  Buffer buffers_[kBuffers];
  std::deque<int> queue_;  // buffer numbers in the order they came
  int error_ = 0;
  bool held_ = false;  // this file's buffers count in the budget
  bool stop_ = false;
  std::thread writers_[kWriters];
};

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXWRITEBEHIND_H_
