// Calls to one daemon: message IDs, retries with duplicate detection, the
// other byte order, and decoding of each reply.
#include "client/kxsession.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "spmsgs.h"
#include "wire_fields.h"
#include "wire_functions.h"

namespace kestrix::client {

namespace {

std::optional<std::string> ResolveIPv4(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
    return std::nullopt;
  char text[INET_ADDRSTRLEN] = {};
  const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  const char* ok = inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
  freeaddrinfo(found);
  if (ok == nullptr) return std::nullopt;
  return std::string(text);
}

}  // namespace

uint16_t DefaultPort() {
  const char* text = std::getenv("KESTRIX_PORT");
  if (text == nullptr || *text == '\0') return 5501;
  char* end = nullptr;
  long port = std::strtol(text, &end, 10);
  return *end == '\0' && port >= 1 && port <= 65535 ? static_cast<uint16_t>(port) : 5501;
}

void SwapRequest(Bytes& m) {
  if (m.size() < LAN_HEADER_SIZE) return;
  const int32_t code = HeaderOf(m)->functionCode;
  SwapHeader(m);
  const wire::Function* function = wire::FunctionOf(code);
  if (function == nullptr) return;
  const wire::Layout* body = function->request;
  wire::SwapFields(m.data(), m.size(), body->begin(), body->end(), false);
}

Client::Client(ClientOptions options) : options_(std::move(options)) {
  std::optional<std::string> address = ResolveIPv4(options_.host);
  if (!address) {
    error_ = "unknown host '" + options_.host + "'";
    return;
  }
  address_ = *address;
  endpoint_ = std::make_unique<Endpoint>(address_, options_.port);
  if (!endpoint_->ok()) {
    error_ = "cannot open a UDP socket to " + peer() + ": " + std::strerror(errno);
    endpoint_.reset();
  }
}

Client::~Client() = default;

std::string Client::peer() const {
  return (address_.empty() ? options_.host : address_) + ":" + std::to_string(options_.port);
}

std::optional<Bytes> Client::Call(Bytes request) {
  attempts_ = 0;
  replied_ = false;
  if (!endpoint_) return std::nullopt;  // error_ says why since construction
  if (request.size() < LAN_HEADER_SIZE) request.resize(LAN_HEADER_SIZE, 0);
  // A message ID that differs between processes and between calls.
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const uint32_t id[4] = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec),
                          static_cast<uint32_t>(getpid()), ++sequence_};
  std::memcpy(HeaderOf(request)->messageID, id, sizeof id);
  HeaderOf(request)->flags |= LAN_FLAG_TRACK;
  // A reply carries the request's function code negated.
  const int32_t replyCode =
      static_cast<int32_t>(0u - static_cast<uint32_t>(HeaderOf(request)->functionCode));
  if (options_.swapped) SwapRequest(request);
  sentAt_ = std::chrono::steady_clock::now();

  using Clock = std::chrono::steady_clock;
  const int tries = 1 + std::max(0, options_.retries);
  int refusals = 0;  // attempts the daemon's host answered with "port unreachable"
  for (attempts_ = 1; attempts_ <= tries; ++attempts_) {
    if (!endpoint_->Send(request)) {
      error_ = "cannot send to " + peer() + ": " + std::strerror(errno);
      return std::nullopt;
    }
    // Datagrams of other calls (a late reply to an earlier ID) and of
    // another kind are skipped.
    const auto deadline = Clock::now() + std::chrono::milliseconds(options_.timeoutMs);
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) break;
      std::optional<Bytes> reply = endpoint_->Receive(static_cast<int>(left.count()));
      if (!reply && endpoint_->refused()) {
        ++refusals;
        break;
      }
      if (reply && reply->size() >= LAN_HEADER_SIZE &&
          std::memcmp(reply->data() + offsetof(LanHeader, messageID), id, sizeof id) == 0 &&
          ParseHeader(*reply)->functionCode == replyCode) {
        error_.clear();
        replied_ = true;
        return reply;
      }
    }
  }
  attempts_ = tries;
  if (refusals == tries)
    error_ = "nothing listens on " + peer() + ": connection refused (is kestrixd running on that port?)";
  else
    error_ = "no reply from " + peer() + " after " + std::to_string(tries) + " attempt" +
             (tries == 1 ? "" : "s") + " of " + std::to_string(options_.timeoutMs) +
             " ms (is kestrixd running on that port?)";
  return std::nullopt;
}

template <typename T>
std::optional<T> Client::Decoded(std::optional<Bytes> reply,
                                 std::optional<T> (*parse)(const Bytes&)) {
  if (!reply) return std::nullopt;
  std::optional<T> decoded = parse(*reply);
  if (!decoded) {
    std::optional<ReplyHeader> h = ParseHeader(*reply);
    error_ = h ? "unexpected reply: function code " + std::to_string(h->functionCode) +
                     ", header result " + std::to_string(h->result) + " (" +
                     ResultName(h->result) + "), " + std::to_string(reply->size()) + " bytes"
               : "reply of " + std::to_string(reply->size()) + " bytes is shorter than a header";
  }
  return decoded;
}

std::optional<GetVolumeInfo> Client::GetVolume(const std::string& shareOrPath) {
  return Decoded(Call(MakeGetVolumeRequest(shareOrPath)), ParseGetVolumeReply);
}

std::optional<GetVolumeInfo> Client::GetVolumeByCookie(const uint8_t* cookie) {
  return Decoded(Call(MakeGetVolumeRequest("", cookie)), ParseGetVolumeReply);
}

std::optional<MapReply> Client::Open(const std::string& share, const std::string& file,
                                     const OpenOptions& options) {
  return Decoded(Call(MakeGetInitialMapRequest(share, file, options)), ParseMapReply);
}

std::optional<MapReply> Client::ExtendedMap(uint32_t key, int64_t start, int64_t length,
                                            uint32_t lease, int64_t fileSize,
                                            int64_t allocation, uint32_t flag) {
  return Decoded(
      Call(MakeGetExtendedMapRequest(key, start, length, lease, fileSize, allocation, flag)),
      ParseMapReply);
}

std::optional<StatusReply> Client::SetSize(uint32_t key, int64_t fileSize, uint32_t lease) {
  return Decoded(Call(MakeSetSizeRequest(key, fileSize, lease)), ParseStatusReply);
}

std::optional<StatusReply> Client::Close(uint32_t key, int64_t fileSize) {
  return Decoded(Call(MakeCloseRequest(key, fileSize)), ParseStatusReply);
}

std::optional<int32_t> Client::Command(const std::string& text) {
  return Decoded(Call(MakeStringCommandRequest(text)), ParseCommandReply);
}

std::optional<int32_t> ParseCommandReply(const Bytes& reply) {
  std::optional<ReplyHeader> h = ParseHeader(reply);
  if (!h || h->functionCode != -SP_FUNC_SENDSTRINGCMD ||
      reply.size() < wire::SendStringCmdReply::zero.offset)
    return std::nullopt;
  const auto raw = Read<uint32_t>(reply, wire::SendStringCmdReply::result.offset);
  return static_cast<int32_t>(h->swapped ? __builtin_bswap32(raw) : raw);
}

}  // namespace kestrix::client
