// The daemon's command line and start-up, run as a real process.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

const char kUsageBody[] =
    " [-d] [-l(value)] [-t(value)]\n-d:noFork (For use with the debugger)\n"
    "-l:loglevel (0-11 defauilt 2)\n"
    "-m:Set the maximum duplicate messages handled. Set to 0 to disable tracker. (default 100)\n"
    "-s:Use a semaphore around message handler (1 or 0  default 1)\n"
    "-t:listener threads(1-99 default=10)\n";

std::string StartLine(const std::vector<std::string>& args) {
  DaemonProcess daemon;
  if (!daemon.Start(args)) return "did not start: " + daemon.Log();
  for (const auto& line : SplitLines(daemon.Log()))
    if (line.find("kestrixd started.") != std::string::npos) return line;
  return "";
}

TEST(DaemonOptionsE2E, DefaultsAndClampedValuesShowInTheStartLine) {
  EXPECT_EQ(StartLine({}), "Print kestrixd started. Threads:10 Sem:TRUE Tracker:100");
  EXPECT_EQ(StartLine({"-t", "150", "-m", "-1", "-s", "2"}),
            "Print kestrixd started. Threads:99 Sem:TRUE Tracker:0");
  EXPECT_EQ(StartLine({"-t0", "-m2500", "-s0", "-d"}),
            "Print kestrixd started. Threads:10 Sem:FALSE Tracker:2000");
  EXPECT_EQ(StartLine({"-t", "-5", "-t", "99", "-m", "2000"}),
            "Print kestrixd started. Threads:99 Sem:TRUE Tracker:2000");
  // Options after the first word that is not one are not read.
  EXPECT_EQ(StartLine({"-t", "5", "stray", "-t", "7", "-x"}),
            "Print kestrixd started. Threads:5 Sem:TRUE Tracker:100");
}

TEST(DaemonOptionsE2E, LogLevelOptionFiltersLines) {
  // Level 0 writes no start line; level 12 is ignored (stays 2); 1 writes it.
  DaemonProcess quiet;
  EXPECT_FALSE(quiet.Start({"-l", "abc"}, 1500));
  EXPECT_EQ(quiet.Log(), "");
  DaemonProcess ignored;
  ASSERT_TRUE(ignored.Start({"-l", "12"}));
  EXPECT_EQ(CountOf(ignored.Log(), "SP "), 0);  // no level-4 lines at level 2
  DaemonProcess traced;
  ASSERT_TRUE(traced.Start({"-l", "11"}));
  EXPECT_TRUE(traced.WaitForLog("SP kestrixd startup() activated\n"));
  EXPECT_TRUE(traced.WaitForLog("Print Kestrix mdc daemon logging started.\n"));
}

TEST(DaemonOptionsE2E, BadCommandLinesPrintUsageAndExit1) {
  const std::vector<std::vector<std::string>> cases = {
      {"-x"}, {"-?"}, {"-l"}, {"-d", "-t"}, {"-f", std::string(100, 'f')}};
  for (const auto& args : cases) {
    RunResult r = RunToExit(KESTRIXD_BINARY, args, {{"KESTRIX_PORT", "1"}});
    EXPECT_EQ(r.exitStatus, 1) << args[0];
    std::string usage = std::string("Usage: ") + KESTRIXD_BINARY + kUsageBody;
    ASSERT_GE(r.standardError.size(), usage.size()) << args[0];
    EXPECT_EQ(r.standardError.substr(r.standardError.size() - usage.size()), usage) << args[0];
  }
}

TEST(DaemonOptionsE2E, LogNameOf99CharactersIsTaken) {
  TempDir dir;
  std::string name = dir.path() + "/";
  name += std::string(99 - name.size(), 'n');
  DaemonProcess daemon;
  // Started with its own -f; the last -f wins, so the 99-character name is used.
  ASSERT_FALSE(daemon.Start({"-f", name}, 1500));
  EXPECT_NE(ReadFile(name).find("kestrixd started."), std::string::npos);
}

TEST(DaemonOptionsE2E, SecondDaemonOnATakenPortReportsBindFailure) {
  DaemonProcess first;
  ASSERT_TRUE(first.Start());
  DaemonProcess second;
  second.SetPort(first.port());
  EXPECT_FALSE(second.Start({}, 1000));
  EXPECT_EQ(second.WaitExit(5000), 1);
  EXPECT_NE(second.Log().find("Error DGRAM_BindListener failed 1104.  May be another kestrixd "
                              "running.\n"),
            std::string::npos);
}

}  // namespace
}  // namespace kestrix::test

namespace kestrix::test {
namespace {

// Processes whose command line mentions `needle`, found through /proc.
std::vector<pid_t> ProcessesMentioning(const std::string& needle) {
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string cmdline = ReadFile(entry.path().string() + "/cmdline");
    std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
    if (cmdline.find(needle) != std::string::npos) found.push_back(std::stoi(name));
  }
  return found;
}

TEST(DaemonOptionsE2E, WithoutDashDTheParentExitsAndTheChildServes) {
  TempDir dir;
  const std::string log = dir.File("forked.log");
  const uint16_t port = FreeUdpPort();
  RunResult parent = RunToExit(KESTRIXD_BINARY, {"-f", log, "-l", "4"},
                               {{"KESTRIX_PORT", std::to_string(port)},
                                {"KESTRIX_LIBDIR", dir.path()},
                                {"KESTRIX_SMBPATH", dir.File("none.conf")}});
  EXPECT_EQ(parent.exitStatus, 0);
  std::vector<pid_t> children;
  for (int i = 0; i < 500 && children.empty(); ++i) {
    if (ReadFile(log).find("kestrixd started.") != std::string::npos)
      children = ProcessesMentioning(log);
    if (children.empty()) usleep(10000);
  }
  ASSERT_EQ(children.size(), 1u) << ReadFile(log);
  client::Endpoint endpoint("127.0.0.1", port);
  auto reply = endpoint.Transact(client::MakeRequest(6, 48, 0, "forked"));
  for (pid_t child : children) kill(child, SIGKILL);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(client::HeaderOf(*reply)->result, 8);
  // The log was started before the fork: one "logging started" line.
  EXPECT_EQ(CountOf(ReadFile(log), "Kestrix mdc daemon logging started."), 1);
}

}  // namespace
}  // namespace kestrix::test
