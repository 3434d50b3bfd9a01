// Share-name mapping against smb.conf and password files written by the tests.
#include "utils/osl_share.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/test_util.h"
#include "utils/token.h"
#include "utils/utils.h"

namespace kestrix {
namespace {

using test::CountOf;
using test::LogCapture;
using test::TempDir;
using test::WriteFile;

std::vector<FSUNI> ToFsuni(const std::string& text) {
  std::vector<FSUNI> units(text.size() + 1, 0);
  mb2fsuni(units.data(), text.c_str(), static_cast<int32_t>(units.size()));
  return units;
}

std::string FromFsuni(const FSUNI* units) {
  char text[1024];
  fsuni2mb(text, units, sizeof text);
  return text;
}

struct Mapped {
  int32_t result;
  std::string mountPoint;
};

Mapped Map(const std::string& share, int32_t capacity = 256) {
  std::vector<FSUNI> in = ToFsuni(share);
  std::vector<FSUNI> out(512, 0x7777);
  int32_t result = OSL_ShareNameToMountPoint(in.data(), out.data(), capacity);
  if (result != 0) {
    EXPECT_EQ(out[0], 0x7777) << "output written on failure";
    return {result, ""};
  }
  return {result, FromFsuni(out.data())};
}

class ShareTest : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv("KESTRIX_SMBPATH"); }
  void TearDown() override {
    unsetenv("KESTRIX_SMBPATH");
    SetPasswdPathForTesting(nullptr);
  }
  // Writes smb.conf with the given contents and points KESTRIX_SMBPATH at it.
  void UseConf(const std::string& contents) {
    WriteFile(conf_, contents);
    setenv("KESTRIX_SMBPATH", conf_.c_str(), 1);
  }

  TempDir dir_;
  std::string conf_ = dir_.File("smb.conf");
};

TEST_F(ShareTest, FindsIndentedPathOfExactSection) {
  LogCapture log;
  UseConf("[other]\n   path = /export/other\n[data]\n   path = /export/data\n");
  Mapped m = Map("data");
  EXPECT_EQ(m.result, 0);
  EXPECT_EQ(m.mountPoint, "/export/data");
  EXPECT_TRUE(log.Contains("Debug1 Using env var KESTRIX_SMBPATH [" + conf_ +
                           "] to find samba share path.\n"));
  EXPECT_TRUE(log.Contains("Debug1 parseSmbConfFile: Opening [" + conf_ + "] looking for [data]\n"));
  EXPECT_TRUE(log.Contains("Debug1 debug parseSmbConfFile: smbName is [data] volName is data\n"));
  EXPECT_TRUE(
      log.Contains("Debug1 parseSmbConfFile: Found [data]. The path name is [/export/data]\n"));

  // Nothing is cached: a changed file applies to the next call.
  UseConf("[data]\n   path = /export/moved\n");
  EXPECT_EQ(Map("data").mountPoint, "/export/moved");
}

TEST_F(ShareTest, PathSearchSkipsNonPathLinesAndLaterHeaders) {
  UseConf("[data]\npath=/export/nospace\n[next]\n\tpath = /export/later\n");
  EXPECT_EQ(Map("data").mountPoint, "/export/later");

  UseConf("[data]\n; path = /old\n path = /new\n");
  EXPECT_EQ(Map("data").mountPoint, "/old");

  UseConf("[data]\n path = /export/my data\n");
  EXPECT_EQ(Map("data").mountPoint, "/export/my");
}

TEST_F(ShareTest, HeaderMustMatchWholeLineAndCase) {
  LogCapture log;
  UseConf("[Data]\n path = /a\n[data] \n path = /b\n [data]\n path = /c\n");
  EXPECT_EQ(Map("data").result, 3);
  EXPECT_TRUE(log.Contains("Error sambaCheck: Could not find a samba share for [data] in [" +
                           conf_ + "].\n"));
  EXPECT_TRUE(log.Contains("Error FTX1201W OSL_ShareNameToMountPoint failed name is : data\n"));
}

