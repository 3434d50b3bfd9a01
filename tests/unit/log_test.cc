// Tests of the log: level filter, line format, the cut, the level file, panic.
#include "utils/log.h"

#include <signal.h>
#include <sys/resource.h>

#include <string>

#include "gtest/gtest.h"
#include "support/test_util.h"

namespace {

TEST(LogTest, FileLinesUpToTheCurrentLevelCutAt1023) {
  kestrix::test::LogCapture log(2);
  OSL_Log(1, "one\n");
  OSL_Log(2, "%s", "5%s %d\n");  // a directive inside an argument is text
  OSL_Log(3, "three\n");
  OSL_Log(12, "twelve\n");
  EXPECT_EQ(log.Text(), "Print one\nError 5%s %d\n");

  log.SetLevel(3);  // read through the pointer on every call
  OSL_Log(3, "three %d\n", 3);
  OSL_Log(3, "%s", std::string(2000, 'x').c_str());
  EXPECT_EQ(log.Text(), "Print one\nError 5%s %d\nInfo three 3\nInfo " + std::string(1023, 'x'));
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
