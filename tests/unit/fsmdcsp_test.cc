// Service provider start-up (which libraries are accepted, in which slots,
// the log level hand-over, the purge thread), the volume dispatcher list and
// the reply buffers.
#include "sp/fsmdcsp.h"

#include <dirent.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "support/testfs.h"
#include "utils/ksxmem.h"
#include "utils/osl.h"

namespace kestrix::test {
namespace {

// Library candidates in the order the loader takes them: the reverse of
// the directory listing.
std::vector<std::string> LoadOrder(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n.find(".so") != std::string::npos) names.push_back(n);
  }
  closedir(d);
  std::reverse(names.begin(), names.end());
  return names;
}

// Base name of the file a library record's entry points come from.
std::string NameOf(const FsLibrary* lib) {
  Dl_info info;
  if (lib == nullptr || dladdr(reinterpret_cast<void*>(lib->FS_Init), &info) == 0 ||
      info.dli_fname == nullptr)
    return "";
  std::string path = info.dli_fname;
  return path.substr(path.rfind('/') + 1);
}

std::string Hex(const void* p) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
  return buf;
}

int ThreadCount() {
  int n = 0;
  DIR* d = opendir("/proc/self/task");
  if (d == nullptr) return -1;
  while (struct dirent* e = readdir(d)) n += e->d_name[0] != '.';
  closedir(d);
  return n;
}

std::vector<std::string> InitLines(const LogCapture& log) {
  std::vector<std::string> out;
  for (const std::string& line : log.Lines())
    if (line.rfind("SP FSMDCSP_Init i:", 0) == 0) out.push_back(line);
  return out;
}

std::vector<std::string> Functions(const TestFs& fs) {
  std::vector<std::string> out;
  for (const CallRecord& r : fs.Calls()) out.push_back(r.function);
  return out;
}

class FsmdcspInitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KESTRIX_LIBDIR", lib_.path().c_str(), 1);
    setenv("KESTRIX_TESTFS_DIR", steer_.path().c_str(), 1);
  }
  void TearDown() override {
    unsetenv("KESTRIX_LIBDIR");
    unsetenv("KESTRIX_TESTFS_DIR");
  }
  void Install(const std::string& variant, const std::string& name) {
    InstallTestPlugin(variant, lib_.path(), name);
  }
  TestFs Fs(const std::string& name) const { return TestFs(steer_.path(), name); }

  TempDir lib_;
  TempDir steer_;
  LogCapture log_{9};
};

TEST_F(FsmdcspInitTest, NoDirectoryLeavesTableEmptyAndStillStartsThePurgeThread) {
  setenv("KESTRIX_LIBDIR", lib_.File("absent").c_str(), 1);
  int threads = ThreadCount();
  EXPECT_EQ(FSMDCSP_Init(), 0);
  EXPECT_EQ(libCount, 0);
  for (FsLibrary* slot : libs) EXPECT_EQ(slot, nullptr);
  EXPECT_EQ(ThreadCount(), threads + 1);
  EXPECT_EQ(InitLines(log_), std::vector<std::string>{"SP FSMDCSP_Init i:0 libs[0]:0"});
  // The lists are usable: empty, with working locks.
  uint8_t cookie[FS_COOKIE_SIZE] = {1};
  EXPECT_EQ(GetLibrary(cookie), nullptr);
}

