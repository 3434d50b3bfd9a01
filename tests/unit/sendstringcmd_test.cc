// String commands: the splitting, comparing and number helpers, and what the
// handler does that a client cannot see (the system log, the text bound).
#include "utils/token.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sp/sendstringcmd.h"
#include "spmsgs.h"
#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/log.h"

namespace kestrix::test {
namespace {

TEST(CommandTextTest, SplitsAtEveryBarElseAtTheFirstSpace) {
  const std::string long1023(1023, 'L');
  const struct {
    std::string text;
    int count;
    std::vector<std::string> pieces;  // the rest are empty
  } kSplits[] = {
      {"a|b c", 3, {"a", "b", "c"}},        {"||| ", 5, {"", "", "", "", ""}},
      {"", 1, {}},                          {long1023, 1, {long1023}},
      {"1 2 3 4 5 6 7 8 9 10 11 12", 11, {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}},
  };
  for (const auto& c : kSplits) {
    std::string text = c.text;
    const char* pieces[FSF_COMMAND_PIECES];
    EXPECT_EQ(fsf_breakCommand(pieces, text.data()), c.count) << c.text;
    for (size_t i = 0; i < FSF_COMMAND_PIECES; ++i)
      EXPECT_STREQ(pieces[i], i < c.pieces.size() ? c.pieces[i].c_str() : "") << c.text << i;
  }
}

TEST(CommandTextTest, ComparesFoldingOnlyAsciiLetters) {
  const struct { const char *a, *b; int result; } kCompares[] = {
      {"LoG", "lOg", 0}, {"", "", 0}, {"LO", "LOG", -1}, {"LOG", "LO", -1}, {"[", "{", -1},
      {"@", "`", -1}, {"\xe9", "\xc9", -1},
  };
  for (const auto& c : kCompares) EXPECT_EQ(mystrcasecmp(c.a, c.b), c.result) << c.a << c.b;
}

TEST(CommandTextTest, ReadsDigitsWithEveryMinusFlippingTheSign) {
  const struct { const char* text; int64_t value; } kNumbers[] = {
      {"1-2", -12}, {"--4", 4}, {"7x", 7}, {"+5", 0}, {"", 0}, {"5-", -5},
      {"9223372036854775808", INT64_MIN}, {"18446744073709551617", 1},
  };
  for (const auto& c : kNumbers) EXPECT_EQ(myatoi(c.text), c.value) << c.text;
}

TEST(SendStringCmdTest, LogCommandSetsTheLevelAndTheDestination) {
  const struct { std::string text; int level; std::string destination; } kCases[] = {
      {"log 5", 5, "SYSTEM"},
      {"LOG|-3|system", -3, "system"},
      // No 0 unit in the whole area: 1023 bytes of it are used.
      {"LOG|4|" + std::string(SP_PATH_UNITS - 6, 'x'), 4, std::string(1023 - 6, 'x')},
  };
  for (const auto& c : kCases) {
    LogCapture log(7);
    auto msg = std::make_unique<SendStringCmdMsg>();  // exactly its size: ASan sees overreads
    msg->header.byteOrder = LAN_BYTEORDER_MARK;
    msg->header.functionCode = SP_FUNC_SENDSTRINGCMD;
    for (size_t i = 0; i < c.text.size(); ++i) msg->command[i] = static_cast<uint8_t>(c.text[i]);
    auto* reply = reinterpret_cast<SendStringCmdReply*>(SP_LanSendStringCmd(&msg->header, nullptr));
    EXPECT_EQ(std::tuple(GetLogLevel(), std::string(g_filename)),
              std::tuple(c.level, c.destination))
        << c.text;
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::tuple(reply->header.length, reply->result), std::tuple(2132u, 0));
    ksxmem_free(reply);
  }
}

}  // namespace
}  // namespace kestrix::test
