// Test side of the scriptable testfs plug-in: writes an instance's conf,
// reads back its call records, and installs built variants under chosen
// names. The formats are described at the top of tests/plugins/testfs.cc.
#ifndef KESTRIX_TESTS_SUPPORT_TESTFS_H_
#define KESTRIX_TESTS_SUPPORT_TESTFS_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kestrix::test {

// One line of an instance's .calls file.
struct CallRecord {
  std::string function;                                     // "FS_GetCookies"
  std::vector<std::pair<std::string, std::string>> fields;  // unescaped, in order

  bool Has(const std::string& key) const;
  // The field's value, "" when absent.
  std::string Get(const std::string& key) const;
  // The field as a number; 0 when absent or not a number.
  int64_t Int(const std::string& key) const;
};

// Escapes a text (blanks, '%', '=', control bytes) for a conf field.
std::string TestFsEscape(const std::string& text);
CallRecord ParseCallRecord(const std::string& line);

// One plug-in instance, named by the file name it was installed under, in
// the steering directory (the value of KESTRIX_TESTFS_DIR).
class TestFs {
 public:
  TestFs(std::string steering_dir, std::string name)
      : dir_(std::move(steering_dir)), name_(std::move(name)) {}

  // Replaces the instance's conf; the plug-in reads it on its next call.
  void Configure(const std::string& conf_text) const;
  void RemoveConf() const;
  // Forgets the calls recorded so far.
  void ClearCalls() const;
  std::vector<CallRecord> Calls() const;
  std::vector<CallRecord> Calls(const std::string& function) const;
  int CountCalls(const std::string& function) const;

  std::string ConfPath() const { return dir_ + "/" + name_ + ".conf"; }
  std::string CallsPath() const { return dir_ + "/" + name_ + ".calls"; }
  const std::string& name() const { return name_; }

 private:
  std::string dir_;
  std::string name_;
};

// Copies variant (a file name such as "libtestfs_v231.so") from plugin_dir
// into lib_dir as name; returns the new file's path.
std::string CopyTestPlugin(const std::string& plugin_dir, const std::string& variant,
                           const std::string& lib_dir, const std::string& name);

// A cookie text as the 32 bytes the plug-in stores (zero-padded).
std::vector<uint8_t> CookieBytes(const std::string& text);

#ifdef KESTRIX_TEST_PLUGIN_DIR
// The same from the directory the build puts the variants in.
inline std::string InstallTestPlugin(const std::string& variant, const std::string& lib_dir,
                                     const std::string& name) {
  return CopyTestPlugin(KESTRIX_TEST_PLUGIN_DIR, variant, lib_dir, name);
}
#endif

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_TESTFS_H_
