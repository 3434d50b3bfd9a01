// The buffers and the writer thread of one file's write-behind, and the
// budget all files share.
#include "client/kxwritebehind.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>

namespace kestrix::client {

namespace {

std::atomic<size_t> g_budgetUsed{0};
constexpr size_t kHeld = WriteBehind::kBuffers * WriteBehind::kBufferBytes;

}  // namespace

WriteBehind::~WriteBehind() {
  {
    std::lock_guard l(lock_);
    stop_ = true;
  }
  changed_.notify_all();
  for (std::thread& w : writers_)
    if (w.joinable()) w.join();
  if (held_) g_budgetUsed.fetch_sub(kHeld);
}

int WriteBehind::Take(size_t n) {
  std::unique_lock l(lock_);
  if (n > kBufferBytes) return -1;
  if (!held_) {
    if (g_budgetUsed.fetch_add(kHeld) + kHeld > kBudget) {
      g_budgetUsed.fetch_sub(kHeld);
      return -1;
    }
    held_ = true;
  }
  for (std::thread& w : writers_) {
    if (w.joinable()) continue;
    try {
      w = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
      if (&w == &writers_[0]) return -1;  // one writer is enough to go on
    }
  }
  for (;;) {
    for (int i = 0; i < kBuffers; ++i) {
      Buffer& b = buffers_[i];
      if (b.state != State::kFree) continue;
      if (b.buf.size() < kBufferBytes) b.buf.Resize(kBufferBytes);
      if (!b.buf.data()) return -1;
      b.state = State::kTaken;
      return i;
    }
    changed_.wait(l);
  }
}

void WriteBehind::Queue(int buffer, int64_t offset, size_t n) {
  changes_.Begin();
  {
    std::lock_guard l(lock_);
    Buffer& b = buffers_[buffer];
    b.state = State::kQueued;
    b.at = offset;
    b.n = n;
    queue_.push_back(buffer);
  }
  changed_.notify_all();
}

void WriteBehind::Give(int buffer) {
  {
    std::lock_guard l(lock_);
    buffers_[buffer].state = State::kFree;
  }
  changed_.notify_all();
}

void WriteBehind::Wait() {
  std::unique_lock l(lock_);
  changed_.wait(l, [&] { return queue_.empty(); });
}

int WriteBehind::Failed() {
  std::lock_guard l(lock_);
  return error_;
}

int64_t WriteBehind::QueuedEnd() {
  std::lock_guard l(lock_);
  int64_t end = -1;
  for (int i : queue_) end = std::max(end, buffers_[i].at + static_cast<int64_t>(buffers_[i].n));
  return end;
}

int WriteBehind::Next() const {
  for (size_t q = 0; q < queue_.size(); ++q) {
    const Buffer& b = buffers_[queue_[q]];
    if (b.writing) continue;
    bool overlaps = false;
    for (size_t e = 0; e < q && !overlaps; ++e) {
      const Buffer& earlier = buffers_[queue_[e]];
      overlaps = b.at < earlier.at + static_cast<int64_t>(earlier.n) &&
                 earlier.at < b.at + static_cast<int64_t>(b.n);
    }
    if (!overlaps) return queue_[q];
  }
  return -1;
}

// A buffer stays queued while it is written, so that Wait and QueuedEnd
// count it.
void WriteBehind::Run() {
  std::unique_lock l(lock_);
  for (;;) {
    int next = -1;
    changed_.wait(l, [&] { return (next = Next()) >= 0 || (stop_ && queue_.empty()); });
    if (next < 0) return;  // stopped, and everything is on the disk
    Buffer& b = buffers_[next];
    b.writing = true;
    l.unlock();
    const ssize_t put = put_(b.at, b.buf.data(), b.n);
    changes_.End();
    l.lock();
    if (put != static_cast<ssize_t>(b.n) && error_ == 0) error_ = put < 0 ? static_cast<int>(put) : -EIO;
    b.writing = false;
    b.state = State::kFree;
    queue_.erase(std::find(queue_.begin(), queue_.end(), next));
    changed_.notify_all();
  }
}

}  // namespace kestrix::client
