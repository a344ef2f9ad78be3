// The process runner, on real programs.
#include "common/process.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <thread>
#include <vector>

#include "fixture.h"

namespace {

class ProcessTest : public CommonTest {
 protected:
  const std::string out_ = in_dir("out");
  const std::string err_ = in_dir("err");
  const std::string trace_ = in_dir("trace");

  // What a shell script prints that runs with the daemon's environment.
  std::string shell(const std::string& script) const {
    const char* const args[] = {"sh", "-c", script.c_str(), nullptr};
    EXPECT_EQ(
        exec_cmd_stdio(nullptr, out_.c_str(), nullptr, nullptr, "/bin/sh", const_cast<char* const*>(args)),
        0);
    return contents(out_);
  }

  static std::string read_all(FILE* stream) {
    std::string text;
    for (int c; (c = std::fgetc(stream)) != EOF;) text += static_cast<char>(c);
    return text;
  }
};

constexpr int exited(int code) {
  return code << 8;
}

TEST_F(ProcessTest, ConnectsStreamsAndReturnsTheRawStatus) {
  enum Files { kNone, kOut, kErr, kBoth, kShared };
  const struct {
    const char* script;
    Files files;
    int status;
    const char *out, *err;
  } rows[] = {
      {"echo out; echo err >&2", kBoth, 0, "out\n", "err\n"},
      {"echo out; echo err >&2; echo out", kShared, 0, "out\nerr\nout\n", nullptr},
      {"echo out; echo err >&2", kOut, 0, "out\n", nullptr},
      {"echo out; echo err >&2", kErr, 0, nullptr, "err\n"},
      {"echo out; echo err >&2", kNone, 0, nullptr, nullptr},
      {"echo partly; exit 3", kOut, exited(3), "partly\n", nullptr},
      {"echo partly; kill -9 $$", kOut, SIGKILL, "partly\n", nullptr},
      {"exit 0", kBoth, 0, "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    // The old content shows that files are emptied.
    if (row.out != nullptr) write_file(out_, "older and longer than anything printed");
    const char* const out = row.files == kNone || row.files == kErr ? nullptr : out_.c_str();
    const char* const err = row.files == kShared ? out_.c_str() : row.err != nullptr ? err_.c_str() : nullptr;
    EXPECT_EQ(exec_cmd_args(out, err, nullptr, "/bin/sh", "-c", row.script, nullptr), row.status);
    EXPECT_EQ(exists(out_), row.out != nullptr);
    EXPECT_EQ(exists(err_), row.err != nullptr);
    EXPECT_EQ(contents(out_), row.out != nullptr ? row.out : "");
    EXPECT_EQ(contents(err_), row.err != nullptr ? row.err : "");
    std::filesystem::remove(out_);
    std::filesystem::remove(err_);
  }
}

TEST_F(ProcessTest, NamesAndEnvironmentsAsEachFormSays) {
  setenv("LD_LIBRARY_PATH", "/somewhere", 1);
  setenv("LD_LIBRARY_PATH_ELSE", "kept", 1);
  EXPECT_EQ(exec_cmd_args(out_.c_str(), nullptr, nullptr, "/usr/bin/env", nullptr), 0);
  EXPECT_EQ(contents(out_), "");
  EXPECT_EQ(exec_cmd_stdio_args(nullptr, out_.c_str(), nullptr, nullptr, "/usr/bin/env", nullptr), 0);
  const std::string inherited = "\n" + contents(out_);
  EXPECT_THAT(inherited, ::testing::HasSubstr("\nLD_LIBRARY_PATH_ELSE=kept\n"));
  EXPECT_THAT(inherited, ::testing::Not(::testing::HasSubstr("\nLD_LIBRARY_PATH=")));
  FILE* const stream = popen_cmd_args(nullptr, nullptr, nullptr, "r", "/usr/bin/env", nullptr);
  EXPECT_EQ("\n" + read_all(stream), inherited);
  EXPECT_EQ(pclose_cmd(stream), 0);
  unsetenv("LD_LIBRARY_PATH");
  unsetenv("LD_LIBRARY_PATH_ELSE");

  const std::string here = std::filesystem::current_path();
  std::filesystem::current_path("/bin");
  const char* const vector[] = {"usr/bin/any name", "-c", "echo $0", nullptr};
  EXPECT_EQ(exec_cmd(out_.c_str(), nullptr, nullptr, "/bin/sh", const_cast<char* const*>(vector)), 0);
  EXPECT_EQ(contents(out_), "usr/bin/any name\n");
  const char kEcho[] = "tr '\\0' ' ' < /proc/$$/cmdline";
  EXPECT_EQ(exec_cmd_args(out_.c_str(), nullptr, nullptr, "/bin/sh", "-c", kEcho, "a b", "", nullptr), 0);
  EXPECT_EQ(contents(out_), std::string("sh -c ") + kEcho + " a b  ");
  EXPECT_EQ(exec_cmd_args(out_.c_str(), nullptr, nullptr, "sh", "-c", "echo $0", nullptr), 0);
  EXPECT_EQ(contents(out_), "sh\n");
  std::filesystem::current_path(here);
}

TEST_F(ProcessTest, CleansUpAndTracesWhatCannotBeStarted) {
  const std::string in = in_dir("in");
  const std::string bad = in_dir("missing/file");
  const std::string null = "(null)";
  const struct {
    std::string input, output, error, program;  // "(null)" stands for a null pointer
    int status;
    std::string diagnosis;
    bool outputs_left;
  } rows[] = {
      {in, out_, err_, "/bin/cat", 0, "", true},
      {null, out_, err_, "/no/such/program", exited(127), "", true},
      {null, out_, out_, "/bin/true", 0, "pipe stdout and stderr to the same file " + out_ + "\n", true},
      {null, bad, err_, "/bin/true", -1, "open " + bad + " failed: -1\n", false},
      {null, out_, bad, "/bin/true", -1, "open " + bad + " failed: -1\n", false},
      {bad, out_, err_, "/bin/true", -1, "open " + bad + " failed\n", false},
      {bad, null, null, "/bin/true", -1, "open " + bad + " failed\n", false},
  };
  write_file(in, "input\n");
  const auto path = [&null](const std::string& text) { return text == null ? nullptr : text.c_str(); };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.input + " " + row.output + " " + row.error + " " + row.program);
    EXPECT_EQ(exec_cmd_stdio_args(path(row.input), path(row.output), path(row.error), trace_.c_str(),
                                  row.program.c_str(), nullptr),
              row.status);
    EXPECT_EQ(contents(trace_), "cmd=" + row.program + "\nstdin_file=" + row.input + "\nstdout_file=" +
                                    row.output + "\nstderr_file=" + row.error + "\n" + row.diagnosis);
    EXPECT_EQ(exists(out_), row.outputs_left);
    EXPECT_EQ(exists(err_), row.outputs_left && row.error == err_);
    for (const std::string& file : {out_, err_, trace_}) std::filesystem::remove(file);
  }
  // Without an input file there is no line for it; each call adds to the account; one that cannot be kept is
  // no error.
  write_file(trace_, "before\n");
  EXPECT_EQ(exec_cmd_args(nullptr, nullptr, trace_.c_str(), "/bin/true", nullptr), 0);
  EXPECT_EQ(contents(trace_), "before\ncmd=/bin/true\nstdout_file=(null)\nstderr_file=(null)\n");
  EXPECT_EQ(exec_cmd_args(nullptr, nullptr, bad.c_str(), "/bin/true", nullptr), 0);
}

