// The daemon's life cycle: start, options, refusals, crash, trace, and stops under load.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <future>
#include <sstream>
#include <thread>

#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "harness.h"

namespace {

using testing::ContainsRegex;

constexpr char kErrors[] = "/tmp/daemon.errors";
constexpr char kTraceFile[] = "/tmp/trace";

// The exit status of a command that ends by itself.
int run(const std::string& command) {
  const int status = Process(command + " 2>" + kErrors).wait();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(StartUp, TheCheckOptionStartsAndStopsAtOnce) {
  EXPECT_EQ(run("vistalprod -t -x -\x01"), 0);
  EXPECT_EQ(read_file(kErrors), "Illegal option:-x\nIllegal option:-#\n");
  EXPECT_NE(access(kMainSocket, F_OK), 0);
}

TEST(StartUp, ASecondInstanceIsRefusedUntilTheFirstHasEnded) {
  Daemon first;
  EXPECT_EQ(run("vistalprod"), 255);
  EXPECT_THAT(read_file(kLogFile), testing::EndsWith("] warning: re-entry.\n"));
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  kill(first.pid(), SIGTERM);
  siginfo_t end;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(first.pid()), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(run("vistalprod -t"), 0);
}

// In the foreground and in the background: exactly one continues.
TEST(StartUp, OfInstancesThatStartAtTheSameTimeOneServes) {
  if (emulated()) GTEST_SKIP() << "the emulator handles SIGTERM from the start, so all seem to run already";
  const std::string running = "vistalprod -x --runstates RSD";  // those that have ended are zombies of this test
  for (int i = 0; i < 10; ++i) {
    const std::string options = i % 2 == 0 ? "" : " -d";
    std::vector<std::unique_ptr<Process>> instances;
    for (int n = 0; n < 3; ++n) instances.push_back(std::make_unique<Process>("vistalprod" + options));
    ASSERT_TRUE(eventually([] { return call(kMain, "test").status == KS_STATUS_OK; })) << "none, round " << i;
    EXPECT_TRUE(eventually([&] { return run("test $(pgrep -c " + running + ") = 1") == 0; })) << "round " << i;
    // Until none is left: one that still waited for the others is the next to serve.
    ASSERT_TRUE(eventually([&] { return run("pkill -INT " + running) == 1; })) << "round " << i;
  }
}

TEST(StartUp, ACrashLeavesABacktraceAndEndsInSigkill) {
  Daemon daemon;
  const std::size_t log = read_file(kLogFile).size();
  kill(daemon.pid(), SIGSEGV);
  const int status = daemon.wait();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  EXPECT_THAT(read_file(kLogFile).substr(log),
              ContainsRegex("\\[vistalprod_debug_backtrace_dump\\]\\[[0-9]+\\] .*\n.*\\]={26}\n.*\\]vistalprod\n"));
}

// Programs that the daemon or a library starts do not get the daemon's own limits and signal state.
TEST(StartUp, ProgramsGetTheOriginalLimitAndSignals) {
  const std::string low = "ulimit -Sn 512; ";
  const Daemon daemon("sh -c '" + low + "exec vistalprod'");
  const StandIn library("/usr/lib/libuCore_config.so.0.0");
  const std::string limits = "/proc/" + std::to_string(daemon.pid()) + "/limits", before = read_file(limits);
  EXPECT_THAT(before, ContainsRegex("open files +4096 "));
  library.plays("delay 300\n");
  {
    const std::jthread other([] { call(kMain, "get_sms_config"); });
    call(kMain, "get_sms_config");
  }
  library.plays("program\n");
  EXPECT_EQ(call(kMain, "get_sms_config").json()["result"], 0);
  EXPECT_EQ(
      run("sh -c '" + low + "exec grep -hE \"SigBlk|open files\" /proc/self/status /proc/self/limits' >/tmp/probe"), 0);
  EXPECT_EQ(read_file("/tmp/stand_in/usr/lib/libuCore_config.so.0.0.program"), read_file("/tmp/probe"));
  EXPECT_EQ(read_file(limits), before) << "the daemon's own limit is lower than it was";
  const std::string probe = "ulimit -Sn; /bin/grep -E 'Sig(Blk|Ign)' /proc/self/status";
  EXPECT_EQ(run("sh -c \"" + low + probe + "\" >/tmp/probe"), 0);
  EXPECT_EQ(call(kMain, "exec_cli", R"({"command":["/bin/sh","-c",")" + probe + "\"]}").json()["result"],
            read_file("/tmp/probe"));
}

int queue_of(std::uint32_t key) {
  return msgget(static_cast<key_t>(key), 0);
}

// If there is no other user to change to, the queues are recognised by their mode.
TEST(StartUp, QueuesOfAnotherUserAreReplaced) {
  constexpr uid_t kOtherUser = 65534;
  const std::size_t log = read_file(kLogFile).size();
  for (const std::uint32_t key : {kEventQueueKey, kLogQueueKey}) msgctl(queue_of(key), IPC_RMID, nullptr);
  in_child([] {
    const bool other = setuid(kOtherUser) == 0;
    for (const std::uint32_t key : {kEventQueueKey, kLogQueueKey})
      msgget(static_cast<key_t>(key), IPC_CREAT | (other ? 0644 : 0666));
  });
  const Daemon daemon;
  for (const std::uint32_t key : {kEventQueueKey, kLogQueueKey}) {
    msqid_ds state{};
    EXPECT_EQ(msgctl(queue_of(key), IPC_STAT, &state), 0);
    EXPECT_EQ(state.msg_perm.cuid, geteuid());
    EXPECT_EQ(state.msg_perm.mode, 0644);
    EXPECT_THAT(read_file(kLogFile).substr(log), testing::HasSubstr("] queue " + std::to_string(key) + " of user "));
  }
}

// A client that was asked and is silent: it occupies a worker.
Peer silent_client() {
  Peer client{std::string(kMainSocket)};
  EXPECT_EQ(client.next(), KS_DIR_ASK);
  return client;
}

// Waiting clients leave descriptors for the daemon's own work.
TEST(Limits, ManyWaitingClientsDoNotStopEventsOrTheOtherService) {
  limit_descriptors(4096);
  Daemon daemon("prlimit --nofile=1024:1024 vistalprod");
  std::vector<Peer> flood;
  for (int i = 0; i < 1100; ++i) flood.emplace_back(kMainSocket);
  EXPECT_EQ(flood.back().next(), KS_DIR_BUSY);
  const std::size_t log = read_file(kLogFile).size();
  const LogMessage message{.type = kEventLogType, .event = {}, .connection = {}};
  EXPECT_EQ(msg_queue_send(kLogQueueKey, &message, kLogMessageSize), 0);
  EXPECT_TRUE(eventually([&] { return read_file(kLogFile).find("eventlog_handler fail", log) != std::string::npos; }));
  EXPECT_EQ(call(kMail, "test").status, KS_STATUS_OK);
  EXPECT_EQ(daemon.stop(), 0);
}

// The trace from the `from`th byte of the file on, without times, and without this client where it is named.
std::string traced(std::size_t from) {
  const std::string self = " client=" + std::to_string(getpid()) + " uid=" + std::to_string(getuid());
  std::istringstream lines(read_file(kTraceFile).substr(from));
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t ms = line.find(" ms=");
    if (ms != std::string::npos) line.erase(ms, line.find(" end=") - ms);
    if (const std::size_t who = line.find(self); who != std::string::npos) line.erase(who, self.size());
    text += line.substr(line.find(' ') + 1) + "\n";
  }
  return text;
}

