// The library loader: candidate rules, order, failures and log lines.
#include "unixmdc/loadlib.h"

#include <dirent.h>
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "support/testfs.h"

namespace kestrix::test {
namespace {

// Names in the directory that the loader takes, in listing order.
std::vector<std::string> CandidateListing(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if ((n.find(".so") != std::string::npos || n.find(".a") != std::string::npos) &&
        n.find("ksxcvt") == std::string::npos)
      names.push_back(n);
  }
  closedir(d);
  return names;
}

// The file a resolved entry point lives in.
std::string FileOf(const void* fn) {
  Dl_info info;
  if (fn == nullptr || dladdr(fn, &info) == 0 || info.dli_fname == nullptr) return "";
  return info.dli_fname;
}

std::string Hex(const void* p) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
  return buf;
}

class LoadLibTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetLibraryLoaderForTesting();
    UseDirectory(lib_.path());
  }
  void TearDown() override {
    for (FsLibrary* r : records_) free(r);
    ResetLibraryLoaderForTesting();
    unsetenv("KESTRIX_LIBDIR");
  }
  void UseDirectory(const std::string& dir) {
    dir_ = dir;
    setenv("KESTRIX_LIBDIR", dir.c_str(), 1);
  }
  std::string Install(const std::string& variant, const std::string& name) {
    return InstallTestPlugin(variant, dir_, name);
  }
  FsLibrary* Next() {
    FsLibrary* r = FSMDCSP_LoadNextLibrary();
    if (r != nullptr) records_.push_back(r);
    return r;
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  TempDir lib_;
  std::string dir_;
  LogCapture log_{12};
  std::vector<FsLibrary*> records_;
};

TEST_F(LoadLibTest, LibrariesComeBackInReverseListingOrderWithEveryLogLine) {
  Install("libtestfs.so", "libb.so");
  Install("libtestfs.so", "liba.so");
  std::vector<std::string> listed = CandidateListing(dir_);
  ASSERT_EQ(listed.size(), 2u);

  FsLibrary* first = Next();
  ASSERT_NE(first, nullptr);
  FsLibrary* second = Next();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(Next(), nullptr);
  EXPECT_EQ(FileOf(reinterpret_cast<void*>(first->FS_Init)), Path(listed[1]));
  EXPECT_EQ(FileOf(reinterpret_cast<void*>(second->FS_Init)), Path(listed[0]));

  // The full log of the first call, byte for byte.
  std::vector<std::string> want = {
      "SP loadlib: loaded " + Path(listed[0]),
      "SP loadlib: loaded " + Path(listed[1]),
      "Info opened lib " + Path(listed[1]),
  };
  auto got = [&](const char* name, const void* fn) {
    EXPECT_EQ(FileOf(fn), Path(listed[1])) << name;
    want.push_back(std::string("Info Got ") + name + " " + Hex(fn) + " ");
  };
  got("FS_Init", reinterpret_cast<void*>(first->FS_Init));
  got("FS_GetCookies", reinterpret_cast<void*>(first->FS_GetCookies));
  got("FS_GetLockedMap", reinterpret_cast<void*>(first->FS_GetLockedMap));
  got("FS_GetVersion", reinterpret_cast<void*>(first->FS_GetVersion));
  got("FS_GetVolByCookie", reinterpret_cast<void*>(first->FS_GetVolByCookie));
  got("FS_GetVolCookie", reinterpret_cast<void*>(first->FS_GetVolCookie));
  got("FS_SetFileSizes", reinterpret_cast<void*>(first->FS_SetFileSizes));
  got("FS_UnlockMap", reinterpret_cast<void*>(first->FS_UnlockMap));
  got("FS_GetMaxLeases", reinterpret_cast<void*>(first->FS_GetMaxLeases));
  got("FS_SetLog", reinterpret_cast<void*>(first->FS_SetLog));
  want.push_back("Print Successfully loaded library " + Path(listed[1]));
  std::vector<std::string> lines = log_.Lines();
  ASSERT_GE(lines.size(), want.size());
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + want.size()), want);
  EXPECT_FALSE(log_.Contains("seems to be empty"));
}