TEST_F(FsmdcspInitTest, RefusedLibrariesTakeNoSlot) {
  // A refused library must come first, so that the good one follows it;
  // listing order depends on the filesystem, so vary the good one's name.
  std::string good;
  std::vector<std::string> order;
  for (int k = 0; k < 64 && good.empty(); ++k) {
    for (const std::string& name : LoadOrder(lib_.path())) unlink(lib_.File(name).c_str());
    std::string name = "good" + std::to_string(k) + ".so";
    Install("libtestfs.so", name);
    Install("libtestfs_v231.so", "v231.so");
    Install("libtestfs_initfail.so", "initfail.so");
    order = LoadOrder(lib_.path());
    if (order.front() != name) good = name;
  }
  ASSERT_FALSE(good.empty()) << "could not arrange the listing order";
  ASSERT_EQ(order.size(), 3u);

  EXPECT_EQ(FSMDCSP_Init(), FSMDCSP_RESULT_LIB_REFUSED);
  ASSERT_EQ(libCount, 1);
  EXPECT_EQ(NameOf(libs[0]), good);
  for (int i = 1; i < FSMDCSP_MAX_LIBS; ++i) EXPECT_EQ(libs[i], nullptr) << i;

  // Too new: refused before FS_Init. Init failure: refused, no log level.
  EXPECT_EQ(Functions(Fs("v231.so")), std::vector<std::string>{"FS_GetVersion"});
  EXPECT_EQ(Functions(Fs("initfail.so")),
            (std::vector<std::string>{"FS_GetVersion", "FS_Init"}));
  // The accepted one gets the daemon's level pointer (the capture's 9).
  std::vector<CallRecord> calls = Fs(good).Calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].function, "FS_GetVersion");
  EXPECT_EQ(calls[1].function, "FS_Init");
  EXPECT_EQ(calls[2].function, "FS_SetLog");
  EXPECT_EQ(calls[2].Get("level"), "9");
  EXPECT_EQ(calls[2].Get("reserved"), "null");

  // One line per loader call, with the slot the library would take; a
  // refused record's address is not kept, so only the good one's is known.
  std::vector<std::string> got = InitLines(log_);
  ASSERT_EQ(got.size(), order.size() + 1);
  int slot = 0;
  for (size_t i = 0; i < order.size(); ++i) {
    std::string head = "SP FSMDCSP_Init i:" + std::to_string(i) + " libs[" +
                       std::to_string(slot) + "]:";
    if (order[i] == good) {
      EXPECT_EQ(got[i], head + Hex(libs[0]));
      ++slot;
    } else {
      EXPECT_EQ(got[i].substr(0, head.size()), head);
    }
  }
  EXPECT_EQ(got.back(), "SP FSMDCSP_Init i:3 libs[1]:0");
}

TEST_F(FsmdcspInitTest, LibraryWithoutSetLogIsAccepted) {
  Install("libtestfs_noopt.so", "noopt.so");
  Install("libtestfs.so", "full.so");
  EXPECT_EQ(FSMDCSP_Init(), 0);
  ASSERT_EQ(libCount, 2);
  EXPECT_EQ(std::set<std::string>({NameOf(libs[0]), NameOf(libs[1])}),
            std::set<std::string>({"noopt.so", "full.so"}));
  FsLibrary* noopt = NameOf(libs[0]) == "noopt.so" ? libs[0] : libs[1];
  EXPECT_EQ(noopt->FS_SetLog, nullptr);
  EXPECT_EQ(Functions(Fs("noopt.so")), (std::vector<std::string>{"FS_GetVersion", "FS_Init"}));
  EXPECT_EQ(Fs("full.so").CountCalls("FS_SetLog"), 1);
}

TEST_F(FsmdcspInitTest, AtMostThirtyTwoLibrariesAreLoaded) {
  for (int i = 0; i < FSMDCSP_MAX_LIBS + 1; ++i)
    Install("libtestfs.so", "lib" + std::to_string(i) + ".so");
  EXPECT_EQ(FSMDCSP_Init(), 0);
  EXPECT_EQ(libCount, FSMDCSP_MAX_LIBS);
  std::set<std::string> names;
  for (FsLibrary* lib : libs) names.insert(NameOf(lib));
  EXPECT_EQ(names.size(), static_cast<size_t>(FSMDCSP_MAX_LIBS));

  std::vector<std::string> lines = InitLines(log_);
  ASSERT_EQ(lines.size(), static_cast<size_t>(FSMDCSP_MAX_LIBS));
  for (int i = 0; i < FSMDCSP_MAX_LIBS; ++i) {
    EXPECT_EQ(lines[i], "SP FSMDCSP_Init i:" + std::to_string(i) + " libs[" +
                            std::to_string(i) + "]:" + Hex(libs[i]));
  }
  // The one left over was never opened.
  int untouched = 0;
  for (int i = 0; i < FSMDCSP_MAX_LIBS + 1; ++i)
    untouched += Fs("lib" + std::to_string(i) + ".so").Calls().empty();
  EXPECT_EQ(untouched, 1);
}

// --- the dispatcher list ----------------------------------------------------

class DispatchListTest : public ::testing::Test {
 protected:
  void SetUp() override { InitDispatchList(); }

  static int Entries() {
    int n = 0;
    for (VolumeDispatcher* d = dispatchListHeadGlb.next; d != &dispatchListHeadGlb; d = d->next)
      ++n;
    return n;
  }