TEST_F(ShareTest, LastLineWithoutLineFeedLosesItsLastCharacter) {
  UseConf("[data]\n path = /export/data");
  EXPECT_EQ(Map("data").mountPoint, "/export/dat");

  UseConf("[other]\n path = /x\n[data]");  // the header reads as "[data"
  EXPECT_EQ(Map("data").result, 3);
}

TEST_F(ShareTest, SectionWithoutPathLineIsNotFound) {
  UseConf("[data]\n comment = nothing here\n");
  EXPECT_EQ(Map("data").result, 3);
}

TEST_F(ShareTest, MissingEnvFileSkipsDefaultList) {
  LogCapture log;
  std::string missing = dir_.File("absent.conf");
  setenv("KESTRIX_SMBPATH", missing.c_str(), 1);
  EXPECT_EQ(Map("data").result, 3);
  std::string text = log.Text();
  EXPECT_EQ(CountOf(text, "Error sambaCheck: Could not find [" + missing +
                              "] indicated by env var KESTRIX_SMBPATH. The file does not exist.\n"),
            1);
  EXPECT_EQ(CountOf(text, "parseSmbConfFile: Opening"), 0);
  EXPECT_EQ(CountOf(text, "FTX1519I"), 0);
  EXPECT_EQ(CountOf(text, "Error FTX1201W OSL_ShareNameToMountPoint failed name is : data\n"), 1);
}

TEST_F(ShareTest, NoConfigurationAnywhere) {
  char list[] =
      "/usr/local/samba/lib/smb.conf:/opt/samba/lib/smb.conf:/opt/Kestrix/smb.conf:"
      "/etc/sfw/smb.conf";
  for (int32_t i = 0; i < token_getNumTokens(list, ':'); ++i) {
    char name[1024];
    struct stat st;
    if (stat(token_getToken(list, ':', i, name, sizeof name), &st) == 0)
      GTEST_SKIP() << name << " exists on this machine";
  }
  LogCapture log;
  EXPECT_EQ(Map("data").result, 3);
  std::string text = log.Text();
  size_t notice = text.find(
      "Error FTX1519I Could not find the smb.conf file. \n If the share is a samba share set "
      "KESTRIX_SMBPATH to the full path where the smb.conf file is located.  \n(ex: "
      "KESTRIX_SMBPATH set to \"/usr/local/samba/lib/smb.conf\")\n Otherwise disreguard this "
      "warning.\n");
  size_t failed = text.find("Error FTX1201W OSL_ShareNameToMountPoint failed name is : data\n");
  ASSERT_NE(notice, std::string::npos);
  ASSERT_NE(failed, std::string::npos);
  EXPECT_LT(notice, failed);
  EXPECT_EQ(CountOf(text, "parseSmbConfFile: Opening"), 0);
}

TEST_F(ShareTest, AbsolutePathsPassThroughWithoutReadingFiles) {
  LogCapture log;
  setenv("KESTRIX_SMBPATH", dir_.File("absent.conf").c_str(), 1);
  EXPECT_EQ(Map("/export/vol1").mountPoint, "/export/vol1");

  std::vector<FSUNI> name = ToFsuni("\\export\\vol1");
  OSL_TransPath(name.data());
  EXPECT_EQ(FromFsuni(name.data()), "/export/vol1");
  FSUNI out[256];
  EXPECT_EQ(OSL_ShareNameToMountPoint(name.data(), out, 256), 0);
  EXPECT_EQ(FromFsuni(out), "/export/vol1");
  EXPECT_EQ(log.Text(), "");
}

TEST_F(ShareTest, HomesUsesHomeDirectoryFromPasswd) {
  std::string rootHome;
  for (const std::string& line : test::SplitLines(test::ReadFile("/etc/passwd"))) {
    if (line.rfind("root:", 0) != 0) continue;
    char home[128];
    rootHome = token_getToken(line.c_str(), ':', 5, home, sizeof home);
    break;
  }
  if (rootHome.empty()) GTEST_SKIP() << "no root entry with a home in /etc/passwd";

  LogCapture log;
  UseConf("[global]\n workgroup = x\n[homes]\n browseable = no\n");
  Mapped m = Map("~root");
  EXPECT_EQ(m.result, 0);
  EXPECT_EQ(m.mountPoint, rootHome);
  EXPECT_TRUE(log.Contains("Debug1 username is [root] volName is [root]\n"));
  EXPECT_TRUE(log.Contains("Debug1 refName is [" + rootHome + "] homeDir is [" + rootHome + "]\n"));
}

