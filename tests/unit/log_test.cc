#include "utils/log.h"

#include <signal.h>
#include <string.h>
#include <sys/resource.h>

#include <string>

#include "gtest/gtest.h"
#include "support/test_util.h"

namespace {

using kestrix::test::LogCapture;
using kestrix::test::ReadFile;
using kestrix::test::TempDir;

TEST(LogTest, StartsAtLevelTwoOnTheSystemLog) {
  EXPECT_EQ(GetLogLevel(), 2);
  EXPECT_STREQ(g_filename, "SYSTEM");
  EXPECT_EQ(syslogfile(), 1);
  EXPECT_STREQ(LogLevel2Str[0], "Panic");
  EXPECT_STREQ(LogLevel2Str[10], "Debug1");
  EXPECT_STREQ(LogLevel2Str[12], "High");
}

TEST(LogTest, WritesOnlyLevelsUpToTheCurrentOne) {
  LogCapture log(2);
  OSL_Log(1, "one\n");
  OSL_Log(2, "two\n");
  OSL_Log(3, "three\n");
  OSL_Log(12, "twelve\n");
  EXPECT_EQ(log.Text(), "Print one\nError two\n");

  // The level is read through the pointer on every call.
  log.SetLevel(3);
  EXPECT_EQ(GetLogLevel(), 3);
  OSL_Log(3, "three\n");
  EXPECT_EQ(log.Text(), "Print one\nError two\nInfo three\n");
}

TEST(LogTest, FileLineIsLevelNameBlankText) {
  LogCapture log(2);
  OSL_Log(2, "abc\n");
  EXPECT_EQ(log.Text(), "Error abc\n");
  // A directive inside an argument is text, not a directive.
  OSL_Log(2, "%s", "50%s done %d\n");
  EXPECT_EQ(log.Text(), "Error abc\nError 50%s done %d\n");
}

TEST(LogTest, LongMessageIsCutTo1023Characters) {
  LogCapture log(2);
  std::string message(2000, 'x');
  OSL_Log(2, "%s", message.c_str());
  EXPECT_EQ(log.Text(), "Error " + std::string(1023, 'x'));
}

TEST(LogTest, DestinationForms) {
  int level = 2;
  OSL_SetLog(&level, "screen", "kestrixd");
  EXPECT_STREQ(g_filename, "");
  EXPECT_EQ(syslogfile(), 0);
  testing::internal::CaptureStdout();
  OSL_Log(2, "to the screen %d\n", 7);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error to the screen 7\n");

  OSL_SetLog(&level, "SCREEN", nullptr);
  EXPECT_EQ(syslogfile(), 0);

  OSL_SetLog(&level, "System", "kestrixd");
  EXPECT_EQ(syslogfile(), 1);
  OSL_SetLog(&level, "", "kestrixd");
  EXPECT_STREQ(g_filename, "SYSTEM");
  OSL_SetLog(&level, nullptr, nullptr);
  EXPECT_EQ(syslogfile(), 1);

  std::string longPath(1500, 'p');
  OSL_SetLog(&level, longPath.c_str(), "kestrixd");
  EXPECT_EQ(std::string(g_filename), std::string(1023, 'p'));
}

TEST(LogTest, UnopenableFileFallsBackToStandardOutput) {
  TempDir dir;
  int level = 2;
  const std::string path = dir.File("missing-dir/log.txt");
  OSL_SetLog(&level, path.c_str(), "kestrixd");
  testing::internal::CaptureStdout();
  OSL_Log(2, "fallback\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error fallback\n");
}

TEST(LogTest, LevelFileHoldsDigitsPaddedTo32Bytes) {
  TempDir dir;
  const std::string path = dir.File("loglevel.txt");
  kestrix::SetLevelFilePathForTesting(path.c_str());
  kestrix::test::WriteFile(path, std::string(100, 'z'));  // truncated on write

  int level = 10;
  OSL_SetLog(&level, "SCREEN", "kestrixd");
  ksx_setLogLevel();
  EXPECT_EQ(ReadFile(path), std::string("10") + std::string(30, '\0'));

  // Only the file-system ident writes the level file when the log is set.
  level = 7;
  OSL_SetLog(&level, "SCREEN", "kestrixd");
  EXPECT_EQ(ReadFile(path), std::string("10") + std::string(30, '\0'));
  OSL_SetLog(&level, "SCREEN", "kestrixFS");
  EXPECT_EQ(ReadFile(path), std::string("7") + std::string(31, '\0'));
  kestrix::SetLevelFilePathForTesting(nullptr);
}

// The core image itself is not wanted in a test run.
void PanicWithoutCoreFile() {
  struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  OSL_Log(0, "fatal %d\n", 1);
}

TEST(LogDeathTest, PanicEndsTheProcessWithACoreSignal) {
  GTEST_FLAG_SET(death_test_style, "fast");
  LogCapture log(2);
  EXPECT_EXIT(PanicWithoutCoreFile(), testing::KilledBySignal(SIGABRT), "");
  // The line was written before the process ended.
  EXPECT_EQ(log.Text(), "Panic fatal 1\n");
}

}  // namespace
