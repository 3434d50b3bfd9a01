// kestrix-cli: sends one request to a running kestrixd and prints the
// reply. Exit status: 0 when a reply came, 2 when none came in time, 1 for a
// usage error, 3 when the reply carries an error result.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "client/kxclient.h"
#include "spmsgs.h"

namespace {

using kestrix::client::Bytes;

constexpr uint16_t kDefaultPort = 5501;
constexpr int kDefaultTimeoutMs = 2000;
constexpr int kExitReply = 0;
constexpr int kExitUsage = 1;
constexpr int kExitNoReply = 2;
constexpr int kExitErrorResult = 3;

void Usage() {
  std::fprintf(stderr,
               "usage: kestrix-cli [-h host] [-p port] [-t timeout_ms] COMMAND ...\n"
               "commands:\n"
               "  getvolume SHARE_OR_PATH   volume behind a share name or absolute path\n"
               "  getvolume-cookie HEX      volume named by its cookie (up to 32 bytes)\n"
               "  open SHARE PATH [--write] [--size N] [--alloc N] [--lease MS] [--unlocked]\n"
               "                            open a file: its lease key, cookies and map\n"
               "  map KEY [START [LENGTH]]  map of a range (LENGTH 0: to the end); renews the lease\n"
               "  setsize KEY SIZE          new file size; renews the lease\n"
               "  close KEY [--size N]      give the lease up, optionally with a final size\n"
               "  raw CODE [LENGTH]         header-only request; prints the reply header\n"
               "  log LEVEL [DESTINATION]   LOG string command: log level and destination\n"
               "                            (SCREEN, SYSTEM or a file; none: system log)\n"
               "  cmd TEXT                  any string command, sent as TEXT\n"
               "defaults: host 127.0.0.1, port $KESTRIX_PORT or %u, timeout %d ms\n",
               static_cast<unsigned>(kDefaultPort), kDefaultTimeoutMs);
}

// A whole decimal (or 0x hex) number within [low, high].
std::optional<long long> ParseNumber(const char* text, long long low, long long high) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  long long value = std::strtoll(text, &end, 0);
  if (errno != 0 || *end != '\0' || value < low || value > high) return std::nullopt;
  return value;
}

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

// A message ID that differs between runs and between requests of one run.
void StampMessageId(Bytes& request) {
  static uint32_t sequence = 0;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  uint32_t parts[4] = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec),
                       static_cast<uint32_t>(getpid()), ++sequence};
  std::memcpy(kestrix::client::HeaderOf(request)->messageID, parts, sizeof parts);
}

void PrintResult(const char* label, int32_t result) {
  std::printf("%s %d (%s)\n", label, result, kestrix::client::ResultName(result));
}

// 0 and 1 (a map delivered with the library's status 1) are not errors.
int ExitFor(int32_t result) { return result == 0 || result == 1 ? kExitReply : kExitErrorResult; }

void PrintHeader(const kestrix::client::ReplyHeader& h) {
  std::printf("functionCode %d\n", h.functionCode);
  std::printf("length %u\n", h.length);
  std::printf("revision %d\n", h.revision);
  std::printf("flags %u\n", h.flags);
  PrintResult("header result", h.result);
  std::printf("messageID %s\n", kestrix::client::ToHex(h.messageID.data(), h.messageID.size()).c_str());
  std::printf("pathSeparator %u\n", static_cast<unsigned>(h.pathSeparator));
  if (h.swapped) std::printf("byteOrder other\n");
}

// A reply without the expected body: LAN-level errors (results 6 and 8)
// come back as a bare header.
int PrintBare(const Bytes& reply, const char* missing) {
  std::optional<kestrix::client::ReplyHeader> h = kestrix::client::ParseHeader(reply);
  if (h) PrintHeader(*h);
  std::printf("received %zu bytes: no %s\n", reply.size(), missing);
  return kExitErrorResult;
}

std::string Hex(const std::array<uint8_t, FS_COOKIE_SIZE>& cookie) {
  return kestrix::client::ToHex(cookie.data(), cookie.size());
}