  FsLibrary first_{};
  FsLibrary second_{};
};

TEST_F(DispatchListTest, LaterClaimOfAVolumeReplacesTheEarlierOne) {
  uint8_t cookie[FS_COOKIE_SIZE] = {'V', 'O', 'L'};
  uint8_t other[FS_COOKIE_SIZE] = {'V', 'O', 'L'};
  other[FS_COOKIE_SIZE - 1] = 1;  // differs in the last byte only

  EXPECT_EQ(AddVolumeDispatcherToList(cookie, &first_), 0);
  int32_t afterOne = g_kmemstat;
  EXPECT_EQ(AddVolumeDispatcherToList(cookie, &second_), 0);
  EXPECT_EQ(Entries(), 1);
  EXPECT_EQ(g_kmemstat, afterOne);
  EXPECT_EQ(GetLibrary(cookie), &second_);
  EXPECT_EQ(GetLibrary(other), nullptr);

  AddVolumeDispatcherToList(other, &first_);
  EXPECT_EQ(Entries(), 2);
  EXPECT_EQ(GetLibrary(other), &first_);
  EXPECT_EQ(GetLibrary(cookie), &second_);
}

TEST_F(DispatchListTest, EntryThatCannotBeAllocatedIsNotAdded) {
  uint8_t cookie[FS_COOKIE_SIZE] = {'X'};
  int32_t start = g_kmemstat;
  FailGetmem(1);
  EXPECT_EQ(AddVolumeDispatcherToList(cookie, &first_), 0);
  FailGetmem(0, 0);
  EXPECT_EQ(Entries(), 0);
  EXPECT_EQ(GetLibrary(cookie), nullptr);
  EXPECT_EQ(g_kmemstat, start);
}

// --- reply buffers --------------------------------------------------------

LanHeader Request() {
  LanHeader h{};
  h.byteOrder = 0x01000000;  // converted by the LAN server, marker kept
  h.revision = 77;
  for (int i = 0; i < LAN_MSGID_SIZE; ++i) h.messageID[i] = static_cast<uint8_t>(0xA0 + i);
  h.functionCode = 2;
  h.length = 2160;
  h.flags = LAN_FLAG_TRACK;
  h.result = 9;
  h.pathSeparator = '/';
  return h;
}

TEST(SpInitReplyTest, OpensTheReplyWithTheRequestHeader) {
  const LanHeader request = Request();
  const FSULONG size = 300;
  auto* reply = SP_InitReply(&request, size, nullptr);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->functionCode, -2);
  EXPECT_EQ(reply->byteOrder, 1u);
  EXPECT_EQ(reply->result, 0);
  EXPECT_EQ(reply->length, size);
  EXPECT_EQ(reply->revision, 77);
  EXPECT_EQ(memcmp(reply->messageID, request.messageID, LAN_MSGID_SIZE), 0);
  EXPECT_EQ(reply->flags, request.flags);
  EXPECT_EQ(reply->pathSeparator, request.pathSeparator);
  const auto* bytes = reinterpret_cast<const uint8_t*>(reply);
  EXPECT_TRUE(std::all_of(bytes + LAN_HEADER_SIZE, bytes + size, [](uint8_t b) { return b == 0; }));
  ksxmem_free(reply);
}

FSLONG Version123() { return 123; }

TEST(SpInitReplyTest, RevisionIsTheLibrarysVersion) {
  FsLibrary lib{};
  lib.FS_GetVersion = Version123;
  const LanHeader request = Request();
  auto* reply = SP_InitReply(&request, LAN_HEADER_SIZE, &lib);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->revision, 123);
  EXPECT_EQ(reply->length, static_cast<FSULONG>(LAN_HEADER_SIZE));
  ksxmem_free(reply);
}

TEST(SpInitReplyTest, FailedAllocationIsLoggedAndReturnsNull) {
  LogCapture log(2);
  const LanHeader request = Request();
  int32_t start = g_kmemstat;
  FailGetmem(1);
  EXPECT_EQ(SP_InitReply(&request, 4096, nullptr), nullptr);
  FailGetmem(0, 0);
  EXPECT_TRUE(log.Contains("Error SP_InitReply failed to malloc reply of 4096 bytes\n"));
  EXPECT_EQ(g_kmemstat, start);
}

}  // namespace
}  // namespace kestrix::test
