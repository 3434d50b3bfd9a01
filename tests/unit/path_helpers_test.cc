// Request path helpers: joining a mount point and a name within the output
// buffer, finding the file name after the share name, the large reply size
// and the FSUNI printers.
#include <stdlib.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sp/fsmdcsp.h"
#include "support/test_util.h"
#include "utils/ksxmem.h"

namespace kestrix::test {
namespace {

constexpr FSUNI kUntouched = 0x7777;

std::vector<FSUNI> U(const std::string& text) {
  std::vector<FSUNI> units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

std::string Text(const FSUNI* units) {
  std::string out;
  for (; *units != 0; ++units) out += static_cast<char>(*units);
  return out;
}

// Joins into an output of capacityBytes followed by guard units, and checks
// that nothing was written past the capacity.
std::string Join(const std::string& name, const std::string& mount, FSUNI separator,
                 FSULONG capacityBytes = 2048) {
  std::vector<FSUNI> out(capacityBytes / 2 + 8, kUntouched);
  std::vector<FSUNI> n = U(name), m = U(mount);
  EXPECT_EQ(ConcatFilenameToPath(n.data(), m.data(), separator, out.data(), capacityBytes),
            out.data());
  for (size_t i = capacityBytes / 2; i < out.size(); ++i)
    EXPECT_EQ(out[i], kUntouched) << "written past the buffer at unit " << i;
  if (out[0] == kUntouched) return "<untouched>";
  return Text(out.data());
}

TEST(ConcatFilenameToPathTest, JoinsWithExactlyOneSeparator) {
  EXPECT_EQ(Join("dir/f", "/vol/a", '/'), "/vol/a/dir/f");
  EXPECT_EQ(Join("/dir/f", "/vol/a/", '/'), "/vol/a/dir/f");
  EXPECT_EQ(Join("/dir/f", "/vol/a", '/'), "/vol/a/dir/f");
  EXPECT_EQ(Join("f", "", '/'), "/f");
  EXPECT_EQ(Join("x\\y", "C:", '\\'), "C:\\x\\y");
  // Only one leading separator is dropped, and not from a name that is one.
  EXPECT_EQ(Join("//f", "/m", '/'), "/m//f");
  EXPECT_EQ(Join("/", "/m", '/'), "/m//");
}

TEST(ConcatFilenameToPathTest, WithoutSeparatorTheNameIsAppended) {
  EXPECT_EQ(Join("f", "/m", 0), "/mf");
  EXPECT_EQ(Join("/f", "/m/", 0), "/m//f");
  // Old form within its capacity: all of it, the mount point alone, nothing.
  EXPECT_EQ(Join("ab", "/m", 0, 12), "/mab");
  EXPECT_EQ(Join("abcd", "/m", 0, 12), "/m");
  EXPECT_EQ(Join("ab", "/m", 0, 5), "<untouched>");
}

TEST(ConcatFilenameToPathTest, LongMountPointsAndNamesAreCut) {
  const std::string mount1023 = "/" + std::string(1022, 'm');
  EXPECT_EQ(Join("f", mount1023, '/'), "<untouched>");
  const std::string mount1022 = "/" + std::string(1021, 'm');
  EXPECT_EQ(Join("f", mount1022, '/'), mount1022);

  // "/m" + "/" + name: the joined path may take 1022 units of the 1024.
  const std::string fits(1019, 'n');
  EXPECT_EQ(Join(fits, "/m", '/'), "/m/" + fits);
  EXPECT_EQ(Join(fits + "n", "/m", '/'), "/m/");
  EXPECT_EQ(Join("/" + fits, "/m/", '/'), "/m/" + fits);
}

TEST(GetNextStringTest, FindsTheStringAfterTheFirstZeroUnit) {
  std::vector<FSUNI> area(1024, 'a');
  area[1023] = 0;
  EXPECT_EQ(GetNextString(area.data(), 2048), nullptr);
  area[1022] = 0;
  EXPECT_EQ(GetNextString(area.data(), 2048), area.data() + 1023);

  // An empty second string is still a string.
  area[5] = 0;
  area[6] = 0;
  EXPECT_EQ(GetNextString(area.data(), 2048), area.data() + 6);

  // The capacity bounds the search: no zero unit inside it.
  EXPECT_EQ(GetNextString(area.data(), 10), nullptr);
  EXPECT_EQ(GetNextString(area.data(), 13), nullptr);
  EXPECT_EQ(GetNextString(area.data(), 14), area.data() + 6);
  EXPECT_EQ(GetNextString(area.data(), 0), nullptr);
}

TEST(MaxDgramFromTextTest, ValuesAreKeptInsideTheBounds) {
  LogCapture log(2);
  EXPECT_EQ(MaxDgramFromText("8192"), 8192u);
  EXPECT_EQ(MaxDgramFromText("1024"), 1024u);
  EXPECT_EQ(MaxDgramFromText("65507"), 65507u);
  EXPECT_EQ(MaxDgramFromText("  2048x"), 2048u);
  EXPECT_EQ(log.Text(), "");

  EXPECT_EQ(MaxDgramFromText("1023"), 1024u);
  EXPECT_EQ(log.Text(), "Error MAXDGRAM 1023 is outside 1024 to 65507; using 1024\n");
  log.Clear();
  EXPECT_EQ(MaxDgramFromText("65508"), 65507u);
  EXPECT_TRUE(log.Contains("Error MAXDGRAM 65508 is outside 1024 to 65507; using 65507\n"));
  EXPECT_EQ(MaxDgramFromText("abc"), 1024u);
  EXPECT_EQ(MaxDgramFromText("-8192"), 1024u);
  // Far too large values are lowered, whatever their low 32 bits are.
  EXPECT_EQ(MaxDgramFromText("4294975488"), 65507u);
  EXPECT_EQ(MaxDgramFromText("4294967296"), 65507u);
  EXPECT_EQ(MaxDgramFromText("99999999999999999999999"), 65507u);
  EXPECT_EQ(MaxDgramFromText("-4294967296"), 1024u);
}

// The environment is read once per process: each case runs in a fresh one.
class MaxDgramSizeTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(MaxDgramSizeTest, DefaultsTo65536) {
  unsetenv("MAXDGRAM");
  EXPECT_EXIT(exit(maxDgramSize() == 65536 ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST_F(MaxDgramSizeTest, TakesMaxdgramOnceAtFirstUse) {
  setenv("MAXDGRAM", "8192", 1);
  EXPECT_EXIT(
      {
        FSULONG first = maxDgramSize();
        setenv("MAXDGRAM", "4096", 1);
        exit(first == 8192 && maxDgramSize() == 8192 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  unsetenv("MAXDGRAM");
}

TEST(PrintFsuniTest, BytesAreWalkedUntilTwoZeroBytes) {
  LogCapture log(1);
  const FSUNI text[] = {'A', 0x0142, 0};
  printFSUNIBytes(text);
  // Byte by byte: the high byte of the last unit is the first of the two.
  EXPECT_EQ(log.Text(), "Print FSUNI Bytes [41 00 42 01 ]\n");
  log.Clear();
  const FSUNI empty[] = {0};
  printFSUNIBytes(empty);
  EXPECT_EQ(log.Text(), "Print FSUNI Bytes []\n");
}

TEST(PrintFsuniTest, PrintsOnlyFromLevelFour) {
  const FSUNI text[] = {'A', 'B', 0};
  {
    LogCapture log(3);
    printFSUNI(text);
    EXPECT_EQ(log.Text(), "");
  }
  LogCapture log(4);
  int32_t start = g_kmemstat;
  printFSUNI(text);
  printFSUNI(nullptr);
  EXPECT_EQ(log.Text(), "Print FSUNI Bytes [41 00 42 ]\nSP printFSUNI fsmdcsp [AB]");
  EXPECT_EQ(g_kmemstat, start);

  // Over 1024 units: the bytes line only.
  log.Clear();
  std::vector<FSUNI> longText(1026, 'x');
  longText[1025] = 0;
  printFSUNI(longText.data());
  EXPECT_EQ(log.Text().find("printFSUNI fsmdcsp"), std::string::npos);
  EXPECT_TRUE(log.Contains("Print FSUNI Bytes [78 00 78 "));
}

}  // namespace
}  // namespace kestrix::test
