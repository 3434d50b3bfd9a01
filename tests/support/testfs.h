// Test side of the scriptable testfs plug-in (tests/plugins/testfs.cc):
// writes an instance's conf, reads back its call records, installs variants.
#ifndef KESTRIX_TESTS_SUPPORT_TESTFS_H_
#define KESTRIX_TESTS_SUPPORT_TESTFS_H_

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kestrix::test {

// One line of an instance's .calls file: "FS_Name key=value ...".
struct CallRecord {
  std::string function;
  std::map<std::string, std::string> fields;

  // The field's value, "" when absent.
  std::string Get(const std::string& key) const;
  int64_t Int(const std::string& key) const { return std::atoll(Get(key).c_str()); }
};

// One plug-in instance, named by the file name it was installed under, in
// the steering directory (the value of KESTRIX_TESTFS_DIR).
class TestFs {
 public:
  TestFs(std::string steering_dir, std::string name)
      : dir_(std::move(steering_dir)), name_(std::move(name)) {}

  // Replaces the instance's conf; the plug-in reads it on its next call.
  void Configure(const std::string& conf_text) const;
  // Forgets the calls recorded so far.
  void ClearCalls() const;
  // The calls recorded, all or of one entry point.
  std::vector<CallRecord> Calls(const std::string& function = "") const;
  int CountCalls(const std::string& function) const {
    return static_cast<int>(Calls(function).size());
  }

 private:
  std::string dir_;
  std::string name_;
};

// Copies variant (a file name such as "libtestfs_v231.so") from the build's
// test plug-in directory into lib_dir as name; returns the new file's path.
std::string InstallTestPlugin(const std::string& variant, const std::string& lib_dir,
                              const std::string& name);

// A cookie text as the 32 bytes the plug-in stores (zero-padded).
std::vector<uint8_t> CookieBytes(const std::string& text);

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_TESTFS_H_