int PrintVolume(const Bytes& reply) {
  std::optional<kestrix::client::GetVolumeInfo> v = kestrix::client::ParseGetVolumeReply(reply);
  if (!v) return PrintBare(reply, "volume description");
  PrintResult("result", v->result);
  std::printf("revision %d\n", v->header.revision);
  std::printf("length %u\n", v->header.length);
  if (v->header.result != 0) std::printf("header result %d\n", v->header.result);
  std::printf("msgLen %d\n", v->msgLen);
  std::printf("vendorStatus %d\n", v->vendorStatus);
  std::printf("FStype %d\n", v->fsType);
  std::printf("GlomType %d\n", v->glomType);
  std::printf("GlomInfo %d\n", v->glomInfo);
  std::printf("BlockSize %d\n", v->blockSize);
  std::printf("nDisks %u\n", v->nDisks);
  std::printf("cookie %s\n", Hex(v->cookie).c_str());
  if (v->vendorStatus != 0) {
    std::printf("error %s\n", v->errorText.c_str());
    return ExitFor(v->result);
  }
  for (size_t i = 0; i < v->disks.size(); ++i) {
    const kestrix::client::VolumeDisk& d = v->disks[i];
    size_t idBytes = d.idLength < d.diskId.size() ? d.idLength : d.diskId.size();
    std::printf("disk %zu DiskID %s IDlength %u IDoffset %" PRId64 " BlockOffset %" PRId64
                " nBlocks %" PRId64 "\n",
                i, kestrix::client::ToHex(d.diskId.data(), idBytes).c_str(), d.idLength,
                d.idOffset, d.blockOffset, d.nBlocks);
  }
  if (v->disksTruncated)
    std::printf("(%zu of %u disks in the reply)\n", v->disks.size(), v->nDisks);
  return ExitFor(v->result);
}

int PrintMap(const Bytes& reply) {
  std::optional<kestrix::client::MapReply> m = kestrix::client::ParseMapReply(reply);
  if (!m) return PrintBare(reply, "map");
  PrintResult("result", m->result);
  if (ExitFor(m->result) != kExitReply) {
    std::printf("length %u\n", m->header.length);  // whatever else it holds is not a map
    return kExitErrorResult;
  }
  const bool initial = m->header.functionCode == -SP_FUNC_GETINITIALMAP;
  if (initial) std::printf("key 0x%x\n", m->key);
  std::printf("lease %u ms\n", m->lease);
  if (initial) {
    std::printf("fileCookie %s\n", Hex(m->fileCookie).c_str());
    std::printf("volumeCookie %s\n", Hex(m->volumeCookie).c_str());
  }
  std::printf("length %u\n", m->header.length);
  if (!m->hasMap) return ExitFor(m->result);
  const kestrix::client::FileMap& f = m->map;
  std::printf("fileSize %" PRId64 " allocation %" PRId64 " fileOffset %" PRId64
              " fileBytes %" PRId64 "\n",
              f.fileSize, f.allocation, f.fileOffset, f.fileBytes);
  std::printf("nExtents %d extentType %u vendorStatus %d msgLen %d\n", f.nExtents, f.extentType,
              f.vendorStatus, f.msgLen);
  if (!f.extents.empty()) {
    std::printf("%4s %20s %20s %20s  %s\n", "#", "logical", "physical", "length", "kind");
  }
  for (size_t i = 0; i < f.extents.size(); ++i) {
    const kestrix::client::MapExtent& e = f.extents[i];
    std::string logical = e.logical < 0 ? "-" : std::to_string(e.logical);
    std::printf("%4zu %20s %20" PRId64 " %20" PRId64 "  %s\n", i, logical.c_str(), e.physical,
                e.length, e.kind.c_str());
  }
  if (f.extentsTruncated) {
    std::printf("(%zu of %d extents in the reply)\n", f.extents.size(), f.nExtents);
  }
  if (!f.text.empty()) std::printf("text %s\n", f.text.c_str());
  return ExitFor(m->result);
}

int PrintStatus(const Bytes& reply) {
  std::optional<kestrix::client::StatusReply> r = kestrix::client::ParseStatusReply(reply);
  if (!r) return PrintBare(reply, "result");
  PrintResult("result", r->result);
  if (r->header.functionCode == -SP_FUNC_SETSIZE) std::printf("lease %u ms\n", r->lease);
  return ExitFor(r->result);
}

int PrintRaw(const Bytes& reply) {
  std::optional<kestrix::client::ReplyHeader> header = kestrix::client::ParseHeader(reply);
  if (header) PrintHeader(*header);
  else std::printf("received %zu bytes: shorter than a header\n", reply.size());
  return kExitReply;
}

using Printer = int (*)(const Bytes& reply);

