#include "utils/token.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

TEST(TokenTest, CountsEmptyTokensButNotATrailingSeparator) {
  for (auto [text, count] : {std::pair{"a:b", 2}, {"a:b:", 2}, {":a", 2}, {"a::b", 3}, {":", 1},
                             {"", 0}, {"abc", 1}})
    EXPECT_EQ(token_getNumTokens(text, ':'), count) << text;
}

// Empty tokens keep their index; a token is cut to the buffer of `size`
// bytes; an index past the end (or below 0) gives the empty token.
TEST(TokenTest, TokenByIndex) {
  for (const auto& [text, index, size, want] :
       std::vector<std::tuple<const char*, int32_t, int32_t, std::string>>{
           {"a::b", 0, 64, "a"}, {"a::b", 1, 64, ""}, {"a::b", 2, 64, "b"}, {":a", 0, 64, ""},
           {"root:x:0:0::/root:/bin/sh", 5, 64, "/root"}, {"u::::::/bin/sh", 5, 64, ""},
           {"u::::::/bin/sh", 6, 64, "/bin/sh"}, {"abcdef", 0, 4, "abc"}, {"ab:cdef", 1, 3, "cd"},
           {"abc", 0, 1, ""}, {"a:b", 3, 64, ""}, {"a:b", -1, 64, ""}, {"abc", 0, 0, "x"}}) {
    char out[64] = "x";  // a size of 0 leaves the buffer alone
    EXPECT_EQ(token_getToken(text, ':', index, out, size), out);
    EXPECT_EQ(out, want) << text << " #" << index << " in " << size;
  }
}

}  // namespace
