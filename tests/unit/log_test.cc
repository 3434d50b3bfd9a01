// Tests of the log: the cut, the level file, escaping, panic.
#include "utils/log.h"

#include <signal.h>
#include <sys/resource.h>

#include <string>

#include "gtest/gtest.h"
#include "support/test_util.h"

namespace {

// Levels, prefixes and client text with directives are seen end to end.
TEST(LogTest, LinesAreCutAt1023Bytes) {
  kestrix::test::LogCapture log(3);
  OSL_Log(3, "%s", std::string(2000, 'x').c_str());
  EXPECT_EQ(log.Text(), "Info " + std::string(1023, 'x'));
}

TEST(LogTest, LevelFileHoldsDigitsPaddedTo32Bytes) {
  kestrix::test::TempDir dir;
  const std::string path = dir.File("loglevel.txt");
  kestrix::SetLevelFilePathForTesting(path.c_str());
  kestrix::test::WriteFile(path, std::string(100, 'z'));  // truncated on write
  int level = 10;
  OSL_SetLog(&level, "SCREEN", "kestrixd");
  ksx_setLogLevel();
  EXPECT_EQ(kestrix::test::ReadFile(path), "10" + std::string(30, '\0'));

  level = 7;  // only the file-system ident writes the file when the log is set
  OSL_SetLog(&level, "SCREEN", "kestrixd");
  EXPECT_EQ(kestrix::test::ReadFile(path), "10" + std::string(30, '\0'));
  OSL_SetLog(&level, "SCREEN", "kestrixFS");
  EXPECT_EQ(kestrix::test::ReadFile(path), "7" + std::string(31, '\0'));
  kestrix::SetLevelFilePathForTesting(nullptr);
}

TEST(LogTest, LogSafeEscapesControlsAndMalformedBytesOnly) {
  const std::string feeds(255, '\n');  // 1020 bytes once escaped
  std::string escaped;
  for (size_t i = 0; i < feeds.size(); ++i) escaped += "\\x0a";
  const struct {
    std::string in, out;
  } kCases[] = {
      {"plain [text] \\ back\\x0a", "plain [text] \\ back\\x0a"},
      {"a\nb\r\x01\x1f\x7f", "a\\x0ab\\x0d\\x01\\x1f\\x7f"},
      {"\xc3\xa9\xe6\x97\xa5\xf0\x9f\x98\x80", "\xc3\xa9\xe6\x97\xa5\xf0\x9f\x98\x80"},
      {"\xc2\x85", "\\xc2\\x85"},  // C1 control (next line)
      // A cut character, an overlong form, a surrogate, above U+10FFFF.
      {"\xc3|\xe0\x80\x80|\xed\xa0\x80|\xf4\x90\x80\x80",
       "\\xc3|\\xe0\\x80\\x80|\\xed\\xa0\\x80|\\xf4\\x90\\x80\\x80"},
      {feeds + "\xe6\x97\xa5", escaped + "\xe6\x97\xa5"},  // 1023 bytes
      {feeds + "\xf0\x9f\x98\x80", escaped},               // cut before the character
  };
  for (const auto& c : kCases) EXPECT_EQ(kestrix::LogSafe(c.in.c_str()).c_str(), c.out) << c.in;
}

// The core image itself is not wanted in a test run.
void PanicWithoutCoreFile() {
  struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  OSL_Log(0, "fatal %d\n", 1);
}

TEST(LogDeathTest, PanicEndsTheProcessWithACoreSignal) {
  GTEST_FLAG_SET(death_test_style, "fast");
  kestrix::test::LogCapture log(2);
  EXPECT_EXIT(PanicWithoutCoreFile(), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EQ(log.Text(), "Panic fatal 1\n");  // written before the process ended
}

}  // namespace
