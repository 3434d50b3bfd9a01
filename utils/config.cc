#include "utils/config.h"

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

namespace {
uint32_t Bound(const char* name, uint32_t unset) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return unset;
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  return (*end != '\0' || value < 1 || value > 2147483647) ? unset : static_cast<uint32_t>(value);
}
}  // namespace

uint32_t MaxLeasesPerClient() {
  return Bound("KESTRIX_MAX_LEASES_PER_CLIENT", kDefaultMaxLeasesPerClient);
}

uint32_t MaxLeases() { return Bound("KESTRIX_MAX_LEASES", kDefaultMaxLeases); }

}  // namespace kestrix
