// Tokens of a separated line: the edges the password file rarely shows.
#include "utils/token.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

TEST(TokenTest, CountsAndCutsTokens) {
  for (auto [text, count] : {std::pair{"a:b:", 2}, {":", 1}, {"", 0}}) EXPECT_EQ(token_getNumTokens(text, ':'), count) << text;
  // A token is cut to the buffer; an index past the end gives the empty token.
  for (const auto& [text, index, size, want] : std::vector<std::tuple<const char*, int32_t, int32_t, std::string>>{
           {"ab:cdef", 1, 3, "cd"}, {"a:b", 3, 64, ""}, {"a:b", -1, 64, ""}, {"abc", 0, 0, "x"}}) {
    char out[64] = "x";  // a size of 0 leaves the buffer alone
    EXPECT_EQ(token_getToken(text, ':', index, out, size), out);
    EXPECT_EQ(out, want) << text << " #" << index << " in " << size;
  }
}

}  // namespace
