// Datagram transport: binds the daemon's UDP port, runs the threads that
// receive on it, and answers each request where it came from.
#ifndef KESTRIX_UTILS_DGRAM_H_
#define KESTRIX_UTILS_DGRAM_H_

#include "utils/plugin_api.h"

#include <netinet/in.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The sender of one datagram, valid during the callback only.
typedef struct DgramAddress {
  int socket;                  // the socket it came in on; replies leave from it
  struct sockaddr_in address;  // family, port and IPv4 address, network order
  // The local address the datagram reached (network order); the reply leaves
  // from it, so a client that sent to a service address hears that address
  // answer. INADDR_ANY (0): the kernel picks the source.
  struct in_addr local;
} DgramAddress;

typedef void (*DgramHandler)(void* data, int length, DgramAddress* sender, void* serverArg);

// One per process, shared by all listener threads.
typedef struct ListenerInfo {
  uint16_t port;
  int socket;
  DgramHandler handler;
  void* serverArg;
  void* receiveLock;  // see kestrix::SetReceiveLock; null: none
} ListenerInfo;

enum {
  DGRAM_OK = 0,
  DGRAM_NO_SOCKET = 1100,
  DGRAM_BIND_FAILED = 1104,
  DGRAM_SEND_SHORT = 1105,
  DGRAM_NO_BUFFER = 408,
  DGRAM_RECEIVE_BUFFER_SIZE = 65536,
};

KESTRIX_FOR_PLUGINS int DGRAM_Init(void);
int DGRAM_BindListener(uint16_t port, DgramHandler handler, void* serverArg, int threads);
int makeListenerSocket(uint16_t port, int* socketOut);
// Thread function of each listener: receives and dispatches forever; the
// one way out is failing to get its receive buffer.
void* PrimaryListener(void* listenerInfo);
int DGRAM_SendReply(DgramAddress* sender, const void* data, int length);
int DGRAM_CompareAddresses(const DgramAddress* a, const DgramAddress* b);
void CloseSocket(int descriptor);
void dumpData(const void* data, int length);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {
// Every request body is shorter than this; handlers write into the receive
// buffer only inside it. After a datagram the listener zeroes the bytes from
// the received length up to the larger of this and the previous length, so a
// short datagram never reads what an earlier one left behind.
inline constexpr int kDgramScrubBytes = 4096;
// Zero bytes kept past the receive capacity, so that a scan for a text's
// terminator always ends inside the buffer.
inline constexpr int kDgramGuardBytes = 8;

// Makes the listener threads of the next DGRAM_BindListener serialise on
// sem: only the thread holding it waits in recvfrom, and it keeps holding it
// while the callback handles each datagram and for the datagrams after. The
// other threads wait for the semaphore, not on the socket, so one datagram
// wakes one thread and no semaphore changes hands between requests. The
// callback must not take sem itself. Null (the default) lets every thread
// receive at once.
void SetReceiveLock(void* sem);
}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_DGRAM_H_
