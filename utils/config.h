// The daemon's environment extensions, read in one place.
//
// KESTRIX_LIBDIR replaces the plug-in directory "/opt/Kestrix/lib";
// KESTRIX_PORT (decimal) replaces UDP port 5501. Unset, the defaults hold.
// KESTRIX_LOG_DIR confines the files the "LOG" command may log to.
// KESTRIX_ADMIN_SOCKET moves the admin socket (empty: none);
// KESTRIX_METRICS=ADDRESS:PORT serves metrics over HTTP (unset: none).
#ifndef KESTRIX_UTILS_CONFIG_H_
#define KESTRIX_UTILS_CONFIG_H_

#include <cstdint>
#include <string>

namespace kestrix {

inline constexpr uint32_t kDefaultMaxLeasesPerClient = 4096;
inline constexpr uint32_t kDefaultMaxLeases = 32768;
inline constexpr const char* kDefaultLibraryDirectory = "/opt/Kestrix/lib";
inline constexpr uint16_t kDefaultServicePort = 5501;
inline constexpr const char* kDefaultAdminSocket = "/run/kestrixd/admin.sock";

// The directory the loader reads plug-ins from.
std::string LibraryDirectory();
// The UDP port the daemon binds; a value that is not a port in 1..65535
// falls back to the default.
uint16_t ServicePort();
// The lease bounds of one sender and of all, from KESTRIX_MAX_LEASES_PER_CLIENT
// and KESTRIX_MAX_LEASES; a value that is not a decimal number in
// 1..2147483647 falls back to the default.
uint32_t MaxLeasesPerClient();
uint32_t MaxLeases();
// The directory a "LOG" file destination must lie in; empty (unset or set
// to nothing) when any file is taken.
std::string LogDirectory();
// The admin socket's path: the default when unset, empty (no socket) when
// set to nothing.
std::string AdminSocketPath();
// ADDRESS:PORT of the metrics endpoint; empty when there is none.
std::string MetricsAddress();

}  // namespace kestrix

#endif  // KESTRIX_UTILS_CONFIG_H_
