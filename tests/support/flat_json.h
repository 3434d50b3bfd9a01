// A JSON document flattened for assertions: {"a":{"b":[1,"x"]}} gives
// "a.b.0" -> "1" and "a.b.1" -> "x". Nothing (an empty map) when the text
// is not exactly one well-formed document.
#ifndef KESTRIX_TESTS_SUPPORT_FLAT_JSON_H_
#define KESTRIX_TESTS_SUPPORT_FLAT_JSON_H_

#include <cctype>
#include <map>
#include <string>

namespace kestrix::test {

class FlatJson {
 public:
  static std::map<std::string, std::string> Parse(const std::string& text) {
    FlatJson p(text);
    p.Blank();
    if (!p.Value("") || (p.Blank(), p.at_ != text.size())) return {};
    return p.out_;
  }

 private:
  explicit FlatJson(const std::string& text) : s_(text) {}
  void Blank() { while (at_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[at_]))) ++at_; }
  bool Eat(char c) { return Blank(), at_ < s_.size() && s_[at_] == c ? (++at_, true) : false; }
  bool String(std::string* out) {
    if (!Eat('"')) return false;
    for (; at_ < s_.size() && s_[at_] != '"'; ++at_) {
      if (s_[at_] != '\\') { out->push_back(s_[at_]); continue; }
      if (++at_ >= s_.size()) return false;
      if (s_[at_] == 'u' && at_ + 4 < s_.size()) {
        out->push_back(static_cast<char>(std::stoi(s_.substr(at_ + 1, 4), nullptr, 16)));
        at_ += 4;
      } else {
        out->push_back(s_[at_] == 'n' ? '\n' : s_[at_]);
      }
    }
    return Eat('"');
  }
  bool Value(const std::string& path) {
    std::string prefix = path.empty() ? "" : path + ".";
    if (Eat('{')) {
      if (Eat('}')) return true;
      do {
        std::string key;
        if (!String(&key) || !Eat(':') || !Value(prefix + key)) return false;
      } while (Eat(','));
      return Eat('}');
    }
    if (Eat('[')) {
      if (Eat(']')) return true;
      int i = 0;
      do {
        if (!Value(prefix + std::to_string(i++))) return false;
      } while (Eat(','));
      return Eat(']');
    }
    std::string leaf;
    if (at_ < s_.size() && s_[at_] == '"') {
      if (!String(&leaf)) return false;
    } else {
      while (at_ < s_.size() && (std::isalnum(static_cast<unsigned char>(s_[at_])) || s_[at_] == '-' || s_[at_] == '.'))
        leaf.push_back(s_[at_++]);
      if (leaf.empty()) return false;
    }
    out_[path] = leaf;
    return true;
  }

  const std::string& s_;
  size_t at_ = 0;
  std::map<std::string, std::string> out_;
};

}  // namespace kestrix::test

#endif  // KESTRIX_TESTS_SUPPORT_FLAT_JSON_H_
