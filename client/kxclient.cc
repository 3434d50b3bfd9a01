// UDP endpoint and request helpers for talking to kestrixd.
#include "client/kxclient.h"

#include "fsmdc.h"
#include "spmsgs.h"
#include "wire_fields.h"

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kestrix::client {

uint16_t FreeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return 0;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof a;
  const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
                  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length) == 0;
  close(fd);
  return ok ? ntohs(a.sin_port) : 0;
}

Endpoint::Endpoint(const std::string& host, uint16_t port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &peer.sin_addr) != 1) return;
  fd_ = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd_ < 0) return;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  // A loopback peer answers a loopback sender; any other needs a routable one.
  bool loopback = (ntohl(peer.sin_addr.s_addr) >> 24) == 127;
  local.sin_addr.s_addr = htonl(loopback ? INADDR_LOOPBACK : INADDR_ANY);
  // ICMP errors (port unreachable) are queued with their details this way.
  const int on = 1;
  setsockopt(fd_, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
  // Connected: the kernel hands this socket datagrams from the daemon's
  // address and port only, so no other sender can pose as its reply.
  if (bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
      connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
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
  ssize_t sent = send(fd_, datagram.data(), datagram.size(), 0);
  // A refusal reported for an earlier datagram fails this send; it is sent again.
  if (sent < 0 && errno == ECONNREFUSED) sent = send(fd_, datagram.data(), datagram.size(), 0);
  return sent == static_cast<ssize_t>(datagram.size());
}

std::optional<Bytes> Endpoint::Receive(int timeoutMs) {
  refused_ = false;
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, timeoutMs) <= 0) return std::nullopt;
  if (!(p.revents & POLLIN)) {  // an error queued for an earlier datagram: taken off the queue
    char control[256];
    msghdr m{};
    m.msg_control = control;
    m.msg_controllen = sizeof control;
    if (recvmsg(fd_, &m, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return std::nullopt;
    for (cmsghdr* c = CMSG_FIRSTHDR(&m); c != nullptr; c = CMSG_NXTHDR(&m, c)) {
      sock_extended_err e;
      if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_RECVERR) continue;
      std::memcpy(&e, CMSG_DATA(c), sizeof e);
      refused_ = e.ee_errno == ECONNREFUSED;
    }
    return std::nullopt;
  }
  Bytes buffer(65536);
  ssize_t n = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (n < 0) {
    refused_ = errno == ECONNREFUSED;
    return std::nullopt;
  }
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
// A described request field, written in host order.
template <typename T>
void Put(Bytes& message, const wire::TypedField<T>& field, std::type_identity_t<T> value) {
  Write(message, field.offset, value);
}
}  // namespace

