// A JSON document flattened for assertions: {"a":{"b":[1,"x"]}} gives
// "a.b.0" -> "1" and "a.b.1" -> "x". An empty map when the text is not
// exactly one well-formed document. Escapes other than \" and \\ are kept.
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
    if (!p.Value("") || (p.Eat(' '), p.at_ != text.size())) return {};
    return p.out_;
  }

 private:
  explicit FlatJson(const std::string& text) : s_(text) {}
  bool Eat(char c) {
    while (at_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[at_]))) ++at_;
    return at_ < s_.size() && s_[at_] == c && (++at_, true);
  }
  bool String(std::string* out) {
    if (!Eat('"')) return false;
    for (; at_ < s_.size() && s_[at_] != '"'; ++at_) {
      if (s_[at_] == '\\' && at_ + 1 < s_.size() && (s_[at_ + 1] == '"' || s_[at_ + 1] == '\\')) ++at_;
      out->push_back(s_[at_]);
    }
    return Eat('"');
  }
  // Objects and arrays: members until the closing bracket.
  template <typename Member>
  bool Members(char close, Member member) {
    if (Eat(close)) return true;
    for (int i = 0;; ++i) {
      if (!member(i)) return false;
      if (!Eat(',')) return Eat(close);
    }
  }
  bool Value(const std::string& path) {
    const std::string prefix = path.empty() ? "" : path + ".";
    std::string leaf;
    if (Eat('{'))
      return Members('}', [&](int) { return String(&leaf) && Eat(':') && Value(prefix + leaf) && (leaf.clear(), true); });
    if (Eat('[')) return Members(']', [&](int i) { return Value(prefix + std::to_string(i)); });
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
