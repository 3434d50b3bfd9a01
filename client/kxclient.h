// Client side of the protocol: a UDP endpoint that sends one request to the
// daemon and waits for its reply, and helpers that build requests.
#ifndef KESTRIX_CLIENT_KXCLIENT_H_
#define KESTRIX_CLIENT_KXCLIENT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lanheader.h"

namespace kestrix::client {

using Bytes = std::vector<uint8_t>;

// A UDP socket bound to an ephemeral port, talking to one daemon address.
class Endpoint {
 public:
  Endpoint(const std::string& host, uint16_t port);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  bool ok() const { return fd_ >= 0; }
  uint16_t localPort() const;
  bool Send(const Bytes& datagram);
  // The next datagram, or nothing after timeoutMs.
  std::optional<Bytes> Receive(int timeoutMs);
  // Send and wait for one reply.
  std::optional<Bytes> Transact(const Bytes& request, int timeoutMs = 2000);

 private:
  int fd_ = -1;
  uint8_t peer_[16] = {};  // sockaddr_in of the daemon
};

// A request of `size` bytes (at least the header) whose header holds the
// marker 1, the function code, length = size, the given flags and ID.
Bytes MakeRequest(int32_t functionCode, uint32_t size, uint32_t flags = 0,
                  const std::string& messageId = "");

inline LanHeader* HeaderOf(Bytes& message) { return reinterpret_cast<LanHeader*>(message.data()); }
inline const LanHeader* HeaderOf(const Bytes& message) {
  return reinterpret_cast<const LanHeader*>(message.data());
}

// Reverses the converted header fields in place, as a sender of the other
// byte order would have written them (the marker included).
void SwapHeader(Bytes& message);

// UTF-8 text as FSUNI units written at `offset` (room for `units` units).
void PutText(Bytes& message, size_t offset, size_t units, const std::u16string& text);
std::u16string ToUtf16(const std::string& utf8);
std::string ToUtf8(const std::u16string& text);

template <typename T>
T Read(const Bytes& message, size_t offset) {
  T value{};
  if (offset + sizeof(T) <= message.size())
    __builtin_memcpy(&value, message.data() + offset, sizeof(T));
  return value;
}

template <typename T>
void Write(Bytes& message, size_t offset, T value) {
  if (offset + sizeof(T) <= message.size())
    __builtin_memcpy(message.data() + offset, &value, sizeof(T));
}

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXCLIENT_H_
