// Helpers shared by the tests: temporary directories, files, polling and,
// in the unit tests, a capture of the daemon's log.
#ifndef KESTRIX_TESTS_SUPPORT_TEST_UTIL_H_
#define KESTRIX_TESTS_SUPPORT_TEST_UTIL_H_

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "utils/log.h"

namespace kestrix::test {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir() : path_(std::filesystem::temp_directory_path() / "kestrix-test-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

inline void WriteFile(const std::string& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Number of occurrences of needle in haystack.
inline int CountOf(const std::string& haystack, const std::string& needle) {
  int n = 0;
  for (size_t at = haystack.find(needle); !needle.empty() && at != std::string::npos;
       at = haystack.find(needle, at + needle.size()))
    ++n;
  return n;
}

// Calls done every 10 ms until it returns true (true) or timeoutMs pass (false).
inline bool PollUntil(const std::function<bool()>& done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

// Points the daemon's log at a file of its own at the given level for the
// lifetime of the object. The file's lines look like "Error text".
class LogCapture {
 public:
  explicit LogCapture(int level = 12) : level_(level) {
    OSL_SetLog(&level_, path_.c_str(), "kestrixd");
  }
  ~LogCapture() {
    static int defaultLevel = 2;
    OSL_SetLog(&defaultLevel, "SCREEN", "kestrixd");
  }

  std::string Text() const { return ReadFile(path_); }
  std::vector<std::string> Lines() const { return SplitLines(Text()); }
  bool Contains(const std::string& needle) const {
    return Text().find(needle) != std::string::npos;
  }
  void Clear() { std::filesystem::remove(path_); }

 private:
  TempDir dir_;
  std::string path_ = dir_.File("log.txt");
  int level_;
};

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_TEST_UTIL_H_