// Lines are complete and contain no arguments, bodies or replies; programs do not inherit the variable.
TEST(Trace, RecordsTheEndOfRequestsAndProgramsWithoutTheirValues) {
  const StandIn login("/sbin/kcli"), hardware("/sbin/hwctl_app");
  hardware.plays("delay 300\n");
  login.plays("stdout a\\nsession id 5e55\\n\nsignal 9\n");
  const Daemon daemon("env VISTALPROD_TRACE=" + std::string(kTraceFile) + " vistalprod");
  EXPECT_THAT(traced(0), testing::StartsWith("program client=- uid=- command=- program=/sbin/rdconf end=exit 0\n"));
  const struct {
    const char *service, *command, *body;  // an empty body is that of a client that leaves meanwhile
    const char* program;                   // and its end, if one is run
    const char* end;
  } rows[] = {
      {kMain, "exec_cli", R"({"command":["/bin/true"]})", "/bin/true end=exit 0", "replied"},
      {kMain, "exec_cli", R"({"command":["/no\n","s3cret"]})", "/no? end=exit 127", "replied"},
      {kMain, "get_sess_id", R"({"user":"u","pwd":"s3cret"})", "/sbin/kcli end=signal 9", "replied"},
      {kMain, "get_sess_id", R"(["s3cret"])", "", "hung up: exception"},
      {kMain, "reverse_proxy", R"({"action":"s3cret"})", "", "hung up"},
      {kMain, "unknown\ncommand", "", "", "unknown command"},
      {kMain, "get_vpd_channel", "", "/sbin/hwctl_app end=exit 0", "client gone"},
  };
  for (const auto& row : rows) {
    std::string command = " command=" + std::string(row.command);
    std::replace(command.begin(), command.end(), '\n', '?');
    const std::string program = *row.program ? "program" + command + " program=" + row.program + "\n" : "";
    const std::string expected = program + "request" + command + " end=" + row.end + "\n";
    const std::size_t before = read_file(kTraceFile).size();
    if (*row.body != '\0') {
      call(row.service, row.command, row.body);
    } else {
      Peer leaving = silent_client();
      leaving.request(row.command).fds({memory_file("").get()});
      EXPECT_TRUE(eventually([&] { return !traced(before).empty() || !hardware.calls().empty(); }));
    }
    EXPECT_TRUE(eventually([&] { return traced(before) == expected; })) << expected << traced(before);
  }
  EXPECT_THAT(read_file("/tmp/stand_in/sbin/kcli.calls"),
              testing::AllOf(testing::HasSubstr("env PATH="), testing::Not(testing::HasSubstr("_TRACE="))));
}

