// The daemon's command line and start-up, run as a real process.
#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

// The start line, and " +SP" when level-4 lines were written too.
std::string StartLine(const std::vector<std::string>& args, int timeoutMs = 10000) {
  DaemonProcess daemon;
  if (!daemon.Start(args, timeoutMs)) return daemon.Log();
  for (const auto& line : SplitLines(daemon.Log()))
    if (line.find("kestrixd started.") != std::string::npos)
      return line + (daemon.Log().find("\nSP ") != std::string::npos ? " +SP" : "");
  return "";
}

TEST(DaemonOptionsE2E, ValuesAreClampedOrIgnoredAsTheStartLineShows) {
  const std::string start = "Print kestrixd started. ";
  EXPECT_EQ(StartLine({}), start + "Threads:10 Sem:TRUE Tracker:100");
  EXPECT_EQ(StartLine({"-t", "150", "-m", "-1", "-s", "2", "-l", "12"}),
            start + "Threads:99 Sem:TRUE Tracker:0");
  // Options after the first word that is not one are not read.
  EXPECT_EQ(StartLine({"-t0", "-m2500", "-s0", "-d", "stray", "-t", "7"}),
            start + "Threads:10 Sem:FALSE Tracker:2000");
  EXPECT_EQ(StartLine({"-l", "11"}), start + "Threads:10 Sem:TRUE Tracker:100 +SP");
  EXPECT_EQ(StartLine({"-l", "abc"}, 1500), "");  // level 0: not even the start line
}

TEST(DaemonOptionsE2E, BadCommandLinesPrintUsageAndExit1) {
  for (const auto& args :
       std::vector<std::vector<std::string>>{{"-x"}, {"-d", "-t"}, {"-f", std::string(100, 'f')}}) {
    RunResult r = RunToExit(KESTRIXD_BINARY, args, {{"KESTRIX_PORT", "1"}});
    EXPECT_EQ(r.exitStatus, 1) << args[0];
    EXPECT_NE(r.standardError.find(std::string("Usage: ") + KESTRIXD_BINARY +
                                   " [-d] [-l(value)] [-t(value)]\n"),
              std::string::npos)
        << r.standardError;
    EXPECT_TRUE(r.standardError.ends_with("-t:listener threads(1-99 default=10)\n")) << args[0];
  }
}

TEST(DaemonOptionsE2E, ALogFileNameOf99CharactersIsUsedWhole) {
  TempDir dir;
  const std::string name = dir.path() + "/" + std::string(98 - dir.path().size(), 'n');
  DaemonProcess daemon;
  ASSERT_FALSE(daemon.Start({"-f", name}, 1500));  // the last -f wins over the helper's
  EXPECT_TRUE(PollUntil(
      [&] { return ReadFile(name).find("kestrixd started.") != std::string::npos; }, 5000));
}

TEST(DaemonOptionsE2E, ASecondDaemonOnATakenPortExits1) {
  DaemonProcess first;
  ASSERT_TRUE(first.Start()) << first.Log();
  DaemonProcess second;
  second.SetPort(first.port());
  EXPECT_FALSE(second.Start({}, 1000));
  EXPECT_EQ(second.WaitExit(5000), 1);
  EXPECT_TRUE(second.WaitForLog(
      "Error DGRAM_BindListener failed 1104.  May be another kestrixd running.\n"));
}

// A log file that cannot be opened sends the lines to standard output.
TEST(DaemonOptionsE2E, ALogFileThatCannotBeOpenedFallsBackToStandardOutput) {
  TempDir dir;
  DaemonProcess daemon;
  EXPECT_FALSE(daemon.Start({"-f", dir.File("missing/kestrixd.log")}, 1500));
  EXPECT_TRUE(PollUntil(
      [&] { return daemon.Stdout().find("Print kestrixd started. ") != std::string::npos; },
      5000))
      << daemon.Stdout();
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing")));
}

TEST(DaemonOptionsE2E, WithoutDashDTheParentExitsAndTheChildServes) {
  TempDir dir;
  const std::string log = dir.File("forked.log");
  const uint16_t port = FreeLoopbackPort();
  RunResult parent = RunToExit(KESTRIXD_BINARY, {"-f", log, "-l", "4"},
                               {{"KESTRIX_PORT", std::to_string(port)},
                                {"KESTRIX_LIBDIR", dir.path()},
                                {"KESTRIX_SMBPATH", dir.File("none.conf")},
                                {"KESTRIX_ADMIN_SOCKET", ""}});
  EXPECT_EQ(parent.exitStatus, 0);
  // The child is found by its command line, which names the log.
  std::vector<pid_t> children;
  PollUntil([&] {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::string cmdline = ReadFile(entry.path().string() + "/cmdline");
      std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
      if (cmdline.find(log) != std::string::npos &&
          ReadFile(log).find("kestrixd started.") != std::string::npos)
        children.push_back(std::stoi(entry.path().filename()));
    }
    return !children.empty();
  }, 5000);
  ASSERT_EQ(children.size(), 1u) << ReadFile(log);
  auto reply =
      client::Endpoint("127.0.0.1", port).Transact(client::MakeRequest(6, 48, 0, "forked"));
  kill(children[0], SIGTERM);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(client::HeaderOf(*reply)->result, 8);
  // The log was started before the fork: one "logging started" line.
  EXPECT_EQ(CountOf(ReadFile(log), "Kestrix mdc daemon logging started."), 1);
}

}  // namespace
}  // namespace kestrix::test
