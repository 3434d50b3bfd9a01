#include "unixmdc/config.h"

#include <cstdlib>

namespace kestrix {

namespace {
std::string Variable(const char* name, const char* unset) {
  const char* value = std::getenv(name);
  return (value != nullptr && *value != '\0') ? value : unset;
}
}  // namespace

std::string LibraryDirectory() { return Variable("KESTRIX_LIBDIR", kDefaultLibraryDirectory); }

std::string LogDirectory() { return Variable("KESTRIX_LOG_DIR", ""); }

std::string AdminSocketPath() {
  const char* value = std::getenv("KESTRIX_ADMIN_SOCKET");
  return value != nullptr ? value : kDefaultAdminSocket;
}

std::string MetricsAddress() { return Variable("KESTRIX_METRICS", ""); }

uint16_t ServicePort() {
  const char* text = std::getenv("KESTRIX_PORT");
  if (text == nullptr || *text == '\0') return kDefaultServicePort;
  char* end = nullptr;
  long port = std::strtol(text, &end, 10);
  if (*end != '\0' || port < 1 || port > 65535) return kDefaultServicePort;
  return static_cast<uint16_t>(port);
}

}  // namespace kestrix