// A lease key as the daemon prints it (0x...) or in decimal.
std::optional<uint32_t> ParseKey(const std::string& text) {
  std::optional<long long> key = ParseNumber(text.c_str(), 0, UINT32_MAX);
  if (!key) return std::nullopt;
  return static_cast<uint32_t>(*key);
}

std::optional<long long> ParseSize(const std::string& text) {
  return ParseNumber(text.c_str(), -1, INT64_MAX);
}

// open SHARE PATH [options]: the request, or nothing for a usage error.
std::optional<Bytes> OpenRequest(const std::vector<std::string>& args) {
  if (args.size() < 3) return std::nullopt;
  kestrix::client::OpenOptions o;
  for (size_t i = 3; i < args.size(); ++i) {
    const std::string& flag = args[i];
    std::optional<long long> n;
    const bool valued = flag == "--size" || flag == "--alloc" || flag == "--lease";
    if (valued && (i + 1 == args.size() ||
                   !(n = flag == "--lease" ? ParseNumber(args[i + 1].c_str(), 0, UINT32_MAX)
                                           : ParseSize(args[i + 1]))))
      return std::nullopt;
    if (valued) ++i;
    if (flag == "--write") o.intention = 0;
    else if (flag == "--unlocked") o.flag |= FS_M_FLAG_UNLOCKED;
    else if (flag == "--size") o.fileSize = *n;
    else if (flag == "--alloc") o.allocSize = *n;
    else if (flag == "--lease") o.lease = static_cast<uint32_t>(*n);
    else return std::nullopt;
  }
  return kestrix::client::MakeGetInitialMapRequest(args[1], args[2], o);
}

// The request of a lease command (map, setsize, close), or nothing.
std::optional<Bytes> LeaseRequest(const std::vector<std::string>& args) {
  const std::string& command = args[0];
  std::optional<uint32_t> key = args.size() >= 2 ? ParseKey(args[1]) : std::nullopt;
  if (!key) return std::nullopt;
  if (command == "map" && args.size() <= 4) {
    std::optional<long long> start = args.size() >= 3 ? ParseSize(args[2]) : 0;
    std::optional<long long> length = args.size() == 4 ? ParseSize(args[3]) : 0;
    if (!start || !length) return std::nullopt;
    return kestrix::client::MakeGetExtendedMapRequest(*key, *start, *length);
  }
  if (command == "setsize" && args.size() == 3) {
    std::optional<long long> size = ParseSize(args[2]);
    if (!size) return std::nullopt;
    return kestrix::client::MakeSetSizeRequest(*key, *size);
  }
  if (command == "close" && (args.size() == 2 || (args.size() == 4 && args[2] == "--size"))) {
    std::optional<long long> size = args.size() == 4 ? ParseSize(args[3]) : -1;
    if (!size) return std::nullopt;
    return kestrix::client::MakeCloseRequest(*key, *size);
  }
  return std::nullopt;
}

// "log LEVEL [DESTINATION]": the pieces joined by '|', so that a destination
// may hold blanks; a '|' of their own would split the command elsewhere.
std::optional<Bytes> LogCommandRequest(const std::vector<std::string>& args) {
  std::string text = "LOG";
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i].find('|') != std::string::npos) return std::nullopt;
    text += "|" + args[i];
  }
  return kestrix::client::MakeStringCommandRequest(text);
}

int PrintCommandResult(const Bytes& reply) {
  std::optional<kestrix::client::ReplyHeader> h = kestrix::client::ParseHeader(reply);
  if (!h || h->result != 0 || h->functionCode != -SP_FUNC_SENDSTRINGCMD ||
      reply.size() < sizeof(SendStringCmdReply))
    return PrintBare(reply, "string command reply");
  uint32_t raw = kestrix::client::Read<uint32_t>(reply, offsetof(SendStringCmdReply, result));
  auto result = static_cast<int32_t>(h->swapped ? __builtin_bswap32(raw) : raw);
  PrintResult("result", result);
  return ExitFor(result);
}

struct Options {
  std::string host = "127.0.0.1";
  uint16_t port = kDefaultPort;
  int timeoutMs = kDefaultTimeoutMs;
};

uint16_t PortFromEnvironment() {
  std::optional<long long> port = ParseNumber(std::getenv("KESTRIX_PORT"), 1, 65535);
  return port ? static_cast<uint16_t>(*port) : kDefaultPort;
}

