// Read-ahead windows of one open handle: which windows serve a read, when
// new ones are read, and the budget all handles share.
#include "client/kxreadahead.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

namespace kestrix::client {

namespace {

std::atomic<size_t> g_budgetUsed{0};

int64_t NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

ReadAhead::~ReadAhead() {
  Stop();
  for (Window& w : windows_)
    if (w.reader.joinable()) w.reader.join();
  if (held_) g_budgetUsed.fetch_sub(kWindow * kWindows);
}

void ReadAhead::Stop() {
  std::unique_lock l(lock_);
  stopped_ = true;
  ready_.wait(l, [&] {
    return std::none_of(std::begin(windows_), std::end(windows_),
                        [](const Window& w) { return w.state == State::kReading; });
  });
}

// A window may serve reads when it was read (or is being read) since the
// last change, and not too long ago.
bool ReadAhead::Usable(const Window& w, uint64_t change, int64_t nowMs) const {
  if (w.state == State::kEmpty || change == ChangeCount::kChanging || w.change != change) return false;
  return w.state == State::kReading || (w.got >= 0 && nowMs - w.readyMs <= kFreshMs);
}

ssize_t ReadAhead::Serve(int64_t offset, size_t n, Pieces* pieces) {
  std::unique_lock l(lock_);
  pieces->count = 0;
  int64_t pos = offset;
  size_t left = n;
  bool end = false;  // the file ends before offset + n
  while (left > 0 && !end) {
    const uint64_t change = changes_.Now();
    const int64_t now = NowMs();
    int i = 0;
    while (i < kWindows && !(Usable(windows_[i], change, now) && windows_[i].at <= pos &&
                             pos < windows_[i].at + static_cast<int64_t>(kWindow)))
      ++i;
    if (i == kWindows || pieces->count == kWindows) break;
    Window& w = windows_[i];
    if (w.state == State::kReading) {
      ready_.wait(l, [&] { return w.state != State::kReading; });
      continue;  // looked at again: it may have failed, or a change come
    }
    end = w.got < static_cast<ssize_t>(kWindow);
    const int64_t here = w.at + w.got - pos;
    if (here <= 0) break;
    const size_t take = std::min(left, static_cast<size_t>(here));
    pieces->iov[pieces->count] = {w.buf.data() + (pos - w.at), take};
    pieces->window[pieces->count++] = i;
    ++w.holds;
    pos += static_cast<int64_t>(take);
    left -= take;
  }
  if (left == 0 || end) return static_cast<ssize_t>(n - left);
  for (int p = 0; p < pieces->count; ++p) --windows_[pieces->window[p]].holds;
  pieces->count = 0;
  return -1;
}

void ReadAhead::Done(const Pieces& pieces, int64_t offset, size_t got) {
  std::lock_guard l(lock_);
  for (int p = 0; p < pieces.count; ++p) --windows_[pieces.window[p]].holds;
  const bool sequential = offset == end_;
  end_ = offset + static_cast<int64_t>(got);
  if (!sequential || got == 0 || stopped_) return;
  const uint64_t change = changes_.Now();
  if (change == ChangeCount::kChanging) return;
  const int64_t now = NowMs();

  // The windows that go on from the reader's position without a gap are
  // kept; the rest are free for what comes after them.
  bool kept[kWindows] = {};
  int64_t ahead = end_;
  for (bool found = true; found;) {
    found = false;
    for (int i = 0; i < kWindows; ++i) {
      const Window& w = windows_[i];
      if (kept[i] || !Usable(w, change, now) || w.at > ahead || ahead >= w.at + static_cast<int64_t>(kWindow))
        continue;
      if (w.state == State::kReady && w.got < static_cast<ssize_t>(kWindow)) return;  // the end is read
      kept[i] = found = true;
      ahead = w.at + static_cast<int64_t>(kWindow);
    }
  }
  for (int i = 0; i < kWindows; ++i) {
    Window& w = windows_[i];
    if (kept[i] || w.holds > 0 || w.state == State::kReading) continue;
    if (!held_) {
      if (g_budgetUsed.fetch_add(kWindow * kWindows) + kWindow * kWindows > kBudget) {
        g_budgetUsed.fetch_sub(kWindow * kWindows);
        return;  // other readers hold it all: this one reads the disk itself
      }
      held_ = true;
    }
    Start(w, ahead, change);
    ahead += static_cast<int64_t>(kWindow);
  }
}

void ReadAhead::Start(Window& w, int64_t at, uint64_t change) {
  if (w.buf.size() < kWindow) w.buf.Resize(kWindow);
  if (!w.buf.data()) return;
  if (w.reader.joinable()) w.reader.join();  // ended: it marked the window ready
  w.state = State::kReading;
  w.at = at;
  w.got = 0;
  w.change = change;
  try {
    w.reader = std::thread([this, &w, at] {
      const ssize_t got = fetch_(at, w.buf.data(), kWindow);
      {
        std::lock_guard l(lock_);
        w.got = got;
        w.readyMs = NowMs();
        w.state = State::kReady;
      }
      ready_.notify_all();
    });
  } catch (const std::system_error&) {
    w.state = State::kEmpty;  // no thread to spare: the reader reads the disk itself
  }
}

}  // namespace kestrix::client
