// Datagram transport: binds the UDP socket on all local IPv4 addresses,
// runs the listener threads that hand each datagram to the callback, and
// answers each request where it came from, out of the local address it was
// sent to (a host with several addresses, such as a cluster node holding a
// service address, answers from the one the client knows).
#include "utils/dgram.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl.h"

namespace {
void* s_receiveLock = nullptr;
}  // namespace

namespace kestrix {
void SetReceiveLock(void* sem) { s_receiveLock = sem; }
}  // namespace kestrix

extern "C" {

int DGRAM_Init(void) { return 0; }

void dumpData(const void* /*data*/, int /*length*/) {}

void CloseSocket(int descriptor) { close(descriptor); }

int makeListenerSocket(uint16_t port, int* socketOut) {
  OSL_Log(KSX_SP, "creating a socket on port %d\n", port);
  *socketOut = socket(AF_INET, SOCK_DGRAM, 0);
  if (*socketOut < 0) return DGRAM_NO_SOCKET;
  sockaddr_in address;
  std::memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(*socketOut, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    CloseSocket(*socketOut);
    return DGRAM_BIND_FAILED;
  }
  // Each datagram's local address comes with it (IP_PKTINFO); without it
  // replies leave from whatever address the kernel picks.
  const int on = 1;
  if (setsockopt(*socketOut, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0)
    OSL_Log(KSX_ERROR, "DGRAM: no IP_PKTINFO (%s); replies leave from the kernel's choice of address\n",
            std::strerror(errno));
  return DGRAM_OK;
}

int DGRAM_BindListener(uint16_t port, DgramHandler handler, void* serverArg, int threads) {
  auto* listener = static_cast<ListenerInfo*>(ksxmem_memalign(-8, sizeof(ListenerInfo), "blll"));
  if (listener == nullptr) return DGRAM_NO_SOCKET;
  int rc = makeListenerSocket(port, &listener->socket);
  if (rc != DGRAM_OK) return rc;
  listener->handler = handler;
  listener->port = port;
  listener->serverArg = serverArg;
  listener->receiveLock = s_receiveLock;
  int started = 0;
  for (int i = 0; i < threads; ++i) {
    int rc = OSL_CreateThread(PrimaryListener, listener);
    if (rc == 0) {
      ++started;
    } else {
      OSL_Log(KSX_ERROR, "DGRAM: cannot start listener thread %d: %s\n", i, std::strerror(rc));
    }
  }
  // With no thread to receive, nothing would ever be served.
  if (started == 0 && threads > 0) {
    CloseSocket(listener->socket);
    return DGRAM_NO_SOCKET;
  }
  return DGRAM_OK;
}

void* PrimaryListener(void* listenerInfo) {
  auto* listener = static_cast<ListenerInfo*>(listenerInfo);
  auto* buffer = static_cast<uint8_t*>(ksxmem_memalign(
      -8, DGRAM_RECEIVE_BUFFER_SIZE + kestrix::kDgramGuardBytes, "plim"));
  if (buffer == nullptr) return reinterpret_cast<void*>(static_cast<intptr_t>(DGRAM_NO_BUFFER));

  int dirty = 0;  // bytes from the start that may hold data of earlier datagrams
  // The thread that gets the receive lock is the one that receives and
  // handles from then on; the lock is never given back, so the others stay
  // parked on it instead of being woken for each datagram.
  if (listener->receiveLock != nullptr) OSL_SemDown(listener->receiveLock);
  for (;;) {
    sockaddr_in from;
    iovec data{buffer, DGRAM_RECEIVE_BUFFER_SIZE};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t received = recvmsg(listener->socket, &message, 0);
    if (received <= 0) {
      OSL_Log(KSX_SP, "DGRAM: failed recvfrom:%d\n", static_cast<int>(received));
      continue;
    }
    int size = static_cast<int>(received);
    if (size < dirty) std::memset(buffer + size, 0, dirty - size);
    dirty = std::max(size, kestrix::kDgramScrubBytes);
    if (listener->handler == nullptr) continue;

    DgramAddress sender;
    sender.socket = listener->socket;
    sender.address = from;
    sender.local.s_addr = htonl(INADDR_ANY);
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
      if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_PKTINFO) continue;
      in_pktinfo info;
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      sender.local = info.ipi_spec_dst;  // the local address, also for a broadcast
    }
    OSL_Log(KSX_SP, "DGRAM: Server received message. size %d\n", size);
    dumpData(buffer, size);
    listener->handler(buffer, size, &sender, listener->serverArg);
  }
}

int DGRAM_SendReply(DgramAddress* sender, const void* data, int length) {
  OSL_Log(KSX_SP, "DGRAM_sendReply sending %d bytes\n", length);
  dumpData(data, length);
  iovec body{const_cast<void*>(data), static_cast<size_t>(length)};
  msghdr message{};
  message.msg_name = &sender->address;
  message.msg_namelen = sizeof sender->address;
  message.msg_iov = &body;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
  if (sender->local.s_addr != htonl(INADDR_ANY)) {
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&message);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_spec_dst = sender->local;
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
  }
  ssize_t sent = sendmsg(sender->socket, &message, 0);
  return sent == length ? DGRAM_OK : DGRAM_SEND_SHORT;
}

int DGRAM_CompareAddresses(const DgramAddress* a, const DgramAddress* b) {
  return a->address.sin_addr.s_addr == b->address.sin_addr.s_addr ? 0 : 1;
}

}  // extern "C"
