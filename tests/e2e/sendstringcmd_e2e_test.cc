// String commands end to end: "LOG" changing the real daemon's level and
// destination and its libraries' level, client text escaped in the log,
// KESTRIX_LOG_DIR, and destination switches while other requests log.
#include <unistd.h>

#include <thread>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::Read;

class SendStringCmdE2E : public PluginDaemonTest {
 protected:
  // Every text gets the same 2132-byte reply with result 0.
  void Command(const std::string& text, client::Endpoint* to = nullptr) {
    Bytes reply = (to ? to : endpoint_.get())
                      ->Transact(client::MakeStringCommandRequest(text))
                      .value_or(Bytes(60));
    EXPECT_EQ(std::tuple(reply.size(), Read<int32_t>(reply, 24), Read<int32_t>(reply, 48)),
              std::tuple(2132u, -7, 0))
        << text;
  }
  // No share is configured: logged at level 4 as "SP path NAME", result 3.
  void Probe(const std::string& share) { Ask(client::MakeGetVolumeRequest(share)); }
};

TEST_F(SendStringCmdE2E, LevelReachesLibrariesAndLinesFollowTheDestination) {
  for (const char* name : {"liba.so", "libb.so"}) Install("libtestfs.so", name, "");
  Install("libtestfs_noopt.so", "libc.so", "");
  Start({"-l", "3"});
  const auto order = LoadOrder();
  Fs("libb.so").Configure("version 231\n");  // above the bound from now on
  const std::string next = daemon_.dir().File("next.log"), inject = daemon_.dir().File("i.log");
  const std::string startLog = daemon_.Log();
  Command("log 5 " + next);
  Probe("at-five");
  Command("LOG  5");  // level 0 and a file named 5: nothing is written
  Command("LOG|10|screen");
  for (const char* unchanged : {"LOG 5|SCREEN", "LOGX 5", ""}) Command(unchanged);
  Command("LOG|10|" + inject);
  Probe("evil %s%n\nInfo forged");  // directives are text
  Command("noop\nError forged\r\n");
  Bytes cut = client::MakeStringCommandRequest("noop|cut");  // no 0 unit in the datagram
  cut.resize(80 + 2 * 8);
  client::HeaderOf(cut)->length = static_cast<uint32_t>(cut.size());
  Ask(cut);

  std::vector<int64_t> levels;  // start-up, then each LOG command
  for (const auto& call : Fs("liba.so").Calls("FS_SetLog")) levels.push_back(call.Int("level"));
  EXPECT_EQ(levels, (std::vector<int64_t>{3, 5, 0, 10, 10}));
  EXPECT_EQ(Fs("libb.so").CountCalls("FS_SetLog"), 1);
  const auto indexOfA = std::find(order.begin(), order.end(), "liba.so") - order.begin();
  const std::string text = ReadFile(next);
  EXPECT_EQ(CountOf(text, "Print setting lib " + std::to_string(indexOfA) + " log level to 5\n"),
            1);
  EXPECT_EQ(std::tuple(CountOf(text, "setting lib"), CountOf(text, "SP path at-five\n"),
                       CountOf(text, "Debug1 ")), std::tuple(1, 1, 0));
  EXPECT_EQ(daemon_.Log(), startLog);
  for (const char* line : {"Debug1 strs 1:LOG 5  2:SCREEN  3:  4:\n",
                           "Debug1 Got command [LOGX 5]\n", "Debug1 Got command []\n"})
    EXPECT_EQ(CountOf(daemon_.Stdout(), line), 1) << line;
  const std::string injected = ReadFile(inject);
  for (const char* line : {"SP path evil %s%n\\x0aInfo forged\n",
                           "Debug1 Got command [noop\\x0aError forged\\x0d\\x0a]\n",
                           "Debug1 Got command [noop|cut]\n"})
    EXPECT_EQ(CountOf(injected, line), 1) << line;
  for (const std::string& line : SplitLines(injected))  // never a line of its own
    EXPECT_EQ(line.find("forged") != line.npos, line.find("\\x0a") != line.npos) << line;
}

