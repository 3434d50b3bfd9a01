// kestrix-cli against the real daemon: each command's reply printed by name,
// and the exit status a script sees.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

class KxCliE2E : public MapE2E {
 protected:
  // The exit status and what the command printed.
  std::pair<int, std::string> Cli(std::vector<std::string> args) {
    args.insert(args.begin(), {"-p", std::to_string(daemon_.port())});
    RunResult r = RunToExit(KESTRIX_CLI, args, {});
    return {r.exitStatus, r.standardOutput + r.standardError};
  }
  bool Printed(const std::vector<std::string>& args, int status, const std::string& text) {
    auto [exitStatus, out] = Cli(args);
    EXPECT_EQ(exitStatus, status) << out;
    return out.find(text) != std::string::npos;
  }
};

TEST_F(KxCliE2E, EachCommandPrintsItsReply) {
  Serve("volume /export/data vol-a\nfile /export/data/f vol-a file-f\nmap.extentType 1\nmap.nExtents 2\n");
  Start();
  EXPECT_TRUE(Printed({"getvolume", "data"}, 0, "nDisks 1\n"));
  EXPECT_TRUE(Printed({"getvolume", "nosuch"}, 3, "result 3 ("));
  EXPECT_TRUE(Printed({"open", "data", "f", "--write", "--size", "100"}, 0, "key 0x0\n"));
  EXPECT_TRUE(Printed({"map", "0x0", "65536"}, 0, "nExtents 2 extentType 1"));
  EXPECT_TRUE(Printed({"setsize", "0x0", "100000"}, 0, "lease "));
  EXPECT_TRUE(Printed({"close", "0x0"}, 0, "result 0 ("));
  EXPECT_TRUE(Printed({"close", "0x0"}, 3, "result 407 ("));
  EXPECT_TRUE(Printed({"raw", "9"}, 0, "result 8 ("));
  EXPECT_TRUE(Printed({"log", "4", "SCREEN"}, 0, "result 0 ("));
  EXPECT_TRUE(Printed({"getvolume-cookie", "zz"}, 1, "bad cookie"));
  EXPECT_EQ(MapCalls(Fs("liba.so")), "map 0 -1 0|size 100 -1|map 65536 -1 0|size 100000 -1|unlock|");
}

}  // namespace
}  // namespace kestrix::test
