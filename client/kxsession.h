// A client of one kestrixd: every request of the protocol as a call that
// returns the decoded reply. Requests take part in duplicate detection and
// are sent again, with the same message ID, when no reply comes in time, so
// a lost reply never runs a request twice. Requests can be sent in the
// other byte order, as a client of the other endianness would write them.
#ifndef KESTRIX_CLIENT_KXSESSION_H_
#define KESTRIX_CLIENT_KXSESSION_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "client/kxclient.h"

namespace kestrix::client {

struct ClientOptions {
  std::string host = "127.0.0.1";  // a name or an IPv4 address
  uint16_t port = 5501;
  int timeoutMs = 2000;  // per attempt
  int retries = 2;       // further attempts after a time-out
  bool swapped = false;  // send requests in the other byte order
};

// The port named by KESTRIX_PORT, or 5501.
uint16_t DefaultPort();

// Reverses every integer and FSUNI unit of a host-order request in place,
// header included: the request a sender of the other byte order would send.
// The SendStringCmd text stays as it is, because the daemon reads it in its
// own order. Unknown function codes get their header reversed only.
void SwapRequest(Bytes& request);

class Client {
 public:
  explicit Client(ClientOptions options);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  const ClientOptions& options() const { return options_; }
  // The daemon's address as dialled ("127.0.0.1:5501").
  std::string peer() const;
  // Why the last call has no reply ("no reply from ... after 3 attempts",
  // "nothing listens on ...: connection refused").
  const std::string& error() const { return error_; }
  // Attempts the last call made (1 when the first one was answered).
  int attempts() const { return attempts_; }
  // The last call got a datagram back (of the right kind or not).
  bool replied() const { return replied_; }

  // Sends a host-order request (stamped with a fresh message ID and the
  // duplicate-detection flag) until a reply with that ID and the request's
  // function code comes from the daemon's address and port, at most
  // 1 + retries times. Nothing when none came, with error() set.
  std::optional<Bytes> Call(Bytes request);
  // When the last call was first sent: a lease granted in its reply runs
  // from no earlier than this.
  std::chrono::steady_clock::time_point sentAt() const { return sentAt_; }

  std::optional<GetVolumeInfo> GetVolume(const std::string& shareOrPath);
  std::optional<GetVolumeInfo> GetVolumeByCookie(const uint8_t* cookie);
  std::optional<MapReply> Open(const std::string& share, const std::string& file,
                               const OpenOptions& options = {});
  // Sizes other than -1 change the file size or grow its allocation first.
  std::optional<MapReply> ExtendedMap(uint32_t key, int64_t start, int64_t length = 0,
                                      uint32_t lease = 0, int64_t fileSize = -1,
                                      int64_t allocation = -1, uint32_t flag = 0);
  std::optional<StatusReply> SetSize(uint32_t key, int64_t fileSize, uint32_t lease = 0);
  std::optional<StatusReply> Close(uint32_t key, int64_t fileSize = -1);
  // The result of a string command (always 0 from the daemon).
  std::optional<int32_t> Command(const std::string& text);

 private:
  template <typename T>
  std::optional<T> Decoded(std::optional<Bytes> reply,
                           std::optional<T> (*parse)(const Bytes&));

  ClientOptions options_;
  std::unique_ptr<Endpoint> endpoint_;
  std::string address_;  // dotted IPv4 of the host
  std::string error_;
  int attempts_ = 0;
  bool replied_ = false;
  uint32_t sequence_ = 0;
  std::chrono::steady_clock::time_point sentAt_{};
};

// The body's result of a SendStringCmd reply (code -7).
std::optional<int32_t> ParseCommandReply(const Bytes& reply);

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXSESSION_H_
