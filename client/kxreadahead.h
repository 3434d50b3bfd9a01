// Read-ahead for a program reading a mounted file from start to end: while
// it takes one window of the file, the next ones are read from the disk on
// threads of their own, so the disk never waits for the program's next
// request. What was read ahead is used only if no write or size change by
// this host came in between, and only for a short time after it was read.
#ifndef KESTRIX_CLIENT_KXREADAHEAD_H_
#define KESTRIX_CLIENT_KXREADAHEAD_H_

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "client/kxdirect.h"

namespace kestrix::client {

// Counts the changes this host makes to one file's bytes or size. A change
// calls Begin before it touches the file and End once it is done, or holds
// a Guard for as long as it runs.
class ChangeCount {
 public:
  class Guard {
   public:
    explicit Guard(ChangeCount& c) : c_(c) { c_.Begin(); }
    ~Guard() { c_.End(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    ChangeCount& c_;
  };
  static constexpr uint64_t kChanging = ~uint64_t{0};
  void Begin() {
    running_.fetch_add(1);
    count_.fetch_add(1);
  }
  void End() {
    count_.fetch_add(1);
    running_.fetch_sub(1);
  }
  // The count, or kChanging while a change runs. Two equal answers mean no
  // change began or ended between them.
  uint64_t Now() const {
    const uint64_t n = count_.load();
    return running_.load() > 0 ? kChanging : n;
  }

 private:
  std::atomic<uint64_t> count_{0};
  std::atomic<int> running_{0};
};

class ReadAhead {
 public:
  // Reads n bytes at offset into an aligned buffer: the count (short only
  // at the end of the file) or a negative errno value.
  using Fetch = std::function<ssize_t(int64_t offset, uint8_t* buf, size_t n)>;
  static constexpr size_t kWindow = size_t{4} << 20;
  static constexpr int kWindows = 3;
  // Every ReadAhead of the process together holds at most this much.
  static constexpr size_t kBudget = size_t{256} << 20;
  // Windows read longer ago than this are read again from the disk.
  static constexpr int kFreshMs = 500;

  ReadAhead(const ChangeCount& changes, Fetch fetch) : changes_(changes), fetch_(std::move(fetch)) {}
  ~ReadAhead();  // stops
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // Pieces of the windows given to one read, held until its Done.
  struct Pieces {
    iovec iov[kWindows];
    int window[kWindows];
    int count = 0;
  };
  // What the windows hold of [offset, offset + n), waited for while its
  // read runs: the whole range, or up to the end of the file, in *pieces,
  // and the count of bytes. -1 (and no pieces) when the range is not all
  // there: the caller reads the disk itself.
  ssize_t Serve(int64_t offset, size_t n, Pieces* pieces);
  // The read of [offset, offset + got) was answered: its pieces are let
  // go, and when the reads come one after another, windows are read ahead
  // of the new position.
  void Done(const Pieces& pieces, int64_t offset, size_t got);
  // No window is read from now on; waits for the reads in flight.
  void Stop();

 private:
  enum class State { kEmpty, kReading, kReady };
  struct Window {
    State state = State::kEmpty;
    int64_t at = 0;
    ssize_t got = 0;
    uint64_t change = 0;  // the ChangeCount when its read began
    int64_t readyMs = 0;
    int holds = 0;
    AlignedBuffer buf;
    std::thread reader;
  };
  bool Usable(const Window& w, uint64_t change, int64_t nowMs) const;
  void Start(Window& w, int64_t at, uint64_t change);

  const ChangeCount& changes_;
  const Fetch fetch_;
  std::mutex lock_;
  std::condition_variable ready_;
  Window windows_[kWindows];
  int64_t end_ = -1;   // where the last read ended
  bool held_ = false;  // this reader's windows count in the budget
  bool stopped_ = false;
};

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXREADAHEAD_H_
