// Request path helpers at their bounds: joining a path, the next string,
// MAXDGRAM (its lower bound and the environment are seen end to end).
#include <gtest/gtest.h>

#include "sp/fsmdcsp.h"
#include "sp/path_helpers.h"
#include "support/test_util.h"

namespace kestrix::test {
namespace {

// Joins into a 2048-byte output followed by guard units, which must stay.
std::string Join(const std::string& name, const std::string& mount, FSUNI separator) {
  constexpr FSUNI kGuard = 0x7777;
  std::vector<FSUNI> out(1024 + 8, kGuard);
  std::vector<FSUNI> n(name.c_str(), name.c_str() + name.size() + 1);
  std::vector<FSUNI> m(mount.c_str(), mount.c_str() + mount.size() + 1);
  EXPECT_EQ(ConcatFilenameToPath(n.data(), m.data(), separator, out.data(), 2048), out.data());
  for (size_t i = 1024; i < out.size(); ++i) EXPECT_EQ(out[i], kGuard) << "written at unit " << i;
  if (out[0] == kGuard) return "<untouched>";
  return std::string(out.begin(), std::find(out.begin(), out.begin() + 1024, FSUNI{0}));
}

TEST(ConcatFilenameToPathTest, JoinsWithOneSeparatorWithinTheBuffer) {
  const std::string mount1022 = "/" + std::string(1021, 'm'), fits(1019, 'n');
  const struct { std::string name, mount; FSUNI separator; std::string want; } rows[] = {
      {"/dir/f", "/vol/a/", '/', "/vol/a/dir/f"},
      {"/", "/m", '/', "/m//"},  // a name that is only a separator keeps it
      {"f", "/" + std::string(1022, 'm'), '/', "<untouched>"},  // a 1023-unit mount point
      {"f", mount1022, '/', mount1022},  // no room for a separator and a name
      {fits, "/m", '/', "/m/" + fits},   // 1022 units and the terminator
      {fits + "n", "/m", '/', "/m/"},
  };
  for (const auto& r : rows) EXPECT_EQ(Join(r.name, r.mount, r.separator), r.want) << r.name;
}

TEST(GetNextStringTest, NeedsRoomForAStringAfterTheFirstZeroUnit) {
  std::vector<FSUNI> area(1024, 'a');
  area[1023] = 0;
  EXPECT_EQ(GetNextString(area.data(), 2048), nullptr);
  area[1022] = 0;
  EXPECT_EQ(GetNextString(area.data(), 2048), area.data() + 1023);
}

TEST(MaxDgramFromTextTest, ValuesAreKeptInsideTheBounds) {
  LogCapture log(2);
  for (const char* text :
       {"65536", "65537", "4294975488"})  // the last not as its low 32 bits, 8192
    EXPECT_EQ(MaxDgramFromText(text), 65536u) << text;
  EXPECT_TRUE(log.Contains("Error MAXDGRAM 65537 is outside 1024 to 65536; using 65536\n"));
  EXPECT_FALSE(log.Contains("MAXDGRAM 65536 "));
}

// A client's line end is escaped; other characters come out as UTF-8.
TEST(PrintFsuniTest, EscapesControlCharactersLikeEveryLogLine) {
  LogCapture log(KSX_SP);
  const FSUNI text[] = {'a', '\n', 'b', 0x00e9, 0};
  printFSUNI(text);
  EXPECT_TRUE(log.Contains("printFSUNI fsmdcsp [a\\x0ab\xc3\xa9]")) << log.Text();
}

}  // namespace
}  // namespace kestrix::test