void SwapHeader(Bytes& message) {
  const wire::Layout& header = wire::LanHeader::kLayout;
  wire::SwapFields(message.data(), message.size(), header.begin(), header.end(), true);
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
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;  // a lone surrogate has no UTF-8 form
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

Bytes MakeGetVolumeRequest(const std::string& pathUtf8, const uint8_t* cookie) {
  Bytes message = MakeRequest(SP_FUNC_GETVOLUME, sizeof(GetVolumeMsg));
  if (cookie != nullptr)
    std::memcpy(message.data() + wire::GetVolumeMsg::volumeCookie.offset, cookie,
                wire::GetVolumeMsg::volumeCookie.width);
  PutText(message, wire::GetVolumeMsg::path.offset, SP_PATH_UNITS - 1, ToUtf16(pathUtf8));
  return message;
}

Bytes MakeStringCommandRequest(const std::string& textUtf8) {
  Bytes message = MakeRequest(SP_FUNC_SENDSTRINGCMD, sizeof(SendStringCmdMsg));
  PutText(message, wire::SendStringCmdMsg::command.offset, SP_PATH_UNITS - 1, ToUtf16(textUtf8));
  return message;
}

Bytes MakeGetInitialMapRequest(const std::string& shareUtf8, const std::string& fileUtf8,
                               const OpenOptions& options) {
  Bytes message = MakeRequest(SP_FUNC_GETINITIALMAP, sizeof(GetInitialMapMsg));
  HeaderOf(message)->pathSeparator = options.separator;
  namespace f = wire::GetInitialMapMsg;
  Put(message, f::filesize, options.fileSize);
  Put(message, f::allocsize, options.allocSize);
  Put(message, f::lease, options.lease);
  Put(message, f::intention, options.intention);
  Put(message, f::flag, options.flag);
  // Share, 0 unit, file name, 0 unit: the share may take 1022 units at most.
  std::u16string share = ToUtf16(shareUtf8).substr(0, SP_PATH_UNITS - 2);
  std::u16string file = ToUtf16(fileUtf8).substr(0, SP_PATH_UNITS - 2 - share.size());
  constexpr size_t kNames = f::names.offset;
  PutText(message, kNames, share.size(), share);
  PutText(message, kNames + 2 * (share.size() + 1), file.size(), file);
  return message;
}

Bytes MakeGetExtendedMapRequest(uint32_t key, int64_t start, int64_t length, uint32_t lease,
                                int64_t fileSize, int64_t allocation, uint32_t flag) {
  Bytes message = MakeRequest(SP_FUNC_GETEXTENDEDMAP, sizeof(GetExtendedMapMsg));
  namespace f = wire::GetExtendedMapMsg;
  Put(message, f::filesize, fileSize);
  Put(message, f::allocation, allocation);
  Put(message, f::start, start);
  Put(message, f::length, length);
  Put(message, f::lease, lease);
  Put(message, f::key, key);
  Put(message, f::flag, flag);
  return message;
}

Bytes MakeSetSizeRequest(uint32_t key, int64_t fileSize, uint32_t lease) {
  Bytes message = MakeRequest(SP_FUNC_SETSIZE, sizeof(SetSizeMsg));
  Put(message, wire::SetSizeMsg::filesize, fileSize);
  Put(message, wire::SetSizeMsg::lease, lease);
  Put(message, wire::SetSizeMsg::key, key);
  return message;
}

Bytes MakeCloseRequest(uint32_t key, int64_t fileSize) {
  Bytes message = MakeRequest(SP_FUNC_CLOSE, sizeof(CloseMsg));
  Put(message, wire::CloseMsg::filesize, fileSize);
  Put(message, wire::CloseMsg::key, key);
  return message;
}

std::optional<Bytes> ParseHex(const std::string& text, size_t maxBytes) {
  Bytes out;
  int high = -1;  // first digit of a pair, -1 between pairs
  for (char c : text) {
    int digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else if ((c == ' ' || c == ':' || c == '-') && high < 0) continue;
    else return std::nullopt;
    if (high < 0) {
      high = digit;
      continue;
    }
    if (out.size() == maxBytes) return std::nullopt;
    out.push_back(static_cast<uint8_t>(high << 4 | digit));
    high = -1;
  }
  if (high >= 0) return std::nullopt;
  return out;
}

std::string ToHex(const uint8_t* bytes, size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out.push_back(kDigits[bytes[i] >> 4]);
    out.push_back(kDigits[bytes[i] & 15]);
  }
  return out;
}

namespace {

// Reads integers of a received message, reversing them when its writer
// used the other byte order. Reads past the end give 0.
class FieldReader {
 public:
  FieldReader(const Bytes& message, bool swapped) : message_(message), swapped_(swapped) {}
  // A described field of the struct at `base`, in its member's type.
  template <typename T>
  T Get(const wire::TypedField<T>& field, size_t base = 0) const {
    return Get<T>(base + field.offset);
  }
  template <typename T>
  T Get(size_t offset) const {
    if (offset + sizeof(T) > message_.size()) return T{};
    uint8_t raw[sizeof(T)];
    std::memcpy(raw, message_.data() + offset, sizeof(T));
    if (swapped_) std::reverse(raw, raw + sizeof(T));
    T value;
    std::memcpy(&value, raw, sizeof(T));
    return value;
  }

