// kxbench's closed-loop clients: each thread owns its sockets and their
// request slots; a slot sends its next request as soon as the reply to its
// last one arrives, so the load is exactly threads × sockets × window
// requests in flight.
#include "bench/kxbench/load.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "client/kxclient.h"

namespace kxbench {

namespace kc = kestrix::client;

namespace {

constexpr uint32_t kNoHandlerCode = 9;
constexpr uint64_t kResendAfterNs = 1000000000ull;
constexpr uint32_t kHeldLeaseMs = 3600000;
const char* const kShare = "/bench";  // an absolute path: no share lookup

uint64_t NowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<uint64_t>(t.tv_sec) * 1000000000ull + static_cast<uint64_t>(t.tv_nsec);
}

}  // namespace

bool ParseKind(const std::string& text, Kind* kind) {
  for (Kind k : {Kind::kHeader, Kind::kGetVolume, Kind::kCycle, Kind::kSetSize, Kind::kString}) {
    if (text == KindName(k)) return *kind = k, true;
  }
  return false;
}

const char* KindName(Kind kind) {
  switch (kind) {
    case Kind::kHeader: return "header";
    case Kind::kGetVolume: return "getvolume";
    case Kind::kCycle: return "cycle";
    case Kind::kSetSize: return "setsize";
    case Kind::kString: return "string";
  }
  return "?";
}

// One request in flight. Steps: the cycle goes open (0), map (1), close (2);
// setsize opens once (0) and then sets sizes (1) on its lease.
struct Slot {
  int fd = -1;
  uint32_t index = 0;
  uint64_t seq = 0;
  uint64_t sentNs = 0;
  int step = 0;
  uint32_t key = 0;
  bool waiting = false;
  kc::Bytes open;  // its GetInitialMap request, made once
};

struct Load::Client {
  std::vector<int> fds;
  std::vector<Slot> slots;
  LoadResult result;
  std::thread thread;
};

Load::Load(const LoadShape& shape) : shape_(shape) {}

Load::~Load() {
  if (!clients_.empty()) Stop();
}

bool Load::Start() {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(shape_.port);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int t = 0; t < shape_.threads; ++t) {
    auto* client = new Client;
    clients_.push_back(client);
    for (int s = 0; s < shape_.sockets; ++s) {
      int fd = socket(AF_INET, SOCK_DGRAM, 0);
      if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
        if (fd >= 0) close(fd);
        return false;
      }
      int buffer = 1 << 20;
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
      client->fds.push_back(fd);
      for (int w = 0; w < shape_.window; ++w) {
        Slot slot;
        slot.fd = fd;
        slot.index = static_cast<uint32_t>(client->slots.size());
        kc::OpenOptions options;
        if (shape_.kind == Kind::kSetSize) options.lease = kHeldLeaseMs, options.intention = 2;
        // Appended piece by piece: "t" + std::string trips a false -Wrestrict of GCC 12.
        std::string file = "t";
        file += std::to_string(t) + "s" + std::to_string(s) + "w" + std::to_string(w);
        slot.open = kc::MakeGetInitialMapRequest(kShare, file, options);
        client->slots.push_back(std::move(slot));
      }
    }
    client->result.latencyNs.reserve(1 << 20);
  }
  running_.store(true);
  for (Client* client : clients_) client->thread = std::thread(&Load::Run, this, client);
  return true;
}

namespace {

kc::Bytes NextRequest(Kind kind, Slot& slot) {
  switch (kind) {
    case Kind::kHeader: return kc::MakeRequest(kNoHandlerCode, LAN_HEADER_SIZE);
    case Kind::kGetVolume: return kc::MakeGetVolumeRequest(kShare);
    case Kind::kString: return kc::MakeStringCommandRequest("NOP");
    case Kind::kSetSize:
      if (slot.step == 0) return slot.open;
      return kc::MakeSetSizeRequest(slot.key, static_cast<int64_t>(slot.seq % 1000) * 4096,
                                    kHeldLeaseMs);
    case Kind::kCycle:
      if (slot.step == 0) return slot.open;
      if (slot.step == 1) return kc::MakeGetExtendedMapRequest(slot.key, 0, 0);
      return kc::MakeCloseRequest(slot.key);
  }
  return {};
}

void Send(const LoadShape& shape, Slot& slot, const kc::Bytes& prepared) {
  kc::Bytes request = prepared;
  LanHeader* header = kc::HeaderOf(request);
  ++slot.seq;
  std::memcpy(header->messageID, &slot.index, 4);
  std::memcpy(header->messageID + 4, &slot.seq, 8);
  if (shape.duplicateFlag) header->flags |= LAN_FLAG_TRACK;
  slot.sentNs = NowNs();
  slot.waiting = true;
  send(slot.fd, request.data(), request.size(), 0);
}

// The step after a reply; an open's reply gives the lease key.
void Advance(Kind kind, Slot& slot, const kc::Bytes& reply) {
  if (slot.step == 0 && (kind == Kind::kCycle || kind == Kind::kSetSize)) {
    auto map = kc::ParseMapReply(reply);
    slot.key = map ? map->key : 0;  // an echo's reply carries no key: any will do
    slot.step = 1;
  } else if (kind == Kind::kCycle) {
    slot.step = (slot.step + 1) % 3;
  }
}

}  // namespace

