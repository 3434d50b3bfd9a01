// Shared pieces of the end-to-end tests.
#ifndef KESTRIX_TESTS_E2E_E2E_UTIL_H_
#define KESTRIX_TESTS_E2E_E2E_UTIL_H_

#include <string>

#include "client/kxclient.h"
#include "support/daemon_process.h"
#include "support/test_util.h"

namespace kestrix::test {

using client::Bytes;

// The 48-byte reply the LAN server makes from a request header.
inline Bytes ExpectedLanReply(const Bytes& requestHeaderInHostOrder, int result) {
  Bytes reply(requestHeaderInHostOrder.begin(), requestHeaderInHostOrder.begin() + 48);
  LanHeader* h = client::HeaderOf(reply);
  h->byteOrder = 1;
  h->length = 48;
  h->functionCode = -h->functionCode;
  h->result = result;
  return reply;
}

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_E2E_E2E_UTIL_H_
