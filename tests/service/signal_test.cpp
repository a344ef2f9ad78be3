// Signals, the crash report and the list of blocked programs.
#include <fcntl.h>
#include <regex.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <sstream>

#include "harness.h"

namespace {

volatile sig_atomic_t last_signal = 0;
void note(int signum) {
  last_signal = signum;
}

class SignalTest : public GuardedTest {};

TEST_F(SignalTest, HandlersAreReachedThroughTheTableUntilRemoved) {
  for (const int signum : {SIGHUP, SIGUSR1, SIGSYS}) {
    ks_signal(signum, note);
    raise(signum);
    EXPECT_EQ(last_signal, signum);
    ks_signal(signum, nullptr);
    struct sigaction now {};
    sigaction(signum, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
    last_signal = 0;
    ks_sig_dispatch(signum);  // as if it had been on its way when the slot was cleared
    EXPECT_EQ(last_signal, 0);
  }
}

// Runs `body` where `file` stands in for the kernel's log.
ChildOutcome with_kernel_log(const std::string& file, const std::function<void()>& body) {
  return in_child([&] {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 && unshare(CLONE_NEWNS) != 0) _exit(77);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
    if (mount(file.c_str(), "/dev/kmsg", nullptr, MS_BIND, nullptr) != 0) _exit(77);
    body();
  });
}

TEST_F(SignalTest, ACrashIsReportedAndEndsTheProcess) {
  const std::string log = in_dir("kmsg");
  constexpr struct {
    int signum;
    const char* name;
  } kRows[] = {{SIGSEGV, "Segmentation fault"},
               {SIGABRT, "Aborted"},
               {SIGBUS, "Bus error"},
               {SIGFPE, "Floating point exception"}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const Fd file(open(log.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
    const ChildOutcome outcome = with_kernel_log(log, [&] {
      ks_signal(SIGUSR1, note);
      ks_signal(SIGSEGV, note);  // is replaced
      ks_crash_install();
      raise(SIGUSR1);  // still handled, this once
      struct sigaction now {};
      sigaction(SIGUSR1, nullptr, &now);
      if (last_signal == SIGUSR1 && now.sa_handler == SIG_DFL) raise(row.signum);
    });
    ASSERT_NE(WEXITSTATUS(outcome.status), 77)
        << "needs a mount namespace, so as not to write to the real log";
    EXPECT_EQ(outcome.status, 1 << 8);
    EXPECT_EQ(outcome.error, std::string(row.name) + "\n");
    std::istringstream report(content_of(file));
    std::string line;
    std::getline(report, line);
    EXPECT_THAT(line, testing::MatchesRegex(std::string(row.name) + " \\(pid [0-9]+\\) .*ks_test:"));
    int frames = 0;
    while (std::getline(report, line)) {
      ++frames;
      EXPECT_EQ(line.rfind((frames < 10 ? " " : "") + std::to_string(frames) + ". ", 0), 0u) << line;
    }
    EXPECT_GT(frames, 1);
  }
}

TEST_F(SignalTest, ACrashWithoutAKernelLogEndsTheSameWay) {
  const ChildOutcome outcome = in_child([] {
    const rlimit none{.rlim_cur = 0, .rlim_max = 0};
    ks_crash_install();
    setrlimit(RLIMIT_NOFILE, &none);
    raise(SIGSEGV);
  });
  EXPECT_EQ(outcome.status, 1 << 8);
  EXPECT_EQ(outcome.error, "Segmentation fault\n");
}

TEST(BlockedPrograms, AreShellsAndInterpretersAtTheEndOfAPath) {
  regex_t list;
  ASSERT_EQ(regcomp(&list, BLOCKED_PROGRAM_LIST, REG_EXTENDED), 0);
  for (const char* blocked :
       {"/bin/sh", "sh", "bash", "/usr/bin/python3.11", "python", "/opt/my-php", "busybox"}) {
    EXPECT_EQ(regexec(&list, blocked, 0, nullptr, 0), 0) << blocked;
  }
  for (const char* allowed : {"shell", "/bin/shx", "/bin/sh -c", "xbash", "/usr/bin/perl", "cpython", ""}) {
    EXPECT_EQ(regexec(&list, allowed, 0, nullptr, 0), REG_NOMATCH) << allowed;
  }
  regfree(&list);
}

}  // namespace
