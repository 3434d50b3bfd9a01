// Helpers shared by the tests: temporary directories, files and log capture.
#ifndef KESTRIX_TESTS_SUPPORT_TEST_UTIL_H_
#define KESTRIX_TESTS_SUPPORT_TEST_UTIL_H_

#include <functional>
#include <string>
#include <vector>

namespace kestrix::test {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // Full path of name inside the directory.
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& contents);
std::vector<std::string> SplitLines(const std::string& text);
// Number of occurrences of needle in haystack.
int CountOf(const std::string& haystack, const std::string& needle);
// Calls done every 10 ms until it returns true (true) or timeoutMs pass (false).
bool PollUntil(const std::function<bool()>& done, int timeoutMs);

// Points the daemon's log at a file of its own at the given level for the
// lifetime of the object. The file's lines look like "Error text".
class LogCapture {
 public:
  explicit LogCapture(int level = 12);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string Text() const;
  std::vector<std::string> Lines() const { return SplitLines(Text()); }
  bool Contains(const std::string& needle) const;
  void Clear();
  void SetLevel(int level) { level_ = level; }
  const std::string& path() const { return path_; }

 private:
  TempDir dir_;
  std::string path_;
  int level_;
};

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_TEST_UTIL_H_
