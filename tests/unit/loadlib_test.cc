// The library loader: candidate rules, order, failures and log lines.
#include "unixmdc/loadlib.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "support/testfs.h"

namespace kestrix::test {
namespace {

namespace fs = std::filesystem;
constexpr char kRemoved[] = " failed to load properly it will be removed from the list";

class LoadLibTest : public ::testing::Test {
 protected:
  void SetUp() override { UseDirectory(lib_.path()); }
  void TearDown() override { ResetLibraryLoaderForTesting(); }
  void UseDirectory(const std::string& dir) {
    ResetLibraryLoaderForTesting();
    dir_ = dir;
    setenv("KESTRIX_LIBDIR", dir.c_str(), 1);
  }
  // Loads the next library into last_; the file it comes from, "" for none.
  std::string Next() {
    last_.reset(FSMDCSP_LoadNextLibrary());
    Dl_info info;
    if (!last_ || dladdr(reinterpret_cast<void*>(last_->FS_Init), &info) == 0) return "";
    return info.dli_fname;
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  int Count(const std::string& text) const { return CountOf(log_.Text(), text); }

  TempDir lib_;
  std::string dir_;
  LogCapture log_{12};
  std::unique_ptr<FsLibrary, void (*)(void*)> last_{nullptr, free};
};

TEST_F(LoadLibTest, LibraryNamesAreTakenInReverseListingOrderAndBindToTheDaemon) {
  for (const char* name : {"libb.so", "liba.so", "libfs.so.1", "ksxcvt.so"})
    InstallTestPlugin("libtestfs_callback.so", dir_, name);
  WriteFile(Path("README"), "not a library\n");
  WriteFile(Path("libfs.a"), "!<arch>\njunk\n");
  std::vector<std::string> want, got = {Next()};
  for (const auto& e : fs::directory_iterator(dir_))
    if (e.path().filename().string().starts_with("lib") && e.path().extension() != ".a")
      want.insert(want.begin(), e.path());
  ASSERT_NE(last_, nullptr);
  EXPECT_EQ(last_->FS_Init(), 0);  // its calls reach the daemon's logger and allocator
  EXPECT_TRUE(log_.Contains("Print testfs callback: allocated 64 bytes\n"));
  for (std::string file; !(file = Next()).empty();) got.push_back(file);
  EXPECT_EQ(got, want);
  EXPECT_EQ(Count("ksxcvt") + Count("README") + Count("seems to be empty"), 0);
  std::vector<std::string> lines = log_.Lines();
  const std::string head = "Error dlopen of library " + Path("libfs.a") + " failed ";
  auto at = std::find_if(lines.begin(), lines.end(), [&](auto& s) { return s.starts_with(head); });
  ASSERT_GE(lines.end() - at, 2);
  EXPECT_GT(at->size(), head.size()) << "the archive's dlerror text is missing";
  EXPECT_EQ(at[1], "Error Library " + Path("libfs.a") + kRemoved);
}

TEST_F(LoadLibTest, MissingEntryPointDropsCandidateAndTheSameCallGoesOn) {
  // Taken first means listed last; listing order is the filesystem's, so vary.
  std::string bad;
  for (int k = 0; k < 64 && bad.empty(); ++k) {
    for (const auto& e : fs::directory_iterator(dir_)) fs::remove(e);
    std::string name = "bad" + std::to_string(k) + ".so", last;
    if (k % 2 == 0) InstallTestPlugin("libtestfs_noopt.so", dir_, "good.so");
    InstallTestPlugin("libtestfs_nounlock.so", dir_, name);
    if (k % 2 == 1) InstallTestPlugin("libtestfs_noopt.so", dir_, "good.so");
    for (const auto& e : fs::directory_iterator(dir_)) last = e.path().filename();
    if (last == name) bad = name;
  }
  ASSERT_FALSE(bad.empty()) << "could not arrange the listing order";
  ASSERT_EQ(Next(), Path("good.so"));  // nothing kept from the broken one
  EXPECT_TRUE(!last_->FS_GetMaxLeases && !last_->FS_SetLog);  // the good one has neither
  std::vector<std::string> lines = log_.Lines();
  auto at = std::find(lines.begin(), lines.end(), "Info opened lib " + Path(bad));
  ASSERT_GE(lines.end() - at, 9);
  for (const char* fn : {"FS_Init", "FS_GetCookies", "FS_GetLockedMap", "FS_GetVersion",
                         "FS_GetVolByCookie", "FS_GetVolCookie", "FS_SetFileSizes"})
    EXPECT_TRUE((++at)->starts_with("Info Got " + std::string(fn) + " ") && at->ends_with(" "));
  EXPECT_EQ(at[1], "Error Library " + Path(bad) + kRemoved);
}

TEST_F(LoadLibTest, MissingEmptyAndOverlongDirectoryEntries) {
  UseDirectory(lib_.File("missing"));  // tried again on every call
  EXPECT_EQ(Next() + Next(), "");
  EXPECT_EQ(Count("Error FSMDCSP_LoadNextLibrary: Unable to open directory " + dir_ + "\n"), 2);
  EXPECT_EQ(Count("seems to be empty"), 0);
  UseDirectory(lib_.path());  // holds a README only
  WriteFile(Path("README"), "x");
  EXPECT_EQ(Next() + Next(), "");
  EXPECT_EQ(Count("Error Ensure your library directory has the correct entries in it, it "
                  "seems to be empty.\n"), 2);
  EXPECT_EQ(Count("Unable to open directory"), 2);

  std::string dir = lib_.path();
  while (dir.size() < 780) dir += "/" + std::string(std::min<size_t>(200, 781 - dir.size()), 'd');
  fs::create_directories(dir);
  UseDirectory(dir);
  std::string fitting = std::string(1023 - dir.size() - 4, 'f') + ".so", overlong = "o" + fitting;
  InstallTestPlugin("libtestfs.so", dir_, fitting);
  InstallTestPlugin("libtestfs.so", dir_, overlong);
  ASSERT_EQ(Path(fitting).size(), 1023u);  // fits with its terminator, one more does not
  EXPECT_EQ(Next(), Path(fitting));
  EXPECT_EQ(Next(), "");
  EXPECT_EQ(Count("Error loadlib: path of " + overlong + " is too long, skipped\n"), 1);
}

}  // namespace
}  // namespace kestrix::test