TEST_F(LoadLibTest, OnlyLibraryNamesAreCandidatesAndBrokenOnesAreDropped) {
  WriteFile(Path("README"), "not a library\n");
  Install("libtestfs.so", "ksxcvt.so");
  Install("libtestfs.so", "libksxcvt.so.2");
  Install("libtestfs.so", "libfs.so.1");
  WriteFile(Path("libfs.a"), "!<arch>\njunk\n");
  WriteFile(Path("old.a.bak"), "junk");
  ASSERT_EQ(symlink((dir_ + "/nowhere").c_str(), Path("gone.so").c_str()), 0);

  std::vector<FsLibrary*> loaded;
  while (FsLibrary* r = Next()) loaded.push_back(r);
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(FileOf(reinterpret_cast<void*>(loaded[0]->FS_GetVersion)), Path("libfs.so.1"));

  std::string text = log_.Text();
  for (const char* name : {"libfs.so.1", "libfs.a", "old.a.bak", "gone.so"})
    EXPECT_EQ(CountOf(text, "SP loadlib: loaded " + Path(name) + "\n"), 1) << name;
  EXPECT_EQ(CountOf(text, "loadlib: loaded "), 4);
  EXPECT_EQ(CountOf(text, "ksxcvt"), 0);
  EXPECT_EQ(CountOf(text, "README"), 0);

  for (const char* name : {"libfs.a", "old.a.bak"}) {
    std::string head = "Error dlopen of library " + Path(name) + " failed ";
    size_t at = text.find(head);
    ASSERT_NE(at, std::string::npos) << name;
    size_t eol = text.find('\n', at);
    EXPECT_GT(eol, at + head.size()) << "the dlerror text is missing";
    EXPECT_EQ(text.substr(eol + 1).rfind("Error Library " + Path(name) +
                                             " failed to load properly it will be removed "
                                             "from the list\n",
                                         0),
              0u)
        << name;
  }
  EXPECT_NE(text.find("Error stat of library " + Path("gone.so") +
                      " failed No such file or directory\nError Library " + Path("gone.so") +
                      " failed to load properly it will be removed from the list\n"),
            std::string::npos);
  // Candidates were tried, so running out is not reported as an empty directory.
  EXPECT_EQ(Next(), nullptr);
  EXPECT_FALSE(log_.Contains("seems to be empty"));
}

TEST_F(LoadLibTest, MissingEntryPointDropsCandidateAndTheSameCallGoesOn) {
  // The directory must list the broken library last, so that it is tried
  // first; listing order depends on the filesystem, so vary name and
  // creation order until it does.
  std::string bad;
  for (int k = 0; k < 64 && bad.empty(); ++k) {
    for (const auto& e : std::filesystem::directory_iterator(dir_)) std::filesystem::remove(e);
    std::string name = "bad" + std::to_string(k) + ".so";
    if (k % 2 == 0) Install("libtestfs_noopt.so", "good.so");
    Install("libtestfs_nounlock.so", name);
    if (k % 2 == 1) Install("libtestfs_noopt.so", "good.so");
    if (CandidateListing(dir_).back() == name) bad = name;
  }
  ASSERT_FALSE(bad.empty()) << "could not arrange the listing order";

  FsLibrary* r = Next();
  ASSERT_NE(r, nullptr);
  // Every slot comes from the good library, which lacks both optional
  // entry points: those slots stay null.
  EXPECT_EQ(FileOf(reinterpret_cast<void*>(r->FS_UnlockMap)), Path("good.so"));
  EXPECT_EQ(FileOf(reinterpret_cast<void*>(r->FS_Init)), Path("good.so"));
  EXPECT_EQ(r->FS_GetMaxLeases, nullptr);
  EXPECT_EQ(r->FS_SetLog, nullptr);
  EXPECT_EQ(Next(), nullptr);

  std::vector<std::string> lines = log_.Lines();
  auto at = std::find(lines.begin(), lines.end(), "Info opened lib " + Path(bad));
  ASSERT_NE(at, lines.end());
  const char* seven[] = {"FS_Init",         "FS_GetCookies",     "FS_GetLockedMap",
                         "FS_GetVersion",   "FS_GetVolByCookie", "FS_GetVolCookie",
                         "FS_SetFileSizes"};
  ASSERT_GE(lines.end() - at, 10);
  for (int i = 0; i < 7; ++i) {
    std::string prefix = std::string("Info Got ") + seven[i] + " ";
    EXPECT_EQ(at[1 + i].rfind(prefix, 0), 0u) << at[1 + i];
    EXPECT_EQ(at[1 + i].back(), ' ') << at[1 + i];
  }
  EXPECT_EQ(at[8], "Error Library " + Path(bad) +
                       " failed to load properly it will be removed from the list");
  EXPECT_EQ(at[9], "Info opened lib " + Path("good.so"));
  EXPECT_TRUE(log_.Contains("Print Successfully loaded library " + Path("good.so") + "\n"));
  EXPECT_FALSE(log_.Contains("Successfully loaded library " + Path(bad)));
}