void Load::Run(Client* client) {
  std::vector<pollfd> polls;
  for (int fd : client->fds) polls.push_back({fd, POLLIN, 0});
  for (Slot& slot : client->slots) Send(shape_, slot, NextRequest(shape_.kind, slot));
  kc::Bytes reply(65536);
  uint64_t lastScan = NowNs();
  while (running_.load(std::memory_order_relaxed)) {
    poll(polls.data(), polls.size(), 20);
    for (const pollfd& p : polls) {
      if ((p.revents & POLLIN) == 0) continue;
      for (;;) {
        reply.resize(65536);
        ssize_t n = recv(p.fd, reply.data(), reply.size(), MSG_DONTWAIT);
        if (n < static_cast<ssize_t>(LAN_HEADER_SIZE)) break;
        reply.resize(static_cast<size_t>(n));
        const LanHeader* header = kc::HeaderOf(reply);
        uint32_t index;
        uint64_t seq;
        std::memcpy(&index, header->messageID, 4);
        std::memcpy(&seq, header->messageID + 4, 8);
        if (index >= client->slots.size()) continue;
        Slot& slot = client->slots[index];
        if (!slot.waiting || slot.seq != seq || slot.fd != p.fd) continue;  // late copy
        const uint64_t now = NowNs();
        slot.waiting = false;
        replies_.fetch_add(1, std::memory_order_relaxed);
        const int32_t code = -header->functionCode;
        if (code > 0 && code < 100) client->result.replySize[code] = static_cast<uint32_t>(n);
        if (measuring_.load(std::memory_order_relaxed)) {
          ++client->result.requests;
          client->result.latencyNs.push_back(static_cast<uint32_t>(
              std::min<uint64_t>(now - slot.sentNs, UINT32_MAX)));
        }
        Advance(shape_.kind, slot, reply);
        Send(shape_, slot, NextRequest(shape_.kind, slot));
      }
    }
    const uint64_t now = NowNs();
    if (now - lastScan < kResendAfterNs / 10) continue;
    lastScan = now;
    for (Slot& slot : client->slots) {
      if (!slot.waiting || now - slot.sentNs < kResendAfterNs) continue;
      if (measuring_.load(std::memory_order_relaxed)) ++client->result.timeouts;
      Send(shape_, slot, NextRequest(shape_.kind, slot));
    }
  }
}

LoadResult Load::Stop() {
  running_.store(false);
  LoadResult total;
  for (Client* client : clients_) {
    if (client->thread.joinable()) client->thread.join();
    // Leases still held (setsize, or a cycle stopped before its close) are
    // given back so that a running daemon is left as it was found.
    for (Slot& slot : client->slots) {
      if (slot.step == 0) continue;
      kc::Bytes close = kc::MakeCloseRequest(slot.key);
      send(slot.fd, close.data(), close.size(), 0);
    }
    total.requests += client->result.requests;
    total.timeouts += client->result.timeouts;
    total.latencyNs.insert(total.latencyNs.end(), client->result.latencyNs.begin(),
                           client->result.latencyNs.end());
    for (int c = 0; c < 100; ++c) {
      if (client->result.replySize[c] != 0) total.replySize[c] = client->result.replySize[c];
    }
    usleep(20000);  // let the closes leave before the sockets go
    for (int fd : client->fds) close(fd);
    delete client;
  }
  clients_.clear();
  return total;
}

namespace {

// Sends the requests with up to 64 in flight on one socket and hands every
// reply to `take`; a request without a reply after a second is given up.
template <typename Take>
void Pipeline(uint16_t port, const std::vector<kc::Bytes>& requests, Take take) {
  kc::Endpoint endpoint("127.0.0.1", port);
  size_t sent = 0, answered = 0;
  while (answered < requests.size()) {
    while (sent < requests.size() && sent - answered < 64) endpoint.Send(requests[sent++]);
    auto reply = endpoint.Receive(1000);
    if (!reply) {
      answered = sent;  // lost: move on
      continue;
    }
    take(*reply);
    ++answered;
  }
}

}  // namespace

void OpenLeases(uint16_t port, int count, std::vector<uint32_t>* keys) {
  std::vector<kc::Bytes> opens;
  kc::OpenOptions options;
  options.lease = kHeldLeaseMs;
  for (int i = 0; i < count; ++i) {
    opens.push_back(kc::MakeGetInitialMapRequest(kShare, "held" + std::to_string(i), options));
    const uint64_t id = 0x686c64ull << 40 | static_cast<uint64_t>(i);
    std::memcpy(kc::HeaderOf(opens.back())->messageID + 8, &id, 8);
  }
  Pipeline(port, opens, [keys](const kc::Bytes& reply) {
    auto map = kc::ParseMapReply(reply);
    if (map && map->result == 0) keys->push_back(map->key);
  });
}

void CloseLeases(uint16_t port, const std::vector<uint32_t>& keys) {
  std::vector<kc::Bytes> closes;
  for (uint32_t key : keys) closes.push_back(kc::MakeCloseRequest(key));
  Pipeline(port, closes, [](const kc::Bytes&) {});
}

}  // namespace kxbench
