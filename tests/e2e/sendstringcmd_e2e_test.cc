// String commands end to end: "LOG" changing the real daemon's level and
// destination and its libraries' level, client text escaped in the log,
// KESTRIX_LOG_DIR, and destination switches while other requests log.
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

using client::Read;

class SendStringCmdE2E : public PluginDaemonTest {
 protected:
  // Every text is answered with the same 2132-byte reply, result 0.
  void Command(const std::string& text, client::Endpoint* endpoint = nullptr) {
    auto reply = (endpoint != nullptr ? endpoint : endpoint_.get())
                     ->Transact(client::MakeStringCommandRequest(text));
    ASSERT_TRUE(reply.has_value()) << text;
    EXPECT_EQ(reply->size(), 2132u) << text;
    EXPECT_EQ(Read<int32_t>(*reply, 24), -7) << text;
    EXPECT_EQ(Read<uint32_t>(*reply, 28), 2132u) << text;
    EXPECT_EQ(Read<int32_t>(*reply, 48), 0) << text;
  }
  // A share no configuration knows: logged as "SP path NAME", answered 3.
  void Probe(const std::string& share) {
    EXPECT_EQ(Read<int32_t>(Ask(client::MakeGetVolumeRequest(share)), 48), 3);
  }
};

TEST_F(SendStringCmdE2E, LevelReachesLibrariesAndLinesFollowTheDestination) {
  Install("libtestfs.so", "liba.so", "");
  Install("libtestfs.so", "libb.so", "");
  Install("libtestfs_noopt.so", "libc.so", "");
  Start({"-l", "3"});
  const std::vector<std::string> order = LoadOrder();
  ASSERT_EQ(order.size(), 3u);
  Fs("libb.so").Configure("version 231\n");  // from now on above the bound
  for (const char* name : {"liba.so", "libb.so", "libc.so"}) Fs(name).ClearCalls();
  const std::string next = daemon_.dir().File("next.log");
  const std::string startLog = daemon_.Log();

  Command("log 5 " + next);
  for (const char* name : {"liba.so", "libb.so", "libc.so"})
    EXPECT_EQ(Fs(name).CountCalls("FS_GetVersion"), 1) << name;
  auto setLog = Fs("liba.so").Calls("FS_SetLog");
  ASSERT_EQ(setLog.size(), 1u);
  EXPECT_EQ(setLog[0].Int("level"), 5);
  EXPECT_EQ(setLog[0].Get("reserved"), "null");
  EXPECT_EQ(Fs("libb.so").CountCalls("FS_SetLog"), 0);
  const auto indexOfA = std::find(order.begin(), order.end(), "liba.so") - order.begin();
  EXPECT_EQ(CountOf(ReadFile(next), "Print setting lib " + std::to_string(indexOfA) +
                                        " log level to 5\n"),
            1);
  EXPECT_EQ(CountOf(ReadFile(next), "setting lib"), 1);

  Probe("at-five");  // level 5: SP lines, no Debug1 lines, all in the new file
  EXPECT_EQ(CountOf(ReadFile(next), "SP path at-five\n"), 1);
  EXPECT_EQ(CountOf(ReadFile(next), "Debug1 "), 0);
  EXPECT_EQ(daemon_.Log(), startLog);

  Command("LOG|10|screen");
  EXPECT_EQ(Fs("liba.so").Calls("FS_SetLog").at(1).Int("level"), 10);
  const std::string fileAfterSwitch = ReadFile(next);
  for (const char* unchanged : {"LOG 5|SCREEN", "LOGX 5", "LO 5", ""}) Command(unchanged);
  Probe("on-screen");
  const std::string screen = daemon_.Stdout();
  for (const char* line : {"Debug1 Got command [LOG 5|SCREEN]\n", "Debug1 Got command [LOGX 5]\n",
                           "Debug1 Got command [LO 5]\n", "Debug1 Got command []\n",
                           "Debug1 strs 1:LOG 5  2:SCREEN  3:  4:\n", "SP path on-screen\n"}) {
    EXPECT_EQ(CountOf(screen, line), 1) << line;
  }
  EXPECT_EQ(Fs("liba.so").CountCalls("FS_SetLog"), 2);
  EXPECT_EQ(ReadFile(next), fileAfterSwitch);
}

TEST_F(SendStringCmdE2E, ClientTextIsBoundedByTheDatagramAndEscaped) {
  Start({"-l", "10"});
  Probe("evil\nInfo forged");
  Command("noop\nError forged\r\n");
  // A text without a 0 unit ends where its datagram ends, whatever an
  // earlier, longer datagram left in the listener's buffer.
  Command(std::string(200, 'A'));
  Bytes cut = client::MakeStringCommandRequest("LOG|3");
  cut.resize(80 + 2 * 5);
  client::HeaderOf(cut)->length = static_cast<uint32_t>(cut.size());
  Ask(cut);

  const std::vector<std::string> lines = SplitLines(daemon_.Log());
  auto count = [&](const std::string& wanted) {
    return std::count(lines.begin(), lines.end(), wanted);
  };
  EXPECT_EQ(count("SP path evil\\x0aInfo forged"), 1);
  EXPECT_EQ(count("Debug1 Got command [noop\\x0aError forged\\x0d\\x0a]"), 1);
  EXPECT_EQ(count("Debug1 strs 1:noop\\x0aError  2:forged\\x0d\\x0a  3:  4:"), 1);
  EXPECT_EQ(count("Debug1 Got command [LOG|3]"), 1);
  for (const std::string& line : lines) {
    if (line.find("forged") != std::string::npos) {
      EXPECT_NE(line.find("\\x0a"), std::string::npos) << line;
    }
  }
}

