// Helpers the request handlers share: how large the big reply buffers are
// (MAXDGRAM), where a GetInitialMap request's file name starts after its
// share, joining a mount point and a file name, and printers of FSUNI text
// for diagnostics.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "sp/fsmdcsp.h"
#include "sp/path_helpers.h"
#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/utils.h"

namespace kestrix {

FSULONG MaxDgramFromText(const char* text) {
  // atoi's rules, but a value beyond int saturates instead of wrapping, so
  // that a huge size is lowered rather than read as its low 32 bits.
  long long asked = std::strtoll(text, nullptr, 10);
  FSULONG used = static_cast<FSULONG>(asked);
  if (asked < static_cast<long long>(kMinMaxDgram)) used = kMinMaxDgram;
  if (asked > static_cast<long long>(kMaxMaxDgram)) used = kMaxMaxDgram;
  if (static_cast<long long>(used) != asked) {
    OSL_Log(KSX_ERROR, "MAXDGRAM %s is outside %u to %u; using %u\n", text,
            static_cast<unsigned>(kMinMaxDgram), static_cast<unsigned>(kMaxMaxDgram),
            static_cast<unsigned>(used));
  }
  return used;
}

}  // namespace kestrix

extern "C" {

FSULONG maxDgramSize(void) {
  // Read once per process; the first call happens during start-up.
  static const FSULONG size = [] {
    const char* text = std::getenv("MAXDGRAM");
    return text != nullptr ? kestrix::MaxDgramFromText(text) : kestrix::kDefaultMaxDgram;
  }();
  return size;
}

FSUNI* GetNextString(FSUNI* area, FSULONG capacityBytes) {
  FSULONG n = capacityBytes / 2;
  for (FSULONG i = 0; i < n; ++i) {
    if (area[i] == 0) return i < n - 1 ? area + i + 1 : nullptr;
  }
  return nullptr;
}

FSUNI* ConcatFilenameToPathOld(const FSUNI* name, const FSUNI* mountPoint, FSUNI* out,
                               FSULONG capacityBytes) {
  const FSULONG capacity = capacityBytes & ~1u;  // whole units only
  const FSULONG l = fsunilength(mountPoint);
  // The mount point alone must fit with its terminator, else nothing is written.
  if (2ull * (l + 1) > capacity) return out;
  std::memcpy(out, mountPoint, 2ull * l);
  const FSULONG n = fsunilength(name);
  if (2ull * (l + n + 1) <= capacity) {
    std::memcpy(out + l, name, 2ull * (n + 1));
  } else {
    out[l] = 0;
  }
  return out;
}

FSUNI* ConcatFilenameToPath(const FSUNI* name, const FSUNI* mountPoint, FSUNI separator,
                            FSUNI* out, FSULONG capacityBytes) {
  if (separator == 0) return ConcatFilenameToPathOld(name, mountPoint, out, capacityBytes);
  const unsigned long long b = capacityBytes & ~1u;  // whole units only
  const FSULONG l = fsunilength(mountPoint);
  // The mount point must fit with its terminator, and the separator with one.
  if (2ull * (l + 1) >= b) return out;
  std::memcpy(out, mountPoint, 2ull * (l + 1));
  const FSULONG p = (l > 0 && mountPoint[l - 1] == separator) ? l : l + 1;
  if (2ull * (p + 1) >= b) return out;
  out[p - 1] = separator;
  out[p] = 0;
  FSULONG n = fsunilength(name);
  if (n > 1 && name[0] == separator) {
    ++name;
    --n;
  }
  if (2ull * (n + 1) < b - 2ull * p) std::memcpy(out + p, name, 2ull * (n + 1));
  return out;
}

void printFSUNIBytes(const FSUNI* text) {
  char hex[4096];
  size_t used = 0;
  hex[0] = '\0';
  const auto* bytes = reinterpret_cast<const uint8_t*>(text);
  for (size_t i = 0; !(bytes[i] == 0 && bytes[i + 1] == 0); ++i) {
    if (used + 3 > sizeof hex - 1) break;
    used += static_cast<size_t>(std::snprintf(hex + used, sizeof hex - used, "%02X ", bytes[i]));
  }
  OSL_Log(KSX_PRINT, "FSUNI Bytes [%s]\n", hex);
}

void printFSUNI(const FSUNI* text) {
  if (GetLogLevel() < KSX_SP || text == nullptr) return;
  printFSUNIBytes(text);
  FSULONG count = fsunilength(text);
  if (count > 1024) return;
  // The text usually came from a request: it is logged as UTF-8 and escaped
  // like every other client text, so that it cannot start a line of its own.
  char utf8[4 * 1024 + 1];
  kestrix::Utf16ToUtf8(text, static_cast<int32_t>(count), utf8, sizeof utf8, false);
  OSL_Log(KSX_SP, "printFSUNI fsmdcsp [%s]", kestrix::LogSafe(utf8).c_str());
}

}  // extern "C"
