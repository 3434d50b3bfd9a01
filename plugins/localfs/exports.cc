// Exports: the configuration file, the lexical match of a client's path to
// an export, and the confined opening of what lies below an export.
#include "plugins/localfs/exports.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <fstream>

#include "plugins/localfs/volume.h"
#include "utils/log.h"

namespace localfs {

namespace {

constexpr int kMaxLeaseSeconds = 2147483;  // its milliseconds still fit 32 bits
constexpr int kOpenAttempts = 8;           // openat2 asks for a retry on a rename race
constexpr int64_t kMaxGrowthMiB = int64_t{1} << 20;  // a TiB

// Path components without empty ones and ".".
std::vector<std::string_view> Components(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    size_t slash = path.find('/');
    std::string_view part = path.substr(0, slash);
    if (!part.empty() && part != ".") parts.push_back(part);
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return parts;
}

std::string Join(const std::vector<std::string_view>& parts, size_t from, const char* lead) {
  std::string out = lead;
  for (size_t i = from; i < parts.size(); ++i) {
    if (i > from) out += '/';
    out += parts[i];
  }
  return out;
}

// Number of leading components of path that match prefix, or 0 when prefix
// is not a leading part of path (an export of "/" matches every path).
size_t MatchLength(const std::vector<std::string_view>& path, const std::string& prefix,
                   bool* matched) {
  auto parts = Components(prefix);
  *matched = !prefix.empty() && parts.size() <= path.size() &&
             std::equal(parts.begin(), parts.end(), path.begin());
  return parts.size();
}

std::string_view Trim(std::string_view s) {
  const char* blanks = " \t\r\n";
  size_t first = s.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

bool ParseSeconds(std::string_view text, int* out) {
  int v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || v < 0 || v > kMaxLeaseSeconds) {
    return false;
  }
  *out = v;
  return true;
}

bool ParseMebibytes(std::string_view text, int64_t* out) {
  int64_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || v < 1 || v > kMaxGrowthMiB)
    return false;
  *out = v << 20;
  return true;
}

// One line of the file; false when it is not understood.
bool ParseLine(std::string_view line, Config* c, const std::string& file, int lineNo) {
  if (line.front() == '/') {
    auto parts = Components(line);
    for (auto p : parts) {
      if (p == "..") return false;
    }
    if (c->exports.size() == kMaxExports) {
      OSL_Log(KSX_ERROR, "localfs: %s line %d: more than %zu exports; ignored\n", file.c_str(),
              lineNo, kMaxExports);
      return true;
    }
    Export e{Join(parts, 0, "/"), ""};
    // The export is resolved once: later calls open this real path and
    // check that it is still the same directory.
    struct stat st;
    if (char* real = realpath(e.path.c_str(), nullptr)) {
      e.canonical = real;
      free(real);
      if (stat(e.canonical.c_str(), &st) == 0) {
        e.dev = st.st_dev;
        e.ino = st.st_ino;
      } else {
        e.startError = errno;
        e.canonical.clear();
      }
    } else {
      e.startError = errno;
    }
    c->exports.push_back(std::move(e));
    return true;
  }
  size_t blank = line.find_first_of(" \t");
  if (blank == std::string_view::npos) return false;
  std::string_view key = line.substr(0, blank), value = Trim(line.substr(blank));
  if (key == "max-read-lease") return ParseSeconds(value, &c->maxReadLease);
  if (key == "max-write-lease") return ParseSeconds(value, &c->maxWriteLease);
  if (key == "max-growth") return ParseMebibytes(value, &c->maxGrowth);
  return false;
}

// One line per export at start-up: what it is served from, or why not.
void Report(const Export& e) {
  Volume v;
  std::string why;
  UniqueFd dir = OpenExport(e, &why);
  if (dir.ok() && ProbeVolume(dir.get(), &v, &why) == 0) {
    OSL_Log(KSX_INFO, "localfs: exporting %s (%s on %s)\n", Escaped(e.path).c_str(),
            v.fsName.c_str(), Escaped(v.device).c_str());
  } else {
    OSL_Log(KSX_ERROR, "localfs: export %s refused: %s\n", Escaped(e.path).c_str(),
            Escaped(why).c_str());
  }
}

}  // namespace

Config LoadConfig() {
  const char* env = getenv(kConfEnv);
  const std::string file = env != nullptr && *env != '\0' ? env : kDefaultConf;
  Config c;
  std::ifstream in(file);
  if (!in) {
    OSL_Log(KSX_INFO, "localfs: no configuration %s; serving nothing\n", Escaped(file).c_str());
    return c;
  }
  int lineNo = 0;
  for (std::string raw; std::getline(in, raw);) {
    ++lineNo;
    std::string_view line = Trim(raw);
    if (line.empty() || line.front() == '#') continue;
    if (!ParseLine(line, &c, file, lineNo)) {
      OSL_Log(KSX_ERROR, "localfs: %s line %d not understood; ignored: %s\n", Escaped(file).c_str(),
              lineNo, Escaped(line).c_str());
    }
  }
  if (c.exports.empty()) {
    OSL_Log(KSX_INFO, "localfs: no exports in %s; serving nothing\n", Escaped(file).c_str());
  }
  for (const Export& e : c.exports) Report(e);
  return c;
}

std::optional<ExportMatch> FindExport(const Config& config, std::string_view path) {
  if (path.empty() || path.front() != '/') return std::nullopt;
  const auto parts = Components(path);
  std::optional<ExportMatch> best;
  size_t bestLength = 0;
  for (size_t i = 0; i < config.exports.size(); ++i) {
    for (const std::string* form : {&config.exports[i].path, &config.exports[i].canonical}) {
      bool matched = false;
      size_t length = MatchLength(parts, *form, &matched);
      if (!matched || (best && length <= bestLength)) continue;
      bestLength = length;
      best = ExportMatch{i, length == parts.size() ? "." : Join(parts, length, "")};
    }
  }
  return best;
}

UniqueFd OpenExport(const Export& e, std::string* why, bool* replaced) {
  if (e.canonical.empty()) {
    *why = ErrnoText(e.startError);
    return UniqueFd();
  }
  struct open_how how = {};
  how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  UniqueFd fd(
      static_cast<int>(syscall(SYS_openat2, AT_FDCWD, e.canonical.c_str(), &how, sizeof how)));
  struct stat st;
  if (!fd.ok() && errno != ELOOP && errno != ENOTDIR) {
    *why = ErrnoText(errno);
  } else if (!fd.ok() || fstat(fd.get(), &st) != 0 || st.st_dev != e.dev || st.st_ino != e.ino) {
    *why = e.canonical + " is no longer the directory it was at start-up";
    if (replaced != nullptr) *replaced = true;
    fd.Reset();
  }
  return fd;
}

int OpenBeneath(int exportFd, const std::string& below, int flags) {
  struct open_how how = {};
  how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_XDEV | RESOLVE_NO_MAGICLINKS;
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    long fd = syscall(SYS_openat2, exportFd, below.c_str(), &how, sizeof how);
    if (fd >= 0) return static_cast<int>(fd);
    if (errno != EAGAIN) return -errno;
  }
  return -EAGAIN;
}

}  // namespace localfs