 private:
  const Bytes& message_;
  bool swapped_;
};

// The FSUNI text from offset to its 0 unit or the datagram's end, as UTF-8.
std::string TextAt(const FieldReader& r, const Bytes& message, size_t offset) {
  std::u16string text;
  for (size_t at = offset; at + 2 <= message.size(); at += 2) {
    auto unit = r.Get<uint16_t>(at);
    if (unit == 0) break;
    text.push_back(static_cast<char16_t>(unit));
  }
  return ToUtf8(text);
}

// The extent table of a map at `base`, or its text when it has no extents.
void ReadExtents(const FieldReader& r, const Bytes& reply, size_t base, FileMap& m) {
  const size_t table = base + wire::FSMapInfo::kLayout.size;
  if (m.nExtents <= 0) {
    m.text = TextAt(r, reply, table);
    return;
  }
  size_t size = 0;
  switch (m.extentType) {
    case FS_EXTENT_COMPACT: size = wire::CompactExtent::kLayout.size; break;
    case FS_EXTENT_VERBOSE: case FS_EXTENT_VERBOSE_ALT: size = wire::VerboseExtent::kLayout.size; break;
    case FS_EXTENT_SIMPLE: size = wire::SimpleExtent::kLayout.size; break;
    default: return;  // a layout only the library knows
  }
  const size_t fit = reply.size() > table ? (reply.size() - table) / size : 0;
  const size_t count = std::min<size_t>(static_cast<size_t>(m.nExtents), fit);
  m.extentsTruncated = count < static_cast<size_t>(m.nExtents);
  for (size_t i = 0, at = table; i < count; ++i, at += size) {
    MapExtent e;
    if (m.extentType == FS_EXTENT_COMPACT) {
      namespace x = wire::CompactExtent;
      e.physical = r.Get(x::BlockOffset, at);
      e.length = r.Get(x::nBlocks, at);
      e.kind = "blocks";
    } else if (m.extentType == FS_EXTENT_SIMPLE) {
      namespace x = wire::SimpleExtent;
      e.physical = r.Get(x::VolSliceBlock, at);
      e.length = r.Get(x::NBlocks, at);
      e.volumeOrdinal = static_cast<uint32_t>(r.Get(x::VolOrd, at));
      e.kind = "blocks vol " + std::to_string(r.Get(x::VolOrd, at));
    } else {
      namespace x = wire::VerboseExtent;
      e.logical = r.Get(x::LogicalByteAddr, at);
      e.physical = r.Get(x::PhysicalByteAddr, at);
      e.length = r.Get(x::nBytes, at);
      e.volumeOrdinal = r.Get(x::VolumeOrdinal, at);
      e.validity = r.Get(x::validity, at);
      e.kind = "bytes vol " + std::to_string(e.volumeOrdinal) + " valid " + std::to_string(e.validity);
    }
    m.extents.push_back(e);
  }
}

}  // namespace

std::optional<ReplyHeader> ParseHeader(const Bytes& message) {
  if (message.size() < LAN_HEADER_SIZE) return std::nullopt;
  ReplyHeader h;
  namespace f = wire::LanHeader;
  h.swapped = FieldReader(message, false).Get(f::byteOrder) != LAN_BYTEORDER_MARK;
  FieldReader r(message, h.swapped);
  h.revision = r.Get(f::revision);
  std::memcpy(h.messageID.data(), message.data() + f::messageID.offset, f::messageID.width);
  h.functionCode = r.Get(f::functionCode);
  h.length = r.Get(f::length);
  h.flags = r.Get(f::flags);
  h.result = r.Get(f::result);
  h.pathSeparator = r.Get(f::pathSeparator);
  return h;
}

std::optional<GetVolumeInfo> ParseGetVolumeReply(const Bytes& reply) {
  std::optional<ReplyHeader> header = ParseHeader(reply);
  if (!header || header->functionCode != -SP_FUNC_GETVOLUME ||
      reply.size() < wire::GetVolumeReply::kLayout.size)
    return std::nullopt;
  GetVolumeInfo v;
  v.header = *header;
  FieldReader r(reply, header->swapped);
  namespace f = wire::VolInfo;
  constexpr size_t kVol = wire::GetVolumeReply::volInfo.offset;
  v.result = r.Get(wire::GetVolumeReply::result);
  v.msgLen = r.Get(f::msgLen, kVol);
  v.vendorStatus = r.Get(f::vendorStatus, kVol);
  v.fsType = r.Get(f::FStype, kVol);
  v.glomType = r.Get(f::GlomType, kVol);
  v.glomInfo = r.Get(f::GlomInfo, kVol);
  v.nDisks = r.Get(f::nDisks, kVol);
  v.blockSize = r.Get(f::BlockSize, kVol);
  std::memcpy(v.cookie.data(), reply.data() + kVol + f::Cookie.offset, f::Cookie.width);

  constexpr size_t kTable = kVol + f::kLayout.size;
  if (v.vendorStatus == 0) {
    constexpr size_t kDisk = wire::FSDisk::kLayout.size;
    size_t fit = (reply.size() - kTable) / kDisk;
    size_t count = std::min<size_t>(v.nDisks, fit);
    v.disksTruncated = count < v.nDisks;
    for (size_t i = 0; i < count; ++i) {
      size_t at = kTable + i * kDisk;
      VolumeDisk d;
      namespace k = wire::FSDisk;
      std::memcpy(d.diskId.data(), reply.data() + at + k::DiskID.offset, k::DiskID.width);
      d.idLength = r.Get(k::IDlength, at);
      d.idOffset = r.Get(k::IDoffset, at);
      d.blockOffset = r.Get(k::BlockOffset, at);
      d.nBlocks = r.Get(k::nBlocks, at);
      v.disks.push_back(d);
    }
  } else {
    v.errorText = TextAt(r, reply, kTable);
  }
  return v;
}

