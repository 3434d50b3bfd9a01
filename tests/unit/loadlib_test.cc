// The library loader: candidate rules, order, failures and log lines.
#include "unixmdc/loadlib.h"

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "support/testfs.h"

namespace kestrix::test {
namespace {

class LoadLibTest : public ::testing::Test {
 protected:
  void SetUp() override { UseDirectory(lib_.path()); }
  void TearDown() override { ResetLibraryLoaderForTesting(); }
  void UseDirectory(const std::string& dir) {
    ResetLibraryLoaderForTesting();
    setenv("KESTRIX_LIBDIR", (dir_ = dir).c_str(), 1);
  }
  // The files of the libraries loaded by calls until one finds none; the first is initialised.
  std::vector<std::string> LoadAll() {
    std::vector<std::string> files;
    for (Dl_info info;;) {
      std::unique_ptr<FsLibrary, void (*)(void*)> lib(FSMDCSP_LoadNextLibrary(), free);
      if (!lib || dladdr(reinterpret_cast<void*>(lib->FS_Init), &info) == 0) return files;
      files.push_back(info.dli_fname);
      EXPECT_TRUE(files.size() > 1 || lib->FS_Init() == 0);
    }
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  int Logged(const std::string& line) const { return CountOf(log_.Text(), line + "\n"); }

  TempDir lib_;
  std::string dir_;
  LogCapture log_{12};
};

// Files whose names start with "lib" are taken in reverse listing order; one
// that does not open or lacks an entry point is dropped and the same call goes
// on; the libraries bind to the daemon's logger and allocator.
TEST_F(LoadLibTest, OnlyCandidatesThatLoadWhollyAreKept) {
  for (const char* name : {"libb.so", "liba.so", "libfs.so.1", "ksxcvt.so"})
    InstallTestPlugin("libtestfs_callback.so", dir_, name);
  for (const char* name : {"libbad1.so", "libbad2.so"})
    InstallTestPlugin("libtestfs_nounlock.so", dir_, name);
  WriteFile(Path("README"), "not a library\n");
  WriteFile(Path("libfs.a"), "!<arch>\njunk\n");
  std::vector<std::string> want;
  for (const auto& e : std::filesystem::directory_iterator(dir_)) {
    const std::string name = e.path().filename();
    if (name.starts_with("lib") && !name.starts_with("libbad") && name != "libfs.a")
      want.insert(want.begin(), e.path());
  }
  EXPECT_EQ(LoadAll(), want);
  EXPECT_EQ(std::tuple(Logged("Print testfs callback: allocated 64 bytes"),
                       CountOf(log_.Text(), "ksxcvt") + CountOf(log_.Text(), "README")),
            std::tuple(1, 0));
  for (const char* bad : {"libfs.a", "libbad1.so", "libbad2.so"})
    EXPECT_EQ(Logged("Error Library " + Path(bad) +
                     " failed to load properly it will be removed from the list"),
              1);
  EXPECT_TRUE(
      log_.Contains("Error dlopen of library " + Path("libfs.a") + " failed " + Path("libfs.a")));
  EXPECT_TRUE(log_.Contains("Info Got FS_SetFileSizes "));
}

TEST_F(LoadLibTest, UnreachableLibrariesAreLoggedAndSkipped) {
  UseDirectory(lib_.File("missing"));  // tried again on every call
  EXPECT_EQ(LoadAll().size() + LoadAll().size(), 0u);
  EXPECT_EQ(Logged("Error FSMDCSP_LoadNextLibrary: Unable to open directory " + dir_), 2);
  UseDirectory(lib_.path());  // holds a README only
  WriteFile(Path("README"), "x");
  EXPECT_EQ(LoadAll().size() + LoadAll().size(), 0u);
  EXPECT_EQ(Logged("Error Ensure your library directory has the correct entries in it, it seems to "
                   "be empty."),
            2);

  std::string dir = lib_.path();
  while (dir.size() < 780) dir += "/" + std::string(std::min<size_t>(200, 781 - dir.size()), 'd');
  std::filesystem::create_directories(dir);
  UseDirectory(dir);
  const std::string fitting = std::string(1023 - dir.size() - 4, 'f') + ".so",
                    overlong = "o" + fitting;
  InstallTestPlugin("libtestfs.so", dir_, fitting);
  InstallTestPlugin("libtestfs.so", dir_, overlong);
  EXPECT_EQ(LoadAll(), std::vector{Path(fitting)});  // 1023 bytes fit with the terminator
  EXPECT_EQ(Logged("Error loadlib: path of " + overlong + " is too long, skipped"), 1);
}

}  // namespace
}  // namespace kestrix::test
