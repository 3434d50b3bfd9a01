// Chunks of a stream moved from a source to a sink through a few aligned
// buffers, with more than one thread on the side that may work out of
// order: several readers of a remote file feeding one ordered output, or
// one ordered input feeding several writers of a remote file. Memory is
// the buffers, whatever the length of the stream.
#ifndef KESTRIX_CLIENT_KXPUMP_H_
#define KESTRIX_CLIENT_KXPUMP_H_

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace kestrix::client {

struct PumpOptions {
  size_t buffers = 4;
  size_t bufferBytes = 8 << 20;
  unsigned fillers = 1;   // more than one: chunks are filled out of order
  unsigned drainers = 1;  // more than one: chunks are drained out of order
};

// fill(chunk, buffer, capacity, stop) puts the bytes of chunk number
// `chunk` into the buffer and returns their count: the capacity for every
// chunk but the last, 0 past the end, negative on failure; it may give up
// early once `stop` is set. drain(chunk, buffer, n) takes them and returns
// false on failure. Chunks reach a single drainer in order. True when
// every chunk up to the end was filled and drained.
bool Pump(const PumpOptions& options,
          const std::function<ssize_t(uint64_t, uint8_t*, size_t, const std::atomic<bool>&)>& fill,
          const std::function<bool(uint64_t, const uint8_t*, size_t)>& drain);

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXPUMP_H_
