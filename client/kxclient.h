// Client side of the protocol: a UDP endpoint that sends one request to the
// daemon and waits for its reply, and helpers that build requests.
#ifndef KESTRIX_CLIENT_KXCLIENT_H_
#define KESTRIX_CLIENT_KXCLIENT_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fstypes.h"
#include "lanheader.h"

namespace kestrix::client {

using Bytes = std::vector<uint8_t>;

// A UDP socket bound to an ephemeral port and connected to one daemon's
// address and port: datagrams from anywhere else never reach it.
class Endpoint {
 public:
  Endpoint(const std::string& host, uint16_t port);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  bool ok() const { return fd_ >= 0; }
  uint16_t localPort() const;
  bool Send(const Bytes& datagram);
  // The next datagram, or nothing after timeoutMs, or nothing at once when
  // the peer's host reports that no socket listens on the port (refused()).
  std::optional<Bytes> Receive(int timeoutMs);
  bool refused() const { return refused_; }
  // Send and wait for one reply.
  std::optional<Bytes> Transact(const Bytes& request, int timeoutMs = 2000);

 private:
  int fd_ = -1;
  bool refused_ = false;
};

// A UDP port on 127.0.0.1 that was free a moment ago, for a daemon started
// by a tool or a test (0 when none could be found).
uint16_t FreeLoopbackPort();

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

// A GetVolume request (2228 bytes): the path, at most 1023 units so that
// the terminator stays, and the 32-byte volume cookie (zeros when null).
Bytes MakeGetVolumeRequest(const std::string& pathUtf8, const uint8_t* cookie = nullptr);
// A SendStringCmd request (2128 bytes): the command text, at most 1023 units.
Bytes MakeStringCommandRequest(const std::string& textUtf8);

// What a GetInitialMap request asks for besides the names.
struct OpenOptions {
  int64_t fileSize = -1;   // new file size; -1 leaves it
  int64_t allocSize = -1;  // new allocation size; -1 leaves it
  uint32_t lease = 0;      // milliseconds; 0 asks for the default
  uint32_t intention = 1;  // 1 read, anything else write
  uint32_t flag = 0;       // map flags (8: unlocked, no lease kept)
  uint16_t separator = u'/';
};
// A GetInitialMap request (2160 bytes): the share name, a 0 unit, the file
// name and a 0 unit in the 1024-unit name area (cut so both terminators fit).
Bytes MakeGetInitialMapRequest(const std::string& shareUtf8, const std::string& fileUtf8,
                               const OpenOptions& options = {});
// A GetExtendedMap request (92 bytes); length 0 maps to the end of the file.
Bytes MakeGetExtendedMapRequest(uint32_t key, int64_t start, int64_t length, uint32_t lease = 0,
                                int64_t fileSize = -1, int64_t allocation = -1,
                                uint32_t flag = 0);
Bytes MakeSetSizeRequest(uint32_t key, int64_t fileSize, uint32_t lease = 0);  // 64 bytes
Bytes MakeCloseRequest(uint32_t key, int64_t fileSize = -1);                    // 60 bytes

// Hex text to bytes. Blanks, ':' and '-' between digit pairs are skipped;
// an odd digit count, another character or more than maxBytes bytes fails.
std::optional<Bytes> ParseHex(const std::string& text, size_t maxBytes);
// Two lower-case hex digits per byte, no separators.
std::string ToHex(const uint8_t* bytes, size_t n);

// A received header in host byte order. A reply whose marker does not read
// 1 was written in the other byte order; its fields are reversed here.
struct ReplyHeader {
  bool swapped = false;
  int32_t revision = 0;
  std::array<uint8_t, LAN_MSGID_SIZE> messageID{};
  int32_t functionCode = 0;
  uint32_t length = 0;
  uint32_t flags = 0;
  int32_t result = 0;
  uint16_t pathSeparator = 0;
};
// Nothing when the datagram is shorter than a header.
std::optional<ReplyHeader> ParseHeader(const Bytes& message);

struct VolumeDisk {
  std::array<uint8_t, 16> diskId{};
  uint32_t idLength = 0;
  int64_t idOffset = 0;
  int64_t blockOffset = 0;
  int64_t nBlocks = 0;
};

// A GetVolume reply taken apart. Only what the datagram holds is read:
// disks that nDisks names beyond its end are missing from `disks` and
// `disksTruncated` is set; the error text stops at its 0 unit or the end.
struct GetVolumeInfo {
  ReplyHeader header;
  int32_t result = 0;
  int32_t msgLen = 0;
  int32_t vendorStatus = 0;
  int32_t fsType = 0;
  int32_t glomType = 0;
  int32_t glomInfo = 0;
  uint32_t nDisks = 0;
  int32_t blockSize = 0;
  std::array<uint8_t, FS_COOKIE_SIZE> cookie{};
  std::vector<VolumeDisk> disks;   // when vendorStatus is 0
  std::string errorText;           // UTF-8, when vendorStatus is not 0
  bool disksTruncated = false;
};
// Nothing unless the datagram is a GetVolume reply (code -1) that reaches
// past the fixed part of the volume description (192 bytes).
std::optional<GetVolumeInfo> ParseGetVolumeReply(const Bytes& reply);

// One extent of a map. Verbose extents are in bytes; compact and simple
// ones count blocks and have no logical offset (logical is -1).
struct MapExtent {
  int64_t logical = -1;
  int64_t physical = 0;
  int64_t length = 0;
  std::string kind;  // "bytes vol N valid V", "blocks" or "blocks vol N"
  uint32_t volumeOrdinal = 0;  // verbose and simple extents: the disk's index
  uint32_t validity = 0;       // verbose extents: an FS_VALIDITY_* value
};

struct FileMap {
  int64_t fileSize = 0;
  int64_t allocation = 0;
  int32_t msgLen = 0;
  int32_t vendorStatus = 0;
  int32_t nExtents = 0;
  uint32_t extentType = 0;
  int64_t fileOffset = 0;
  int64_t fileBytes = 0;
  std::vector<MapExtent> extents;
  bool extentsTruncated = false;  // nExtents names more than the datagram holds
  std::string text;               // UTF-8, when there are no extents
};

// A GetInitialMap (code -2) or GetExtendedMap (code -3) reply taken apart;
// key and cookies belong to GetInitialMap. hasMap is set when the datagram
// reaches past the map's fixed part; only what it holds is read.
struct MapReply {
  ReplyHeader header;
  int32_t result = 0;
  uint32_t lease = 0;
  uint32_t key = 0;
  std::array<uint8_t, FS_COOKIE_SIZE> fileCookie{};
  std::array<uint8_t, FS_COOKIE_SIZE> volumeCookie{};
  bool hasMap = false;
  FileMap map;
};
// Nothing unless the datagram is a map reply that holds its result.
std::optional<MapReply> ParseMapReply(const Bytes& reply);

// The result (byte 48) and lease (byte 52, SetSize only) of a SetSize or
// Close reply; nothing when the datagram is not one or is too short.
struct StatusReply {
  ReplyHeader header;
  int32_t result = 0;
  uint32_t lease = 0;
};
std::optional<StatusReply> ParseStatusReply(const Bytes& reply);

// What a result code means ("no library knows the volume"); "library status"
// for values only a filesystem library gives.
const char* ResultName(int32_t result);

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