int Run(int argc, char** argv) {
  Options options;
  options.port = PortFromEnvironment();
  int opt;
  opterr = 0;
  while ((opt = getopt(argc, argv, "+h:p:t:")) != -1) {
    std::optional<long long> n;
    switch (opt) {
      case 'h':
        options.host = optarg;
        break;
      case 'p':
        if (!(n = ParseNumber(optarg, 1, 65535))) {
          std::fprintf(stderr, "kestrix-cli: bad port '%s'\n", optarg);
          return kExitUsage;
        }
        options.port = static_cast<uint16_t>(*n);
        break;
      case 't':
        if (!(n = ParseNumber(optarg, 0, 3600000))) {
          std::fprintf(stderr, "kestrix-cli: bad timeout '%s'\n", optarg);
          return kExitUsage;
        }
        options.timeoutMs = static_cast<int>(*n);
        break;
      default:
        Usage();
        return kExitUsage;
    }
  }
  std::vector<std::string> args(argv + optind, argv + argc);
  if (args.empty()) {
    Usage();
    return kExitUsage;
  }

  std::optional<Bytes> request;
  const std::string& command = args[0];
  Printer print = PrintVolume;
  if (command == "open") {
    request = OpenRequest(args);
    print = PrintMap;
  } else if (command == "map" || command == "setsize" || command == "close") {
    request = LeaseRequest(args);
    print = command == "map" ? PrintMap : PrintStatus;
  } else if (command == "getvolume" && args.size() == 2) {
    request = kestrix::client::MakeGetVolumeRequest(args[1]);
  } else if (command == "getvolume-cookie" && args.size() == 2) {
    std::optional<Bytes> cookie = kestrix::client::ParseHex(args[1], FS_COOKIE_SIZE);
    if (!cookie) {
      std::fprintf(stderr, "kestrix-cli: bad cookie '%s' (hex, at most 32 bytes)\n",
                   args[1].c_str());
      return kExitUsage;
    }
    cookie->resize(FS_COOKIE_SIZE, 0);
    request = kestrix::client::MakeGetVolumeRequest("", cookie->data());
  } else if (command == "raw" && (args.size() == 2 || args.size() == 3)) {
    std::optional<long long> code = ParseNumber(args[1].c_str(), INT32_MIN, INT32_MAX);
    std::optional<long long> length =
        args.size() == 3 ? ParseNumber(args[2].c_str(), 0, UINT32_MAX) : LAN_HEADER_SIZE;
    if (!code || !length) {
      std::fprintf(stderr, "kestrix-cli: raw needs a numeric CODE and LENGTH\n");
      return kExitUsage;
    }
    request = kestrix::client::MakeRequest(static_cast<int32_t>(*code), LAN_HEADER_SIZE);
    kestrix::client::HeaderOf(*request)->length = static_cast<uint32_t>(*length);
    print = PrintRaw;
  } else if (command == "log" && (args.size() == 2 || args.size() == 3)) {
    std::optional<Bytes> logRequest = LogCommandRequest(args);
    if (!logRequest) {
      std::fprintf(stderr, "kestrix-cli: LEVEL and DESTINATION cannot hold '|'\n");
      return kExitUsage;
    }
    request = logRequest;
    print = PrintCommandResult;
  } else if (command == "cmd" && args.size() == 2) {
    request = kestrix::client::MakeStringCommandRequest(args[1]);
    print = PrintCommandResult;
  }
  if (!request) {
    Usage();
    return kExitUsage;
  }

  std::optional<std::string> address = ResolveIPv4(options.host);
  if (!address) {
    std::fprintf(stderr, "kestrix-cli: unknown host '%s'\n", options.host.c_str());
    return kExitUsage;
  }
  kestrix::client::Endpoint endpoint(*address, options.port);
  if (!endpoint.ok()) {
    std::fprintf(stderr, "kestrix-cli: cannot open a UDP socket\n");
    return kExitNoReply;
  }
  StampMessageId(*request);
  std::optional<Bytes> reply = endpoint.Transact(*request, options.timeoutMs);
  if (!reply) {
    std::fprintf(stderr, "kestrix-cli: no reply from %s:%u within %d ms\n", address->c_str(),
                 static_cast<unsigned>(options.port), options.timeoutMs);
    return kExitNoReply;
  }
  return print(*reply);
}

}  // namespace

int main(int argc, char** argv) { return Run(argc, argv); }
