// Share-name mapping against smb.conf and password files written by the tests.
#include "utils/osl_share.h"

#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "utils/token.h"
#include "utils/utils.h"

namespace kestrix::test {
namespace {

// Maps a name as the GetVolume handler does, backslashes made slashes first:
// the mount point, or "result N" on a failure (which must leave out alone).
std::string Map(const std::string& share) {
  std::vector<FSUNI> in(share.size() + 1), out(512, 0x7777);
  mb2fsuni(in.data(), share.c_str(), static_cast<int32_t>(in.size()));
  OSL_TransPath(in.data());
  if (int32_t result = OSL_ShareNameToMountPoint(in.data(), out.data(), 256); result != 0) {
    EXPECT_EQ(out[0], 0x7777) << "output written on failure";
    return "result " + std::to_string(result);
  }
  char text[1024];
  fsuni2mb(text, out.data(), sizeof text);
  return text;
}

class ShareTest : public ::testing::Test {
 protected:
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

TEST_F(ShareTest, SectionsAndPathLinesAreReadLineByLine) {
  const std::string p255 = "/" + std::string(254, 'p');
  const struct { std::string conf, want; } rows[] = {
      {"[other]\n   path = /export/other\n[data]\n   path = /export/data\n", "/export/data"},
      // "path=" is no path line; the search goes on past the next header.
      {"[data]\npath=/export/nospace\n[next]\n\tpath = /export/later\n", "/export/later"},
      {"[data]\n; path = /old\n path = /new\n", "/old"},  // the first, commented or not
      {"[data]\n path = /export/my data\n", "/export/my"},
      {"[data]\n path = /export/data", "/export/dat"},  // a last line loses its last byte
      {"[other]\n path = /x\n[data]", "result 3"},        // so this header is "[data"
      {"[Data]\n path = /a\n[data] \n path = /b\n [data]\n path = /c\n", "result 3"},
      {"[data]\n path = exports\n", "result 3"},
      {"[data]\n path = " + p255 + "\n", p255},
      {"[data]\n path = " + p255 + "p\n", "result 3"},
  };
  LogCapture log(2);
  for (const auto& r : rows) {
    UseConf(r.conf);
    EXPECT_EQ(Map("data"), r.want) << r.conf;
  }
  EXPECT_TRUE(log.Contains("Error sambaCheck: Could not find a samba share for [data] in [" +
                           conf_ + "].\n"));
  EXPECT_TRUE(log.Contains("Error parseSmbConfFile: The path line for [data] in [" + conf_ +
                           "] holds no absolute path.\n"));
  EXPECT_TRUE(log.Contains("Error parseSmbConfFile: The path for [data] in [" + conf_ +
                           "] is longer than 255 bytes.\n"));
}

TEST_F(ShareTest, MissingFilesFailWithTheirLines) {
  LogCapture log(2);
  const std::string missing = dir_.File("absent.conf");
  setenv("KESTRIX_SMBPATH", missing.c_str(), 1);
  EXPECT_EQ(Map("data"), "result 3");  // the default files are not tried
  EXPECT_EQ(log.Text(), "Error sambaCheck: Could not find [" + missing +
                            "] indicated by env var KESTRIX_SMBPATH. The file does not exist.\n"
                            "Error FTX1201W OSL_ShareNameToMountPoint failed name is : data\n");
  log.Clear();
  EXPECT_EQ(Map("/export/vol1"), "/export/vol1");  // paths need no file
  EXPECT_EQ(Map("\\export\\vol1"), "/export/vol1");
  EXPECT_EQ(log.Text(), "");

  unsetenv("KESTRIX_SMBPATH");
  for (const char* f : {"/usr/local/samba/lib/smb.conf", "/opt/samba/lib/smb.conf",
                        "/opt/Kestrix/smb.conf", "/etc/sfw/smb.conf"})
    if (access(f, F_OK) == 0) GTEST_SKIP() << f << " exists on this machine";
  EXPECT_EQ(Map("data"), "result 3");
  EXPECT_EQ(log.Text(),
            "Error FTX1519I Could not find the smb.conf file. \n If the share is a samba share set "
            "KESTRIX_SMBPATH to the full path where the smb.conf file is located.  \n(ex: "
            "KESTRIX_SMBPATH set to \"/usr/local/samba/lib/smb.conf\")\n Otherwise disreguard "
            "this warning.\nError FTX1201W OSL_ShareNameToMountPoint failed name is : data\n");
}

TEST_F(ShareTest, MountPointsThatCannotBeStoredFailWithResult3) {
  LogCapture log(2);
  std::vector<FSUNI> name(300), out(16, 0x7777);
  mb2fsuni(name.data(), "/export/data", 300);
  EXPECT_EQ(OSL_ShareNameToMountPoint(name.data(), out.data(), 12), 3);
  EXPECT_EQ(out[0], 0x7777);
  EXPECT_TRUE(log.Contains(
      "Error OSL_ShareNameToMountPoint: The mount point [/export/data] does not fit in 12 units.\n"));
  // A 256-byte name is cut to 255 bytes, here inside its last character.
  EXPECT_EQ(Map("/" + std::string(253, 'a') + "\xC3\xA9"), "result 3");
  EXPECT_TRUE(log.Contains("is not valid UTF-8.\n"));
}

TEST_F(ShareTest, HomesUsesTheHomeDirectoryFromThePasswordFile) {
  const std::string passwd = dir_.File("passwd");
  WriteFile(passwd, "no separators here\nbob:x:1:1:Bob:/home/bob:/bin/sh\nalice:::::/srv/alice:\n");
  SetPasswdPathForTesting(passwd.c_str());
  UseConf("[global]\n");  // without a "[homes]" line the password file is not read
  EXPECT_EQ(Map("~alice"), "result 3");
  UseConf("[global]\n workgroup = x\n[homes]\n browseable = no\n");
  EXPECT_EQ(Map("~bob"), "/home/bob");
  EXPECT_EQ(Map("xalice"), "/srv/alice");  // the first character is not compared
  EXPECT_EQ(Map("~carol"), "result 3");

  SetPasswdPathForTesting(nullptr);  // the system's file
  char home[128] = "";
  for (const std::string& line : SplitLines(ReadFile("/etc/passwd")))
    if (line.starts_with("root:")) token_getToken(line.c_str(), ':', 5, home, sizeof home);
  if (home[0] == '\0') GTEST_SKIP() << "no home for root in /etc/passwd";
  EXPECT_EQ(Map("~root"), home);
}

}  // namespace
}  // namespace kestrix::test