std::optional<MapReply> ParseMapReply(const Bytes& reply) {
  std::optional<ReplyHeader> header = ParseHeader(reply);
  const bool initial = header && header->functionCode == -SP_FUNC_GETINITIALMAP;
  if (!header || (!initial && header->functionCode != -SP_FUNC_GETEXTENDEDMAP) ||
      reply.size() < wire::GetInitialMapReply::lease.offset)
    return std::nullopt;
  MapReply m;
  m.header = *header;
  FieldReader r(reply, header->swapped);
  // result and lease sit at the same offsets in both replies.
  static_assert(wire::GetInitialMapReply::result.offset == wire::GetExtendedMapReply::result.offset &&
                wire::GetInitialMapReply::lease.offset == wire::GetExtendedMapReply::lease.offset);
  m.result = r.Get(wire::GetInitialMapReply::result);
  m.lease = r.Get(wire::GetInitialMapReply::lease);
  size_t base = wire::GetExtendedMapReply::map.offset;
  if (initial) {
    namespace f = wire::GetInitialMapReply;
    base = f::map.offset;
    m.key = r.Get(f::key);
    if (reply.size() >= base) {
      std::memcpy(m.fileCookie.data(), reply.data() + f::fileCookie.offset, f::fileCookie.width);
      std::memcpy(m.volumeCookie.data(), reply.data() + f::volumeCookie.offset,
                  f::volumeCookie.width);
    }
  }
  m.hasMap = reply.size() >= base + FSMAPINFO_FIXED_SIZE;
  if (!m.hasMap) return m;
  FileMap& f = m.map;
  namespace k = wire::FSMapInfo;
  f.fileSize = r.Get(k::fileSize, base);
  f.allocation = r.Get(k::allocation, base);
  f.msgLen = r.Get(k::msgLen, base);
  f.vendorStatus = r.Get(k::vendorStatus, base);
  f.nExtents = r.Get(k::nExtents, base);
  f.extentType = r.Get(k::extentType, base);
  f.fileOffset = r.Get(k::fileOffset, base);
  f.fileBytes = r.Get(k::fileBytes, base);
  ReadExtents(r, reply, base, f);
  return m;
}

std::optional<StatusReply> ParseStatusReply(const Bytes& reply) {
  std::optional<ReplyHeader> header = ParseHeader(reply);
  if (!header || (header->functionCode != -SP_FUNC_SETSIZE &&
                  header->functionCode != -SP_FUNC_CLOSE) ||
      reply.size() < wire::SetSizeReply::lease.offset)
    return std::nullopt;
  FieldReader r(reply, header->swapped);
  StatusReply s;
  s.header = *header;
  static_assert(wire::SetSizeReply::result.offset == wire::CloseReply::result.offset);
  s.result = r.Get(wire::SetSizeReply::result);
  if (header->functionCode == -SP_FUNC_SETSIZE) s.lease = r.Get(wire::SetSizeReply::lease);
  return s;
}

const char* ResultName(int32_t result) {
  switch (result) {
    case SP_RESULT_OK: return "success";
    case SP_RESULT_LIBRARY_ONE: return "library answered 1";
    case SP_RESULT_UNKNOWN_SHARE: return "unknown share";
    case SP_RESULT_NO_MEMORY: return "out of memory";
    case LAN_RESULT_BAD_LENGTH: return "header length below 48";
    case LAN_RESULT_NO_HANDLER: return "no handler for the function code";
    case SP_RESULT_SIZE_NOTICE: return "size notice from the library";
    case SP_RESULT_NO_LIBRARY: return "no library knows the volume";
    case SP_RESULT_NO_FILE_NAME: return "no file name after the share name";
    case SP_RESULT_KEY_NOT_FOUND: return "no lease with that key";
    case SP_RESULT_LEASE_GONE: return "lease vanished before removal";
    case SP_RESULT_LEASE_NOT_RENEWED: return "lease vanished before renewal";
    case SP_RESULT_LEASE_LIMIT: return "too many leases held (the client's or the daemon's bound)";
    case SP_RESULT_FILE_NOT_FOUND: return "no library knows the file";
    default: return "library status";
  }
}

}  // namespace kestrix::client
