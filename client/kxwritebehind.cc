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
  if (writer_.joinable()) writer_.join();
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
  if (!writer_.joinable()) {
    try {
      writer_ = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
      return -1;
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

// The queue in order: the front stays queued while it is written, so that
// Wait and QueuedEnd count it.
void WriteBehind::Run() {
  std::unique_lock l(lock_);
  for (;;) {
    changed_.wait(l, [&] { return stop_ || !queue_.empty(); });
    if (queue_.empty()) return;  // stopped, and everything is on the disk
    Buffer& b = buffers_[queue_.front()];
    l.unlock();
    const ssize_t put = put_(b.at, b.buf.data(), b.n);
    changes_.End();
    l.lock();
    if (put != static_cast<ssize_t>(b.n) && error_ == 0) error_ = put < 0 ? static_cast<int>(put) : -EIO;
    b.state = State::kFree;
    queue_.pop_front();
    changed_.notify_all();
  }
}

}  // namespace kestrix::client