TEST_F(ProcessTest, PipesBothWays) {
  const std::string in = in_dir("in");
  write_file(in, "input\n");
  FILE* stream = popen_cmd_args(in.c_str(), out_.c_str(), err_.c_str(), "r", "/bin/sh", "-c",
                                "cat; echo err >&2; exit 5", nullptr);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(read_all(stream), "input\n");
  EXPECT_EQ(pclose_cmd(stream), exited(5));
  EXPECT_EQ(contents(err_), "err\n");
  EXPECT_FALSE(exists(out_));

  stream = popen_cmd_args("/no/such/input", out_.c_str(), out_.c_str(), "w", "/bin/sh", "-c",
                          "cat; echo err >&2", nullptr);
  ASSERT_NE(stream, nullptr);
  std::fputs("written\n", stream);
  EXPECT_EQ(pclose_cmd(stream), 0);
  EXPECT_EQ(contents(out_), "written\nerr\n");

  // Closed early, the writer gets SIGPIPE however the daemon treats it.
  stream = popen_cmd_args(nullptr, nullptr, nullptr, "r", "/usr/bin/yes", nullptr);
  EXPECT_EQ(std::fgetc(stream), 'y');
  EXPECT_EQ(pclose_cmd(stream), SIGPIPE);

  stream = popen_cmd_args(nullptr, nullptr, nullptr, "r", "/no/such/program", nullptr);
  EXPECT_EQ(read_all(stream), "");
  EXPECT_EQ(pclose_cmd(stream), exited(127));
}

