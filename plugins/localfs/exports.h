// The exported directories and the lease maxima, read from the configuration
// file at start-up, and the confinement of every path to an export.
//
// File format: one setting a line; blank lines and lines starting with '#'
// are ignored; leading and trailing blanks are dropped.
//   /absolute/directory        an export (at most kMaxExports)
//   max-read-lease SECONDS     FS_GetMaxLeases's read maximum
//   max-write-lease SECONDS    FS_GetMaxLeases's write maximum
//   max-growth MIB             the most allocation one call makes
#ifndef KESTRIX_PLUGINS_LOCALFS_EXPORTS_H_
#define KESTRIX_PLUGINS_LOCALFS_EXPORTS_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugins/localfs/lfs_util.h"

namespace localfs {

inline constexpr const char* kConfEnv = "KESTRIX_LOCALFS_CONF";
inline constexpr const char* kDefaultConf = "/opt/Kestrix/localfs.conf";
inline constexpr size_t kMaxExports = 255;  // an export's index fits a cookie byte
// Zeroing runs at 128 MiB/s or more even on one slow hard disk (and at
// several GiB/s on solid-state storage), so a call of this size takes about
// a second at most.
inline constexpr int64_t kDefaultMaxGrowth = int64_t{128} << 20;

struct Export {
  std::string path;       // as configured, with "." and repeated slashes removed
  std::string canonical;  // its real path at start-up; empty when it did not resolve
  int startError = 0;     // errno of resolving it at start-up
  dev_t dev = 0;          // the directory it resolved to at start-up
  ino_t ino = 0;
};

struct Config {
  std::vector<Export> exports;
  int maxReadLease = -1;  // seconds; -1 when not configured
  int maxWriteLease = -1;
  int64_t maxGrowth = kDefaultMaxGrowth;  // bytes of new allocation per call
};

// Reads the configuration file named by KESTRIX_LOCALFS_CONF (or the default)
// and logs what is served: one Info line per export, or one saying that
// nothing is; Error lines for what is refused.
Config LoadConfig();

// An export holding a path, and the path below it.
struct ExportMatch {
  size_t index;
  std::string below;  // "." for the export itself
};

// The export with the longest lexical match for an absolute path, compared
// component by component with the configured and the real export paths.
std::optional<ExportMatch> FindExport(const Config& config, std::string_view path);

// Opens the export directory (readable: open_by_handle_at refuses O_PATH)
// by its real path of start-up without following any symbolic link, and only
// while it is still the directory it was then; else says why not, and sets
// *replaced when something else stands at its path now.
UniqueFd OpenExport(const Export& e, std::string* why, bool* replaced = nullptr);

// Opens `below` relative to the export directory so that no step leaves it:
// ".." above it, absolute symbolic links, links climbing out and other
// mounts are refused (EXDEV or ELOOP). Returns -errno on failure.
int OpenBeneath(int exportFd, const std::string& below, int flags);

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_EXPORTS_H_
