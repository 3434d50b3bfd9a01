#include "unixmdc/config.h"

#include <cstdlib>

namespace kestrix {

std::string LibraryDirectory() {
  const char* dir = std::getenv("KESTRIX_LIBDIR");
  return (dir != nullptr && *dir != '\0') ? dir : kDefaultLibraryDirectory;
}

uint16_t ServicePort() {
  const char* text = std::getenv("KESTRIX_PORT");
  if (text == nullptr || *text == '\0') return kDefaultServicePort;
  char* end = nullptr;
  long port = std::strtol(text, &end, 10);
  if (*end != '\0' || port < 1 || port > 65535) return kDefaultServicePort;
  return static_cast<uint16_t>(port);
}

}  // namespace kestrix
