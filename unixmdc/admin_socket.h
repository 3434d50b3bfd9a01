// The admin socket: a Unix stream socket, mode 0600, on which kestrix-cli
// lists and revokes leases and reads the daemon's counters. It is served by
// one thread of its own, so an admin client never holds up a request.
//
// A connection carries one request and one answer, each a single line of
// JSON:
//   {"command":"leases"}
//   {"command":"revoke","key":N} | {"command":"revoke","client":"A.B.C.D"}
//     | {"command":"revoke","path":"/full/path"}
//   {"command":"stats"}
// answered by {"ok":true,...} or {"ok":false,"error":"..."}. A request
// longer than kAdminRequestMax bytes, one that is not complete within
// kAdminTimeoutMs, or one from a user other than the daemon's own or root
// gets an error and changes nothing.
#ifndef KESTRIX_UNIXMDC_ADMIN_SOCKET_H_
#define KESTRIX_UNIXMDC_ADMIN_SOCKET_H_

#include <string>

namespace kestrix {

inline constexpr size_t kAdminRequestMax = 4096;
inline constexpr int kAdminTimeoutMs = 2000;

// Makes the socket at path (and its directory when missing, mode 0755),
// replacing a socket left there by an earlier run, and starts its thread.
// False, with why, when it cannot be made.
bool StartAdminSocket(const std::string& path, std::string* why);

// The answer to one request line from the user described by who.
std::string AnswerAdminRequest(const std::string& request, const std::string& who);

}  // namespace kestrix

#endif  // KESTRIX_UNIXMDC_ADMIN_SOCKET_H_