TEST_F(SendStringCmdE2E, LogDirTakesOnlyFilesInsideIt) {
  const std::string logs = daemon_.dir().File("logs"), outside = daemon_.dir().File("outside");
  ASSERT_EQ(mkdir(logs.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((logs + "/sub").c_str(), 0755), 0);
  ASSERT_EQ(symlink((outside + "/target.log").c_str(), (logs + "/link.log").c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), (logs + "/away").c_str()), 0);
  daemon_.SetEnv("KESTRIX_LOG_DIR", logs);
  Start({"-l", "2"});

  const std::string in = logs + "/in.log";
  Command("LOG|3|" + in);
  Probe("first");
  EXPECT_EQ(CountOf(ReadFile(in), "Error FTX1201W OSL_ShareNameToMountPoint failed name is : first\n"), 1);

  const std::string refused[] = {outside + "/out.log", logs + "/../out.log", logs + "/link.log",
                                 logs + "/away/out.log", "relative.log"};
  for (size_t i = 0; i < std::size(refused); ++i) {
    const int level = i % 2 == 0 ? 4 : 3;
    const std::string probe = "probe-" + std::to_string(i);
    Command("LOG|" + std::to_string(level) + "|" + refused[i]);
    Probe(probe);
    const std::string text = ReadFile(in);
    EXPECT_EQ(CountOf(text, "Error LOG destination [" + refused[i] +
                                "] is not a file inside KESTRIX_LOG_DIR [" + logs +
                                "]; the log destination is unchanged\n"),
              1)
        << refused[i];
    // The level changed all the same: SP lines come and go with it.
    EXPECT_EQ(CountOf(text, "SP path " + probe + "\n"), level == 4 ? 1 : 0) << refused[i];
  }
  for (const std::string& path :
       {outside + "/out.log", daemon_.dir().File("out.log"), outside + "/target.log"}) {
    EXPECT_NE(access(path.c_str(), F_OK), 0) << path;
  }

  Command("LOG|3|" + logs + "/sub/../second.log");  // ".." that stays inside
  Probe("second");
  EXPECT_EQ(CountOf(ReadFile(logs + "/second.log"), "failed name is : second\n"), 1);
  EXPECT_EQ(CountOf(ReadFile(in), "second"), 0);
}

// Clients send requests while another switches between two files and the
// screen: every line lands whole in exactly one destination. Requests are
// handled one at a time (-s 1), but listener threads log their receipt
// concurrently with the switch; the tracker is off (-m 0).
TEST_F(SendStringCmdE2E, DestinationSwitchesUnderLoadLoseAndTearNoLine) {
  Start({"-l", "4", "-m", "0", "-t", "6"});
  const std::string fileA = daemon_.dir().File("a.log"), fileB = daemon_.dir().File("b.log");
  constexpr int kClients = 4, kRequests = 40, kSwitches = 30;
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      client::Endpoint endpoint("127.0.0.1", daemon_.port());
      for (int n = 0; n < kRequests; ++n) {
        auto reply = endpoint.Transact(
            client::MakeGetVolumeRequest("load-" + std::to_string(c) + "-" + std::to_string(n)));
        EXPECT_TRUE(reply.has_value());
      }
    });
  }
  client::Endpoint switcher("127.0.0.1", daemon_.port());
  for (int i = 0; i < kSwitches; ++i) {
    for (const std::string& destination : {fileA, fileB, std::string("SCREEN")})
      Command("LOG|4|" + destination, &switcher);
  }
  for (auto& t : clients) t.join();

  std::string all;
  for (const std::string& text : {daemon_.Log(), ReadFile(fileA), ReadFile(fileB), daemon_.Stdout()}) {
    ASSERT_TRUE(text.empty() || text.back() == '\n');
    all += text;
  }
  for (const std::string& line : SplitLines(all)) {
    const std::string name = line.substr(0, line.find(' '));
    EXPECT_TRUE(name == "Print" || name == "Error" || name == "Info" || name == "SP") << line;
  }
  for (int c = 0; c < kClients; ++c) {
    for (int n = 0; n < kRequests; ++n) {
      const std::string line = "SP path load-" + std::to_string(c) + "-" + std::to_string(n) + "\n";
      EXPECT_EQ(CountOf(all, line), 1) << line;
    }
  }
  // In a ThreadSanitizer build: no report that involves the log.
  const std::string reports = daemon_.Stderr();
  for (size_t at = 0; (at = reports.find("WARNING: ThreadSanitizer", at)) != std::string::npos;) {
    const size_t end = reports.find("SUMMARY: ThreadSanitizer", at);
    const std::string report = reports.substr(at, end - at);
    EXPECT_EQ(report.find("utils/log.cc"), std::string::npos) << report;
    EXPECT_EQ(report.find("sp/sendstringcmd.cc"), std::string::npos) << report;
    at = end;
  }
}

}  // namespace
}  // namespace kestrix::test