TEST_F(ShareTest, HomesThroughPasswdOverride) {
  std::string passwd = dir_.File("passwd");
  WriteFile(passwd,
            "no separators here\n"
            "bob:x:1:1:Bob:/home/bob:/bin/sh\n"
            "alice:::::/srv/alice:\n");
  SetPasswdPathForTesting(passwd.c_str());

  // The first character of the share name is not compared.
  UseConf("[homes]\n[xalice]\n comment = no path here\n");
  EXPECT_EQ(Map("xalice").mountPoint, "/srv/alice");
  EXPECT_EQ(Map("~bob").mountPoint, "/home/bob");
  EXPECT_EQ(Map("bob").result, 3);
  EXPECT_EQ(Map("~carol").result, 3);

  // A share found in its own section wins over the password file.
  UseConf("[homes]\n[~bob]\n path = /shares/bob\n");
  EXPECT_EQ(Map("~bob").mountPoint, "/shares/bob");

  // Without a "[homes]" line the password file is not consulted.
  UseConf("[global]\n");
  EXPECT_EQ(Map("~alice").result, 3);
}

TEST_F(ShareTest, UnopenableFileLogsFtx1199) {
  LogCapture log;
  char path[256] = "";
  std::string missing = dir_.File("gone.conf");
  EXPECT_EQ(parseSmbConfFile(missing.c_str(), "data", path), -1);
  EXPECT_TRUE(log.Contains("Error FTX1199I Could not find samba share name failed to open " +
                           missing + " file\n"));
}

TEST_F(ShareTest, UnusablePathLinesAreNotFound) {
  LogCapture log;
  UseConf("[data]\n path = exports\n");
  EXPECT_EQ(Map("data").result, 3);
  EXPECT_TRUE(log.Contains("Error parseSmbConfFile: The path line for [data] in [" + conf_ +
                           "] holds no absolute path.\n"));

  log.Clear();
  std::string longPath = "/" + std::string(255, 'p');  // 256 bytes
  UseConf("[data]\n path = " + longPath + "\n");
  EXPECT_EQ(Map("data").result, 3);
  EXPECT_TRUE(log.Contains("Error parseSmbConfFile: The path for [data] in [" + conf_ +
                           "] is longer than 255 bytes.\n"));

  UseConf("[data]\n path = " + longPath.substr(0, 255) + "\n");
  EXPECT_EQ(Map("data").mountPoint, longPath.substr(0, 255));
}

TEST_F(ShareTest, LongNameIsCutAndSmallOutputIsRefused) {
  std::string longName = "/" + std::string(300, 'n');
  EXPECT_EQ(Map(longName, 512).mountPoint, longName.substr(0, 255));

  LogCapture log;
  // A cut that splits a character leaves no valid mount point.
  std::string splitName = "/" + std::string(253, 'n') + "\xC3\xA9";
  EXPECT_EQ(Map(splitName, 512).result, 3);
  EXPECT_TRUE(log.Contains("Error OSL_ShareNameToMountPoint: The mount point [" +
                           splitName.substr(0, 255) + "] is not valid UTF-8.\n"));

  EXPECT_EQ(Map("/export/vol1", 12).result, 3);  // needs 12 units and the terminator
  EXPECT_TRUE(log.Contains(
      "Error OSL_ShareNameToMountPoint: The mount point [/export/vol1] does not fit in 12 "
      "units.\n"));
  EXPECT_EQ(Map("/export/vol1", 13).mountPoint, "/export/vol1");

  UseConf("[data]\n path = /export/data\n");
  EXPECT_EQ(Map("data", 12).result, 3);
  EXPECT_EQ(Map("data", 13).mountPoint, "/export/data");
}

}  // namespace
}  // namespace kestrix
