// The pump: chunk i always goes through buffer i % buffers, so a buffer is
// filled again only after its previous chunk was drained, and a single
// drainer takes the chunks in their order.
#include "client/kxpump.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "client/kxdirect.h"

namespace kestrix::client {

namespace {

struct Slot {
  enum State { kFree, kFilling, kFull, kDraining } state = kFree;
  uint64_t chunk = 0;
  ssize_t bytes = 0;
  AlignedBuffer buffer;
};

}  // namespace

bool Pump(const PumpOptions& o,
          const std::function<ssize_t(uint64_t, uint8_t*, size_t, const std::atomic<bool>&)>& fill,
          const std::function<bool(uint64_t, const uint8_t*, size_t)>& drain) {
  std::vector<Slot> slots(std::max<size_t>(o.buffers, 1));
  for (Slot& s : slots) {
    s.buffer.Resize(o.bufferBytes);
    if (s.buffer.data() == nullptr) return false;
  }
  std::mutex mu;
  std::condition_variable cv;
  std::atomic<bool> stop{false};
  bool failed = false;
  uint64_t nextFill = 0, nextDrain = 0, end = UINT64_MAX;  // end: the first chunk past the data

  auto filler = [&] {
    std::unique_lock<std::mutex> l(mu);
    for (;;) {
      cv.wait(l, [&] { return stop || nextFill >= end || slots[nextFill % slots.size()].state == Slot::kFree; });
      if (stop || nextFill >= end) return;
      const uint64_t chunk = nextFill++;
      Slot& s = slots[chunk % slots.size()];
      s.state = Slot::kFilling;
      s.chunk = chunk;
      l.unlock();
      const ssize_t n = fill(chunk, s.buffer.data(), s.buffer.size(), stop);
      l.lock();
      s.bytes = n;
      s.state = Slot::kFull;
      if (n <= 0 && chunk < end) end = chunk;
      if (n < 0) failed = true, stop = true;
      cv.notify_all();
    }
  };
  auto drainer = [&] {
    std::unique_lock<std::mutex> l(mu);
    for (;;) {
      cv.wait(l, [&] {
        return stop || nextDrain >= end ||
               (slots[nextDrain % slots.size()].state == Slot::kFull &&
                slots[nextDrain % slots.size()].chunk == nextDrain);
      });
      if (stop || nextDrain >= end) return;
      const uint64_t chunk = nextDrain++;
      Slot& s = slots[chunk % slots.size()];
      s.state = Slot::kDraining;
      l.unlock();
      const bool ok = drain(chunk, s.buffer.data(), static_cast<size_t>(s.bytes));
      l.lock();
      s.state = Slot::kFree;
      if (!ok) failed = true, stop = true;
      cv.notify_all();
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < std::max(1u, o.fillers); ++i) threads.emplace_back(filler);
  for (unsigned i = 0; i < std::max(1u, o.drainers); ++i) threads.emplace_back(drainer);
  for (std::thread& t : threads) t.join();
  return !failed;
}

}  // namespace kestrix::client
