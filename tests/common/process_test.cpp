// The process runner, on real programs.
#include "common/process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/guard.h"

namespace {

class ProcessTest : public GuardedTest {
 protected:
  const std::string in_ = in_dir("in");
  const std::string out_ = in_dir("out");
  const std::string err_ = in_dir("err");
};

TEST_F(ProcessTest, ConnectsStreamsAndReturnsTheRawStatus) {
  const struct {
    const char* script;
    int status;
    const char *out, *err;  // no text for errors: they go where the output goes
  } rows[] = {
      {"echo out; echo err >&2", 0, "out\n", "err\n"},
      {"echo out; echo err >&2; echo out", 0, "out\nerr\nout\n", nullptr},
      {"echo partly; kill -9 $$", SIGKILL, "partly\n", ""},
  };
  for (const auto& row : rows) {
    write_file(out_, "older and longer than anything printed");
    const std::string& err = row.err != nullptr ? err_ : out_;
    EXPECT_EQ(exec_cmd_args(out_.c_str(), err.c_str(), nullptr, "/bin/sh", "-c", row.script, nullptr), row.status);
    EXPECT_EQ(read_file(out_), row.out);
    EXPECT_EQ(read_file(err), row.err != nullptr ? row.err : row.out);
  }
}

TEST_F(ProcessTest, AFailedStartIsTracedAndItsFilesAreRemoved) {
  const std::string trace = in_dir("trace");
  const std::string bad = in_dir("missing/file");
  const struct {
    std::string input, output, error;
    int status;
    std::string diagnosis;
  } rows[] = {
      {in_, out_, err_, W_EXITCODE(127, 0), ""},
      {in_, out_, out_, W_EXITCODE(127, 0), "pipe stdout and stderr to the same file " + out_ + "\n"},
      {in_, out_, bad, -1, "open " + bad + " failed: -1\n"},
      {bad, out_, err_, -1, "open " + bad + " failed\n"},
  };
  write_file(in_, "input\n");
  for (const auto& row : rows) {
    EXPECT_EQ(exec_cmd_stdio_args(row.input.c_str(), row.output.c_str(), row.error.c_str(), trace.c_str(),
                                  "/no/such/program", nullptr),
              row.status);
    EXPECT_EQ(read_file(trace), "cmd=/no/such/program\nstdin_file=" + row.input + "\nstdout_file=" + row.output +
                                    "\nstderr_file=" + row.error + "\n" + row.diagnosis);
    EXPECT_EQ(std::filesystem::exists(out_), row.status != -1);
    for (const std::string& file : {out_, err_, trace}) std::filesystem::remove(file);
  }
}

TEST_F(ProcessTest, APipeReadsOrWritesAProgram) {
  write_file(in_, "input\n");
  FILE* stream = popen_cmd_args(in_.c_str(), out_.c_str(), err_.c_str(), "r", "/bin/sh", "-c",
                                "cat; echo err >&2; exit 5", nullptr);
  char text[16] = {};
  EXPECT_EQ(std::fread(text, 1, sizeof(text), stream), 6u);
  EXPECT_STREQ(text, "input\n");
  EXPECT_EQ(pclose_cmd(stream), W_EXITCODE(5, 0));
  EXPECT_EQ(read_file(err_), "err\n");
  EXPECT_FALSE(std::filesystem::exists(out_));

  // Closed early, the writer gets SIGPIPE however the daemon treats it.
  const auto before = std::signal(SIGPIPE, SIG_IGN);
  stream = popen_cmd_args(nullptr, nullptr, nullptr, "r", "/usr/bin/yes", nullptr);
  EXPECT_EQ(std::fgetc(stream), 'y');
  EXPECT_EQ(pclose_cmd(stream), SIGPIPE);
  std::signal(SIGPIPE, before);

  EXPECT_EQ(popen_cmd_args("/no/such/input", nullptr, nullptr, "r", "/bin/true", nullptr), nullptr);
}

TEST_F(ProcessTest, ASignalDoesNotEndTheWaitForAProgram) {
  struct sigaction action {};  // without SA_RESTART
  action.sa_handler = [](int) {};
  sigaction(SIGUSR2, &action, nullptr);
  const std::jthread interrupter([self = pthread_self()](const std::stop_token& done) {
    while (!done.stop_requested()) pthread_kill(self, SIGUSR2);
  });
  EXPECT_EQ(exec_cmd_args(nullptr, nullptr, nullptr, "/bin/sh", "-c", "sleep 0.1; exit 5", nullptr), W_EXITCODE(5, 0));
}

// It would run in the memory that the starting program shares with its parent.
TEST_F(ProcessTest, NoSignalHandlerOfOursRunsInAStartingProgram) {
  const ChildOutcome outcome = in_child([] {
    setpgid(0, 0);
    static const pid_t self = getpid();
    static std::atomic<bool> strayed{false};
    std::signal(SIGUSR2, [](int) {
      if (getpid() != self) strayed = true;
    });
    const std::jthread interrupter([](const std::stop_token& done) {
      while (!done.stop_requested()) kill(0, SIGUSR2);
    });
    for (int i = 0; i < 200; ++i) exec_cmd_args(nullptr, nullptr, nullptr, "/bin/true", nullptr);
    if (strayed) _exit(1);
  });
  EXPECT_EQ(outcome.status, 0) << outcome.error;
}

// If a program inherited another program's pipe, that pipe's reader would wait for ever.
TEST_F(ProcessTest, KeepsConcurrentPipesApart) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([path = in_dir(std::to_string(i))] {
      for (int round = 0; round < 25; ++round) {
        FILE* const first = popen_cmd_args(nullptr, path.c_str(), nullptr, "w", "/bin/cat", nullptr);
        FILE* const second = popen_cmd_args(nullptr, nullptr, nullptr, "w", "/bin/cat", nullptr);
        std::fputs(path.c_str(), first);
        ASSERT_EQ(pclose_cmd(first), 0);
        ASSERT_EQ(read_file(path), path);
        ASSERT_EQ(pclose_cmd(second), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// With standard streams closed, the daemon gets their numbers for the files of the call, in the wrong order
// or the right one.
TEST_F(ProcessTest, ClosedStandardStreamsDoNotMixUpFilesAndLibraryPathIsNotInherited) {
  write_file(in_, "input\n");
  for (const auto& closed : {std::vector{0, 1, 2}, std::vector{1, 2}}) {
    for (const std::string& file : {out_, err_}) std::filesystem::remove(file);  // which takes a number to look at
    const ChildOutcome outcome = in_child([&] {
      for (const int fd : closed) close(fd);
      setenv("LD_LIBRARY_PATH", "/somewhere", 1);
      setenv("LD_LIBRARY_PATH_ELSE", "kept", 1);
      _exit(exec_cmd_stdio_args(in_.c_str(), out_.c_str(), err_.c_str(), nullptr, "/bin/sh", "-c",
                                "cat; echo $LD_LIBRARY_PATH$LD_LIBRARY_PATH_ELSE >&2", nullptr));
    });
    EXPECT_EQ(outcome.status, 0) << outcome.error;
    EXPECT_EQ(read_file(out_), "input\n");
    EXPECT_EQ(read_file(err_), "kept\n");
  }
}

}  // namespace