TEST_F(SendStringCmdE2E, LogDirTakesOnlyFilesInsideIt) {
  const std::string logs = daemon_.dir().File("logs"), out = daemon_.dir().File("out");
  std::filesystem::create_directories(logs + "/sub");
  std::filesystem::create_directory(out);
  std::filesystem::create_symlink(out + "/t.log", logs + "/link.log");
  std::filesystem::create_symlink(out, logs + "/away");
  daemon_.SetEnv("KESTRIX_LOG_DIR", logs);
  Start({"-l", "2"});
  Command("LOG|3|" + logs + "/sub/../in.log");  // ".." that stays inside

  const std::string refused[] = {out + "/x.log", logs + "/../x.log", logs + "/link.log",
                                 logs + "/away/x.log", "x.log"};
  for (size_t i = 0; i < std::size(refused); ++i) {
    Command("LOG|" + std::to_string(4 - i % 2) + "|" + refused[i]);
    Probe("probe" + std::to_string(i));
  }
  const std::string text = ReadFile(logs + "/in.log");
  for (size_t i = 0; i < std::size(refused); ++i) {
    EXPECT_EQ(CountOf(text, "Error LOG destination [" + refused[i] +
                                "] is not a file inside "
                                "KESTRIX_LOG_DIR [" +
                                logs + "]; the log destination is unchanged\n"),
              1);
    // The level changed all the same: level 4 shows the probe, level 3 not.
    EXPECT_EQ(CountOf(text, "SP path probe" + std::to_string(i) + "\n"), i % 2 == 0 ? 1 : 0);
  }
  for (const std::string& path : {out + "/x.log", daemon_.dir().File("x.log"), out + "/t.log"})
    EXPECT_NE(access(path.c_str(), F_OK), 0) << path;
}

// Clients send requests while another switches between two files and the
// screen; listener threads log each receipt while the switch runs.
TEST_F(SendStringCmdE2E, DestinationSwitchesUnderLoadLoseAndTearNoLine) {
  Start({"-l", "4", "-t", "6"});
  const std::string a = daemon_.dir().File("a.log"), b = daemon_.dir().File("b.log");
  constexpr int kClients = 4, kRequests = 40;
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c)
    clients.emplace_back([&, c] {
      client::Endpoint endpoint("127.0.0.1", daemon_.port());
      for (int n = c * kRequests; n < (c + 1) * kRequests; ++n)
        EXPECT_TRUE(endpoint.Transact(client::MakeGetVolumeRequest("load-" + std::to_string(n)))
                        .has_value())
            << n;
    });
  client::Endpoint switcher("127.0.0.1", daemon_.port());
  for (int i = 0; i < 90; ++i)
    Command("LOG|4|" + (i % 3 == 0 ? a : i % 3 == 1 ? b : "SCREEN"), &switcher);
  for (auto& t : clients) t.join();
  std::string all;
  for (const std::string& text : {daemon_.Log(), ReadFile(a), ReadFile(b), daemon_.Stdout()}) {
    EXPECT_TRUE(text.empty() || text.back() == '\n');
    all += text;
  }
  std::map<std::string, int> seen;
  for (const std::string& line : SplitLines(all)) {
    const std::string name = line.substr(0, line.find(' '));
    EXPECT_TRUE(name == "Print" || name == "Error" || name == "SP") << line;
    ++seen[line];
  }
  for (int n = 0; n < kClients * kRequests; ++n)
    EXPECT_EQ(seen["SP path load-" + std::to_string(n)], 1) << n;
  EXPECT_EQ(daemon_.Stderr().find("ThreadSanitizer"), std::string::npos) << daemon_.Stderr();
}

}  // namespace
}  // namespace kestrix::test
