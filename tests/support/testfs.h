// Test side of the scriptable testfs plug-in (tests/plugins/testfs.cc):
// writes an instance's conf, reads back its call records, installs variants.
#ifndef KESTRIX_TESTS_SUPPORT_TESTFS_H_
#define KESTRIX_TESTS_SUPPORT_TESTFS_H_

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace kestrix::test {

// One line of an instance's .calls file: "FS_Name key=value ...".
struct CallRecord {
  std::string function;
  std::map<std::string, std::string> fields;

  std::string Get(const std::string& key) const {
    return fields.contains(key) ? fields.at(key) : "";
  }
  int64_t Int(const std::string& key) const { return std::atoll(Get(key).c_str()); }
};

// One plug-in instance, named by the file name it was installed under, in
// the steering directory (the value of KESTRIX_TESTFS_DIR).
class TestFs {
 public:
  TestFs(const std::string& dir, const std::string& name) : path_(dir + "/" + name) {}

  // Replaces the conf, written aside and renamed so that no call reads half.
  void Configure(const std::string& conf) const {
    WriteFile(path_ + ".conf.tmp", conf);
    std::rename((path_ + ".conf.tmp").c_str(), (path_ + ".conf").c_str());
  }
  void ClearCalls() const { std::remove((path_ + ".calls").c_str()); }
  // The calls recorded, all or of one entry point.
  std::vector<CallRecord> Calls(const std::string& function = "") const {
    std::vector<CallRecord> records;
    for (const std::string& line : SplitLines(ReadFile(path_ + ".calls"))) {
      std::istringstream in(line);
      CallRecord record;
      in >> record.function;
      for (std::string word; in >> word;) {
        const size_t eq = word.find('=');
        record.fields[word.substr(0, eq)] = eq == std::string::npos ? "" : word.substr(eq + 1);
      }
      if (function.empty() || record.function == function) records.push_back(record);
    }
    return records;
  }
  int CountCalls(const std::string& function) const {
    return static_cast<int>(Calls(function).size());
  }

 private:
  std::string path_;
};

// Copies variant (a file name such as "libtestfs_v231.so") from the build's
// test plug-in directory into libDir as name.
inline void InstallTestPlugin(const std::string& variant, const std::string& libDir,
                              const std::string& name) {
  std::filesystem::copy_file(std::string(KESTRIX_TEST_PLUGIN_DIR) + "/" + variant,
                             libDir + "/" + name,
                             std::filesystem::copy_options::overwrite_existing);
}

// A cookie text as the 32 bytes the plug-in stores (zero-padded).
inline std::vector<uint8_t> CookieBytes(const std::string& text) {
  std::vector<uint8_t> bytes(text.begin(), text.begin() + std::min<size_t>(text.size(), 32));
  bytes.resize(32);
  return bytes;
}

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_TESTFS_H_
