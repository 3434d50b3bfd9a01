// UDP endpoint and request helpers for talking to kestrixd.
#include "client/kxclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace kestrix::client {

Endpoint::Endpoint(const std::string& host, uint16_t port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &peer.sin_addr) != 1) return;
  static_assert(sizeof peer == sizeof peer_);
  std::memcpy(peer_, &peer, sizeof peer);
  fd_ = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd_ < 0) return;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    close(fd_);
    fd_ = -1;
  }
}

Endpoint::~Endpoint() {
  if (fd_ >= 0) close(fd_);
}

uint16_t Endpoint::localPort() const {
  sockaddr_in local{};
  socklen_t length = sizeof local;
  if (getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
  return ntohs(local.sin_port);
}

bool Endpoint::Send(const Bytes& datagram) {
  ssize_t sent = sendto(fd_, datagram.data(), datagram.size(), 0,
                        reinterpret_cast<const sockaddr*>(peer_), sizeof peer_);
  return sent == static_cast<ssize_t>(datagram.size());
}

std::optional<Bytes> Endpoint::Receive(int timeoutMs) {
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, timeoutMs) <= 0) return std::nullopt;
  Bytes buffer(65536);
  ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
  if (n < 0) return std::nullopt;
  buffer.resize(static_cast<size_t>(n));
  return buffer;
}

std::optional<Bytes> Endpoint::Transact(const Bytes& request, int timeoutMs) {
  if (!Send(request)) return std::nullopt;
  return Receive(timeoutMs);
}

Bytes MakeRequest(int32_t functionCode, uint32_t size, uint32_t flags,
                  const std::string& messageId) {
  Bytes message(std::max<uint32_t>(size, LAN_HEADER_SIZE), 0);
  LanHeader* header = HeaderOf(message);
  header->byteOrder = LAN_BYTEORDER_MARK;
  header->functionCode = functionCode;
  header->length = size;
  header->flags = flags;
  std::memcpy(header->messageID, messageId.data(),
              std::min<size_t>(messageId.size(), LAN_MSGID_SIZE));
  return message;
}

namespace {
void Reverse(uint8_t* p, size_t width) { std::reverse(p, p + width); }
}  // namespace

void SwapHeader(Bytes& message) {
  uint8_t* p = message.data();
  for (size_t offset : {0, 4, 24, 28, 32, 36}) Reverse(p + offset, 4);
  Reverse(p + 42, 2);
}

void PutText(Bytes& message, size_t offset, size_t units, const std::u16string& text) {
  size_t n = std::min(units, text.size());
  if (offset + 2 * n > message.size()) return;
  std::memcpy(message.data() + offset, text.data(), 2 * n);
}

std::u16string ToUtf16(const std::string& utf8) {
  std::u16string out;
  for (size_t i = 0; i < utf8.size();) {
    auto b = static_cast<unsigned char>(utf8[i]);
    uint32_t cp;
    size_t len;
    if (b < 0x80) { cp = b; len = 1; }
    else if ((b >> 5) == 6) { cp = b & 0x1F; len = 2; }
    else if ((b >> 4) == 14) { cp = b & 0x0F; len = 3; }
    else { cp = b & 0x07; len = 4; }
    for (size_t k = 1; k < len && i + k < utf8.size(); ++k)
      cp = (cp << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3F);
    i += len;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 | (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 | (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::string ToUtf8(const std::u16string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t cp = text[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[++i] - 0xDC00);
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

}  // namespace kestrix::client
