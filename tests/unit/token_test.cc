#include "utils/token.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TokenTest, CountsEmptyTokensButNotATrailingSeparator) {
  EXPECT_EQ(token_getNumTokens("a:b", ':'), 2);
  EXPECT_EQ(token_getNumTokens("a:b:", ':'), 2);
  EXPECT_EQ(token_getNumTokens(":a", ':'), 2);
  EXPECT_EQ(token_getNumTokens("a::b", ':'), 3);
  EXPECT_EQ(token_getNumTokens(":", ':'), 1);
  EXPECT_EQ(token_getNumTokens("", ':'), 0);
  EXPECT_EQ(token_getNumTokens("abc", ':'), 1);
}

std::string Token(const char* text, int32_t index, int32_t size = 64) {
  char out[64];
  EXPECT_EQ(token_getToken(text, ':', index, out, size), out);
  return out;
}

TEST(TokenTest, EmptyTokensKeepTheirIndex) {
  EXPECT_EQ(Token("a::b", 0), "a");
  EXPECT_EQ(Token("a::b", 1), "");
  EXPECT_EQ(Token("a::b", 2), "b");
  EXPECT_EQ(Token("root:x:0:0::/root:/bin/sh", 5), "/root");
  EXPECT_EQ(Token("u::::::/bin/sh", 5), "");
  EXPECT_EQ(Token("u::::::/bin/sh", 6), "/bin/sh");
  EXPECT_EQ(Token(":a", 0), "");
}

TEST(TokenTest, CutsAtTheBufferAndPastTheEnd) {
  EXPECT_EQ(Token("abcdef", 0, 4), "abc");
  EXPECT_EQ(Token("ab:cdef", 1, 3), "cd");
  EXPECT_EQ(Token("abc", 0, 1), "");
  EXPECT_EQ(Token("a:b", 3), "");
  EXPECT_EQ(Token("a:b", -1), "");
  char untouched[2] = {'x', 'y'};
  EXPECT_EQ(token_getToken("abc", ':', 0, untouched, 0), untouched);
  EXPECT_EQ(untouched[0], 'x');
}

}  // namespace