TEST(Trace, AFileThatMakesItsOpenerWaitIsRefused) {
  const std::string fifo = "/tmp/trace.fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const UniqueFd reader(open(fifo.c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(run("env VISTALPROD_TRACE=" + fifo + " vistalprod -t"), 0);
  EXPECT_EQ(read_file(kErrors),
            "VISTALPROD_TRACE=" + fifo + ": not a regular file of this user, so there is no trace.\n");
}

void expect_nothing_left() {
  EXPECT_NE(access(kMainSocket, F_OK), 0);
  for (const std::uint32_t key : {kEventQueueKey, kLogQueueKey}) {
    EXPECT_EQ(queue_of(key), -1);
  }
}

// Each stop signal is sent twice, during requests of both services and while clients wait.
TEST(Stop, ABusyDaemonEndsWithItsMainRequestsAndHangsUpOnTheRest) {
  const StandIn script("/etc/init.d/vistalserver.sh");
  const StandIn mailer("/usr/sbin/sendmail");
  for (const int signal : {SIGTERM, SIGINT, SIGTERM, SIGINT, SIGTERM, SIGINT, SIGTERM, SIGINT}) {
    script.plays("delay 300\n");
    mailer.plays("delay 2000\n");  // outlives the daemon, and holds copies of its sockets meanwhile
    write_file("/tmp/vistalsurveillance_sendmail/m", "");
    Daemon daemon;
    std::vector<std::future<Reply>> answers;
    for (int i = 0; i < 7; ++i) {
      answers.push_back(std::async(std::launch::async, [i] {
        return i < 2 ? call(kMain, "system_call_share_folder_renew")
                     : call(kMail, "sendmail", R"({"user":"","pwd":"","config_file":"c","content_file":"m"})");
      }));
    }
    EXPECT_TRUE(eventually([&] { return script.calls().size() + mailer.calls().size() == 7; }));
    std::vector<Peer> waiting;
    for (int i = 0; i < 200; ++i) waiting.emplace_back(kMainSocket);
    kill(daemon.pid(), signal);
    ASSERT_EQ(daemon.stop(), 0);
    for (std::size_t i = 0; i < 7; ++i) EXPECT_EQ(answers[i].get().status, i < 2 ? KS_STATUS_OK : KS_STATUS_BROKEN);
    EXPECT_EQ(waiting.back().next(), 0) << "a client that waited is hung up on";
    expect_nothing_left();
  }
}

// The wait for announced descriptors is limited.
TEST(Stop, AnUnfinishedRequestDelaysAStopForAFewSecondsOnly) {
  Daemon daemon;
  Peer unfinished = silent_client();
  EXPECT_EQ(send(unfinished.request("test").fd(), "!", 1, MSG_OOB), 1);
  EXPECT_EQ(daemon.stop(), 0);
  expect_nothing_left();
}

// The notification service does not answer. Both queues go while their records are under way: the time limits of the
// two run beside each other, and no third record is begun.
TEST(Stop, ClosesBothQueuesBeforeItWaitsForTheirRecords) {
  constexpr char kNotifySocket[] = "/var/run/ks/99C31FE9.sock";
  Daemon daemon;
  const UniqueFd service = listen_at(kNotifySocket);
  std::vector<Peer> relays;
  const LogMessage message{.type = 1, .event = {}, .connection = {}};
  for (const auto& [key, size] : {std::pair(kEventQueueKey, kNotifyMessageSize), {kLogQueueKey, kLogMessageSize}}) {
    EXPECT_EQ(msg_queue_send(key, &message, size), 0);
    relays.emplace_back(accept4(service.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  kill(daemon.pid(), SIGTERM);
  EXPECT_TRUE(eventually([] { return queue_of(kLogQueueKey) == -1; }));
  EXPECT_FALSE(readable(relays.front().fd(), 0)) << "the event's time limit has run out before";
  relays.clear();
  EXPECT_EQ(daemon.wait(), 0);
  unlink(kNotifySocket);
}

}  // namespace
