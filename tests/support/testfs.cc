// Test side of the testfs plug-in: conf files, call records, installation.
#include "support/testfs.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "tests/plugins/testfs_escape.h"
#include "support/test_util.h"

namespace kestrix::test {

namespace {

using testfs::Unescape;

}  // namespace

bool CallRecord::Has(const std::string& key) const {
  for (const auto& [k, v] : fields)
    if (k == key) return true;
  return false;
}

std::string CallRecord::Get(const std::string& key) const {
  for (const auto& [k, v] : fields)
    if (k == key) return v;
  return std::string();
}

int64_t CallRecord::Int(const std::string& key) const {
  std::string text = Get(key);
  if (text.empty()) return 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  return *end == '\0' ? v : 0;
}

std::string TestFsEscape(const std::string& text) { return testfs::Escape(text); }

CallRecord ParseCallRecord(const std::string& line) {
  CallRecord record;
  std::istringstream in(line);
  in >> record.function;
  for (std::string word; in >> word;) {
    size_t eq = word.find('=');
    if (eq == std::string::npos)
      record.fields.emplace_back(Unescape(word), std::string());
    else
      record.fields.emplace_back(word.substr(0, eq), Unescape(word.substr(eq + 1)));
  }
  return record;
}

void TestFs::Configure(const std::string& conf_text) const {
  // Written aside and renamed so that a concurrent call never reads half.
  std::string tmp = ConfPath() + ".tmp";
  WriteFile(tmp, conf_text);
  if (rename(tmp.c_str(), ConfPath().c_str()) != 0)
    throw std::runtime_error("cannot write " + ConfPath());
}

void TestFs::RemoveConf() const { unlink(ConfPath().c_str()); }

void TestFs::ClearCalls() const { unlink(CallsPath().c_str()); }

std::vector<CallRecord> TestFs::Calls() const {
  std::vector<CallRecord> records;
  for (const std::string& line : SplitLines(ReadFile(CallsPath())))
    if (!line.empty()) records.push_back(ParseCallRecord(line));
  return records;
}

std::vector<CallRecord> TestFs::Calls(const std::string& function) const {
  std::vector<CallRecord> records;
  for (CallRecord& r : Calls())
    if (r.function == function) records.push_back(std::move(r));
  return records;
}

int TestFs::CountCalls(const std::string& function) const {
  return static_cast<int>(Calls(function).size());
}

std::string CopyTestPlugin(const std::string& plugin_dir, const std::string& variant,
                           const std::string& lib_dir, const std::string& name) {
  std::string to = lib_dir + "/" + name;
  std::filesystem::copy_file(plugin_dir + "/" + variant, to,
                             std::filesystem::copy_options::overwrite_existing);
  return to;
}

std::vector<uint8_t> CookieBytes(const std::string& text) {
  std::vector<uint8_t> bytes(32, 0);
  for (size_t i = 0; i < text.size() && i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(text[i]);
  return bytes;
}

}  // namespace kestrix::test