TEST_F(ProcessTest, RefusesModesMissingFilesAndForeignStreams) {
  for (const char* mode : {"", "rw", "r+", "a", "re"}) {
    errno = 0;
    EXPECT_EQ(popen_cmd_args(nullptr, nullptr, nullptr, mode, "/bin/true", nullptr), nullptr) << mode;
    EXPECT_EQ(errno, EINVAL) << mode;
  }
  EXPECT_EQ(popen_cmd_args("/no/such/input", nullptr, nullptr, "r", "/bin/true", nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(popen_cmd_args(nullptr, "/no/such/output", nullptr, "w", "/bin/true", nullptr), nullptr);
  EXPECT_EQ(popen_cmd_args(nullptr, nullptr, "/no/such/error", "w", "/bin/true", nullptr), nullptr);
  FILE* const foreign = std::fopen(out_.c_str(), "w");
  EXPECT_EQ(pclose_cmd(foreign), -1);
  EXPECT_EQ(std::fputs("still open", foreign), 1);
  EXPECT_EQ(std::fclose(foreign), 0);
}

// Each program ends when its own stream is closed, in any order: none holds another's pipe. The runner's time
// limit is the judge.
TEST_F(ProcessTest, KeepsConcurrentPipesApart) {
  const std::string before = shell("ls /proc/self/fd");
  std::vector<FILE*> streams;
  for (int i = 0; i < 3; ++i) {
    streams.push_back(popen_cmd_args(nullptr, nullptr, nullptr, "w", "/bin/cat", nullptr));
  }
  EXPECT_EQ(shell("ls /proc/self/fd"), before);
  for (FILE* stream : {streams[1], streams[0], streams[2]}) EXPECT_EQ(pclose_cmd(stream), 0);

  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([path = in_dir(std::to_string(i))] {
      for (int round = 0; round < 25; ++round) {
        const std::string text = path + std::to_string(round);
        FILE* const stream = popen_cmd_args(nullptr, path.c_str(), nullptr, "w", "/bin/cat", nullptr);
        ASSERT_NE(stream, nullptr);
        std::fputs(text.c_str(), stream);
        ASSERT_EQ(pclose_cmd(stream), 0);
        ASSERT_EQ(contents(path), text);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(ProcessTest, StartsProgramsInTheOrdinaryState) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit restored = limit;
  limit.rlim_cur = 128;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  raise_descriptor_limit(200);
  raise_descriptor_limit(150);
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(limit.rlim_cur, 200u);

  const auto old_pipe = std::signal(SIGPIPE, SIG_IGN);
  sigset_t all;
  sigset_t old_mask;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old_mask);
  std::istringstream seen(shell("ulimit -n; sed -n 's/^Sig\\(Blk\\|Ign\\):.//p' /proc/self/status"));
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &old_mask, &after);
  std::signal(SIGPIPE, old_pipe);
  setrlimit(RLIMIT_NOFILE, &restored);

  unsigned long descriptors = 0;
  unsigned long blocked = 1;
  unsigned long ignored = ~0ul;
  seen >> descriptors >> std::hex >> blocked >> ignored;
  EXPECT_EQ(descriptors, 128u);
  EXPECT_EQ(blocked, 0u);
  EXPECT_EQ(ignored & 1ul << (SIGPIPE - 1), 0u);
  EXPECT_EQ(sigismember(&after, SIGTERM), 1) << "the caller's mask was changed";
}

TEST_F(ProcessTest, WaitsThroughSignals) {
  struct sigaction interrupts {};
  struct sigaction old {};
  interrupts.sa_handler = [](int) {};
  sigaction(SIGUSR1, &interrupts, &old);
  EXPECT_EQ(exec_cmd_args(nullptr, nullptr, nullptr, "/bin/sh", "-c",
                          "i=0; while [ $i -lt 200 ]; do kill -USR1 $PPID; i=$((i+1)); done", nullptr),
            0);
  sigaction(SIGUSR1, &old, nullptr);
}

using ProcessDeathTest = ProcessTest;

// With standard streams closed, the daemon gets their numbers for the files of the call, in the wrong order
// or the right one.
TEST_F(ProcessDeathTest, SortsOutLowDescriptors) {
  const std::string in = in_dir("in");
  write_file(in, "input\n");
  const auto run_without = [&](const std::vector<int>& closed) {
    for (const int fd : closed) close(fd);
    _exit(exec_cmd_stdio_args(in.c_str(), out_.c_str(), err_.c_str(), nullptr, "/bin/sh", "-c",
                              "cat; echo err >&2", nullptr));
  };
  for (const auto& closed : {std::vector{0, 1, 2}, std::vector{1, 2}, std::vector{0}}) {
    EXPECT_EXIT(run_without(closed), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(contents(out_), "input\n");
    EXPECT_EQ(contents(err_), "err\n");
    write_file(out_, "");
    write_file(err_, "");
  }
}

TEST_F(ProcessDeathTest, TakesNoProcessForSuccess) {
  const auto run = [] {
    const rlimit none{};
    setrlimit(RLIMIT_NPROC, &none);
    if (getuid() == 0 && setuid(65534) != 0) _exit(9);  // the limit does not hold for root
    const int status = exec_cmd_args(nullptr, nullptr, nullptr, "/bin/false", nullptr);
    FILE* const stream = popen_cmd_args(nullptr, nullptr, nullptr, "r", "/bin/true", nullptr);
    _exit(status == 0 && stream == nullptr && errno == EAGAIN ? 0 : 1);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
