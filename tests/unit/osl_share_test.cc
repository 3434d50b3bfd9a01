// Share-name mapping against smb.conf and password files written by the tests,
// and the tokenizer that reads those files' separated lines.
#include "utils/osl_share.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "utils/token.h"
#include "utils/utils.h"

namespace kestrix::test {
namespace {

// Maps a name as the GetVolume handler does, backslashes made slashes first:
// the mount point, or "result N" on a failure (which must leave out alone).
std::string Map(const std::string& share, int32_t units = 256) {
  std::vector<FSUNI> in(share.size() + 1), out(512, 0x7777);
  mb2fsuni(in.data(), share.c_str(), static_cast<int32_t>(in.size()));
  OSL_TransPath(in.data());
  if (int32_t result = OSL_ShareNameToMountPoint(in.data(), out.data(), units); result != 0) {
    EXPECT_EQ(out[0], 0x7777) << "output written on failure";
    return "result " + std::to_string(result);
  }
  char text[1024];
  return fsuni2mb(text, out.data(), sizeof text);
}

class ShareTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unsetenv("KESTRIX_SMBPATH");
    SetPasswdPathForTesting(nullptr);
  }
  void UseConf(const std::string& contents) {
    WriteFile(conf_, contents);
    setenv("KESTRIX_SMBPATH", conf_.c_str(), 1);
  }
  bool Logged(const std::string& text) const { return log_.Contains("Error " + text + "\n"); }

  TempDir dir_;
  std::string conf_ = dir_.File("smb.conf");
  LogCapture log_{2};
};

TEST_F(ShareTest, SectionsAndPathLinesAreReadLineByLine) {
  const std::string p255 = "/" + std::string(254, 'p');
  const struct { std::string conf, share, want; } rows[] = {
      // "path=" is no path line; the search goes on past the next header.
      {"[data]\npath=/nospace\n[next]\n\tpath = /later\n", "data", "/later"},
      {"[data]\n; path = /old\n path = /new\n", "data", "/old"},  // the first, commented or not
      {"[data]\n path = /my data\n", "data", "/my"},
      {"[data]\n path = /export/data", "data", "/export/dat"},  // a last line loses its last byte
      {"[Data]\n path = /a\n[data] \n path = /b\n [data]\n path = /c\n[data", "data", "result 3"},
      {"[data]\n path = exports\n", "data", "result 3"},
      {"[data]\n path = " + p255 + "\n", "data", p255},
      {"[data]\n path = " + p255 + "p\n", "data", "result 3"},
      {"", "\\export\\vol1", "/export/vol1"},  // paths need no share
      {"", "/" + std::string(253, 'a') + "\xC3\xA9", "result 3"},  // cut inside its last character
  };
  for (const auto& r : rows) {
    UseConf(r.conf);
    EXPECT_EQ(Map(r.share), r.want) << r.conf;
  }
  EXPECT_EQ(Map("/export/data", 12), "result 3");
  const std::string in = " for [data] in [" + conf_ + "]";
  EXPECT_TRUE(Logged("sambaCheck: Could not find a samba share" + in + "."));
  EXPECT_TRUE(Logged("parseSmbConfFile: The path line" + in + " holds no absolute path."));
  EXPECT_TRUE(Logged("parseSmbConfFile: The path" + in + " is longer than 255 bytes."));
  EXPECT_TRUE(Logged(
      "OSL_ShareNameToMountPoint: The mount point [/export/data] does not fit in 12 units."));
  EXPECT_TRUE(log_.Contains("is not valid UTF-8.\n"));
}

TEST_F(ShareTest, MissingFilesFailWithTheirLines) {
  setenv("KESTRIX_SMBPATH", dir_.File("absent.conf").c_str(), 1);
  EXPECT_EQ(Map("data"), "result 3");  // the default files are not tried
  EXPECT_TRUE(Logged("sambaCheck: Could not find [" + dir_.File("absent.conf") +
                     "] indicated by env var KESTRIX_SMBPATH. The file does not exist."));
  EXPECT_TRUE(Logged("FTX1201W OSL_ShareNameToMountPoint failed name is : data"));
  unsetenv("KESTRIX_SMBPATH");
  for (const char* f : {"/usr/local/samba/lib/smb.conf", "/opt/samba/lib/smb.conf",
                        "/opt/Kestrix/smb.conf", "/etc/sfw/smb.conf"})
    if (access(f, F_OK) == 0) GTEST_SKIP() << f << " exists on this machine";
  EXPECT_EQ(Map("data"), "result 3");
  EXPECT_TRUE(log_.Contains("Error FTX1519I Could not find the smb.conf file. \n If the share"));
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
  SetPasswdPathForTesting(nullptr);  // the system's file, which names no such user
  EXPECT_EQ(Map("~no-such-user-of-kestrix"), "result 3");
}

// The edges of separated lines that the password file rarely shows.
TEST(TokenTest, CountsAndCutsTokens) {
  for (auto [text, count] : {std::pair{"a:b:", 2}, {":", 1}, {"", 0}})
    EXPECT_EQ(token_getNumTokens(text, ':'), count) << text;
  // A token is cut to the buffer; an index past the end gives the empty token.
  for (const auto& [text, index, size, want] :
       std::vector<std::tuple<const char*, int32_t, int32_t, std::string>>{
           {"ab:cdef", 1, 3, "cd"}, {"a:b", 3, 64, ""}, {"a:b", -1, 64, ""}, {"abc", 0, 0, "x"}}) {
    char out[64] = "x";  // a size of 0 leaves the buffer alone
    EXPECT_EQ(token_getToken(text, ':', index, out, size), out);
    EXPECT_EQ(out, want) << text << " #" << index << " in " << size;
  }
}

}  // namespace
}  // namespace kestrix::test
