// Test side of the testfs plug-in: conf files, call records, installation.
#include "support/testfs.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include "support/test_util.h"

namespace kestrix::test {

std::string CallRecord::Get(const std::string& key) const {
  auto it = fields.find(key);
  return it == fields.end() ? std::string() : it->second;
}

void TestFs::Configure(const std::string& conf_text) const {
  // Written aside and renamed, so that a concurrent call never reads half.
  const std::string path = dir_ + "/" + name_ + ".conf";
  WriteFile(path + ".tmp", conf_text);
  std::rename((path + ".tmp").c_str(), path.c_str());
}

void TestFs::ClearCalls() const { unlink((dir_ + "/" + name_ + ".calls").c_str()); }

std::vector<CallRecord> TestFs::Calls(const std::string& function) const {
  std::vector<CallRecord> records;
  for (const std::string& line : SplitLines(ReadFile(dir_ + "/" + name_ + ".calls"))) {
    std::istringstream in(line);
    CallRecord record;
    in >> record.function;
    for (std::string word; in >> word;) {
      size_t eq = word.find('=');
      record.fields[word.substr(0, eq)] = eq == std::string::npos ? "" : word.substr(eq + 1);
    }
    if (!record.function.empty() && (function.empty() || record.function == function))
      records.push_back(std::move(record));
  }
  return records;
}

std::string InstallTestPlugin(const std::string& variant, const std::string& lib_dir,
                              const std::string& name) {
  std::string to = lib_dir + "/" + name;
  std::filesystem::copy_file(std::string(KESTRIX_TEST_PLUGIN_DIR) + "/" + variant, to,
                             std::filesystem::copy_options::overwrite_existing);
  return to;
}

std::vector<uint8_t> CookieBytes(const std::string& text) {
  std::vector<uint8_t> bytes(32, 0);
  std::copy_n(text.begin(), std::min<size_t>(text.size(), 32), bytes.begin());
  return bytes;
}

}  // namespace kestrix::test
