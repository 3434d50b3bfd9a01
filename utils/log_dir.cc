// The KESTRIX_LOG_DIR check of "LOG" file destinations.
#include "utils/log_dir.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "utils/log.h"

namespace kestrix {

namespace {

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : "";
}

}  // namespace

std::string ConfinedLogFile(const std::string& destination, const std::string& dir) {
  std::string base = RealPath(dir);
  if (base.empty()) return "";
  if (base.back() != '/') base += '/';

  const size_t slash = destination.rfind('/');
  const std::string leaf = slash == std::string::npos ? destination : destination.substr(slash + 1);
  if (leaf.empty() || leaf == "." || leaf == "..") return "";
  std::string path = RealPath(slash == std::string::npos ? "."
                              : slash == 0               ? "/"
                                                         : destination.substr(0, slash));
  if (path.empty()) return "";
  if (path.back() != '/') path += '/';
  path += leaf;

  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) path = RealPath(path);
  if (path.size() <= base.size() || path.compare(0, base.size(), base) != 0) return "";
  if (path.size() >= sizeof(g_filename)) return "";
  return path;
}


}  // namespace kestrix