TEST_F(LoadLibTest, DirectoryWithoutCandidatesIsReportedEmptyOnEveryCall) {
  WriteFile(Path("README"), "x");
  EXPECT_EQ(Next(), nullptr);
  EXPECT_EQ(Next(), nullptr);
  EXPECT_EQ(CountOf(log_.Text(),
                    "Error Ensure your library directory has the correct entries in it, it "
                    "seems to be empty.\n"),
            2);
  EXPECT_FALSE(log_.Contains("Unable to open directory"));
}

TEST_F(LoadLibTest, MissingDirectoryIsRetriedOnTheNextCall) {
  UseDirectory(lib_.File("missing"));
  EXPECT_EQ(Next(), nullptr);
  EXPECT_EQ(Next(), nullptr);
  EXPECT_EQ(CountOf(log_.Text(), "Error FSMDCSP_LoadNextLibrary: Unable to open directory " +
                                     dir_ + "\n"),
            2);
  EXPECT_FALSE(log_.Contains("seems to be empty"));

  ASSERT_EQ(mkdir(dir_.c_str(), 0755), 0);
  Install("libtestfs.so", "liba.so");
  FsLibrary* r = Next();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(FileOf(reinterpret_cast<void*>(r->FS_Init)), Path("liba.so"));
}

TEST_F(LoadLibTest, PathThatDoesNotFitTheBufferIsSkipped) {
  std::string dir = lib_.path();
  while (dir.size() < 780) {
    dir += "/" + std::string(std::min<size_t>(200, 781 - dir.size()), 'd');
  }
  std::filesystem::create_directories(dir);
  UseDirectory(dir);
  // 1023 characters fit with the terminator; 1024 do not.
  size_t fits = 1023 - dir.size() - 1;
  std::string fitting = std::string(fits - 3, 'f') + ".so";
  std::string overlong = std::string(fits - 2, 'o') + ".so";
  Install("libtestfs.so", fitting);
  Install("libtestfs.so", overlong);
  ASSERT_EQ(Path(fitting).size(), 1023u);

  FsLibrary* r = Next();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(FileOf(reinterpret_cast<void*>(r->FS_Init)), Path(fitting));
  EXPECT_EQ(Next(), nullptr);
  EXPECT_TRUE(log_.Contains("Error loadlib: path of " + overlong + " is too long, skipped\n"));
  EXPECT_FALSE(log_.Contains("loadlib: loaded " + Path(overlong).substr(0, 1000)));
}

TEST_F(LoadLibTest, PluginBindsToTheDaemonsLoggerAndAllocator) {
  Install("libtestfs_callback.so", "libcb.so");
  FsLibrary* r = Next();
  ASSERT_NE(r, nullptr);
  ASSERT_NE(r->FS_Init, nullptr);
  EXPECT_EQ(r->FS_Init(), 0);
  EXPECT_TRUE(log_.Contains("Print testfs callback: allocated 64 bytes\n"));
}

}  // namespace
}  // namespace kestrix::test
