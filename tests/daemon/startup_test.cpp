// The daemon's own life: start, options, refusals, stop.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "harness.h"
#include "service/ks.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

constexpr char kErrors[] = "/tmp/daemon.errors";

int exit_status(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(StartUp, TheCheckOptionStartsAndStopsAtOnce) {
  Process check("vistalprod", {"-t", "-x", "-\x01"}, kErrors);
  EXPECT_EQ(exit_status(check.wait()), 0);
  EXPECT_EQ(read_file(kErrors), "Illegal option:-x\nIllegal option:-#\n");
  EXPECT_THAT(read_file(kLogFile),
              ContainsRegex("\\[main\\]\\[[0-9]+\\] sock_name:/var/run/ks/494AC97B.sock\\.\n"));
  EXPECT_NE(access("/var/run/ks/494AC97B.sock", F_OK), 0);
}

TEST(StartUp, ASecondInstanceIsRefused) {
  Daemon first;
  const std::size_t log = read_file(kLogFile).size();
  EXPECT_EQ(exit_status(Process("vistalprod").wait()), 255);
  EXPECT_THAT(read_file(kLogFile).substr(log), HasSubstr("] warning: re-entry.\n"));
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  EXPECT_EQ(first.stop(), 0);
}

TEST(StartUp, AZombieIsNoInstance) {
  Process zombie("vistalprod", {"-t"});
  ASSERT_TRUE(eventually([&] {
    return read_file("/proc/" + std::to_string(zombie.pid()) + "/stat").find(") Z ") != std::string::npos;
  }));
  EXPECT_EQ(exit_status(Process("vistalprod", {"-t"}).wait()), 0);
}

TEST(StartUp, WithoutAnInstallPathItSaysSoAndEnds) {
  const std::string config = read_file("/etc/config/kpkg.conf");
  write_file("/etc/config/kpkg.conf", "[Other]\nInstall_Path = /share/VistalServer\n");
  Process refused("vistalprod", {}, kErrors);
  EXPECT_EQ(exit_status(refused.wait()), 255);
  EXPECT_THAT(read_file(kErrors), testing::MatchesRegex("\\[main\\]\\[[0-9]+\\] get Install_Path fail\\."));
  write_file("/etc/config/kpkg.conf", config);
}

TEST(StartUp, AsADaemonItLeavesItsStarter) {
  EXPECT_EQ(exit_status(Process("vistalprod", {"-d"}).wait()), 0);
  ASSERT_TRUE(eventually([] { return call(kMain, "test").status == KS_STATUS_OK; }));
  EXPECT_EQ(exit_status(Process("pkill", {"-INT", "-x", "vistalprod"}).wait()), 0);
  EXPECT_TRUE(eventually([] { return exit_status(Process("pgrep", {"-x", "vistalprod"}).wait()) == 1; }));
}

TEST(StartUp, StopSignalsEndItOnceOrTwice) {
  for (const int signum : {SIGINT, SIGTERM}) {
    Daemon daemon;
    daemon.process().signal(signum);
    daemon.process().signal(signum);
    EXPECT_EQ(daemon.process().wait(), 0);
    EXPECT_EQ(call(kMain, "test").status, KS_STATUS_CONNECT);
  }
}

TEST(StartUp, ACrashLeavesABacktraceAndEndsInSigkill) {
  for (const int signum : {SIGSEGV, SIGABRT}) {
    Daemon daemon;
    const std::size_t log = read_file(kLogFile).size();
    daemon.process().signal(signum);
    const int status = daemon.process().wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    EXPECT_THAT(
        read_file(kLogFile).substr(log),
        ContainsRegex("\\[vistalprod_debug_backtrace_dump\\]\\[[0-9]+\\] .*\n.*\\]={26}\n.*\\]vistalprod\n"));
  }
}

// Limits and signal state are the daemon's own affair.
TEST(StartUp, ProgramsStartInTheOrdinaryState) {
  Daemon daemon;
  const std::string probe = "ulimit -Sn; grep -E 'Sig(Blk|Ign)' /proc/self/status";
  const std::string expected = [&] {
    Process shell("sh", {"-c", "(" + probe + ") > /tmp/probe"});
    EXPECT_EQ(shell.wait(), 0);
    return read_file("/tmp/probe");
  }();
  const std::string body =
      R"({"command":["/bin/sh","-c","ulimit -Sn; /bin/grep -E 'Sig(Blk|Ign)' /proc/self/status"]})";
  EXPECT_EQ(call(kMain, "exec_cli", body).json()["result"].asString(), expected);
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
