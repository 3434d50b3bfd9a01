// String commands: the splitting, comparing and number helpers, and the
// handler's effect on the log level and destination, called in-process.
#include "sp/sendstringcmd.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sp/handlers.h"
#include "spmsgs.h"
#include "support/test_util.h"
#include "utils/ksxmem.h"
#include "utils/log.h"

namespace kestrix::test {
namespace {

TEST(SendStringCmdTest, BreakCommandSplitsAtBarsFirstThenSpaces) {
  const struct {
    const char* text;
    int count;
    std::vector<std::string> pieces;  // the rest are empty
  } kCases[] = {
      {"log 5", 2, {"log", "5"}},
      {"LOG|10|SCREEN", 3, {"LOG", "10", "SCREEN"}},
      {"LOG 3 /var/tmp/k.log", 3, {"LOG", "3", "/var/tmp/k.log"}},
      {"LOG  5", 3, {"LOG", "", "5"}},
      {"LOG 5|SCREEN", 2, {"LOG 5", "SCREEN"}},
      {"a|b c|d", 3, {"a", "b c", "d"}},
      {"a|b c", 3, {"a", "b", "c"}},  // the rest after the last bar splits at spaces
      {"||| ", 5, {"", "", "", "", ""}},
      {"", 1, {}},
      {"1 2 3 4 5 6 7 8 9 10", 10, {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}},
      {"1 2 3 4 5 6 7 8 9 10 11 12", 11, {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}},
  };
  for (const auto& c : kCases) {
    std::string text = c.text;
    const char* pieces[FSF_COMMAND_PIECES];
    EXPECT_EQ(fsf_breakCommand(pieces, text.data()), c.count) << c.text;
    for (size_t i = 0; i < FSF_COMMAND_PIECES; ++i) {
      EXPECT_STREQ(pieces[i], i < c.pieces.size() ? c.pieces[i].c_str() : "") << c.text << i;
    }
  }
}

TEST(SendStringCmdTest, CaseFoldingAndNumbers) {
  const struct {
    const char *a, *b;
    int result;
  } kCompare[] = {
      {"LOG", "LOG", 0}, {"log", "LOG", 0}, {"LoG", "lOg", 0}, {"", "", 0},
      {"LO", "LOG", -1}, {"LOG", "LO", -1}, {"LOGX", "LOG", -1}, {"abc", "ABD", -1},
      {"[", "{", -1},    {"@", "`", -1},    {"\xe9", "\xc9", -1},  // only a to z fold
  };
  for (const auto& c : kCompare) EXPECT_EQ(mystrcasecmp(c.a, c.b), c.result) << c.a << c.b;

  const struct {
    const char* text;
    int64_t value;
  } kNumbers[] = {
      {"-3", -3}, {"1-2", -12}, {"--4", 4}, {"7x", 7}, {"+5", 0}, {" 5", 0}, {"", 0},
      {"5-", -5}, {"10", 10},   {"9223372036854775808", INT64_MIN},
      {"18446744073709551617", 1}, {"-9223372036854775808", INT64_MIN},
  };
  for (const auto& c : kNumbers) EXPECT_EQ(myatoi(c.text), c.value) << c.text;
}

// The request in a buffer of exactly its own size, so that any read past
// the command area is caught.
std::unique_ptr<SendStringCmdMsg> Request(const std::string& text) {
  auto msg = std::make_unique<SendStringCmdMsg>();
  std::memset(msg.get(), 0, sizeof(SendStringCmdMsg));
  msg->header.byteOrder = LAN_BYTEORDER_MARK;
  msg->header.functionCode = SP_FUNC_SENDSTRINGCMD;
  for (size_t i = 0; i < text.size() && i < SP_PATH_UNITS; ++i)
    msg->command[i] = static_cast<unsigned char>(text[i]);
  return msg;
}

TEST(SendStringCmdTest, LogCommandSetsLevelAndDestinationAndEveryTextGetsResultZero) {
  TempDir dir;
  const std::string kept = "(kept)";
  const std::string area = "LOG|4|" + std::string(SP_PATH_UNITS - 6, 'x');  // no 0 unit
  const struct {
    std::string text;
    int level;
    std::string destination;
  } kCases[] = {
      {"log 5", 5, "SYSTEM"},
      {"LOG|10|SCREEN", 10, ""},
      {"LOG 3 " + dir.File("k.log"), 3, dir.File("k.log")},
      {"LOG  5", 0, "5"},
      {"LOG|-3|system", -3, "system"},
      {"LOG 5|SCREEN", 7, kept},
      {"LOGX 5", 7, kept},
      {"LO 5", 7, kept},
      {"", 7, kept},
      {area, 4, std::string(1023 - 6, 'x')},  // 1023 bytes of the text are used
  };
  for (const auto& c : kCases) {
    LogCapture log(7);
    auto msg = Request(c.text);
    auto* reply = reinterpret_cast<SendStringCmdReply*>(SP_LanSendStringCmd(&msg->header, nullptr));
    EXPECT_EQ(GetLogLevel(), c.level) << c.text;
    EXPECT_EQ(g_filename, c.destination == kept ? log.path() : c.destination) << c.text;
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->header.length, 2132u);
    EXPECT_EQ(reply->header.functionCode, -7);
    EXPECT_EQ(reply->result, 0);
    ksxmem_free(reply);
  }
}

}  // namespace
}  // namespace kestrix::test
