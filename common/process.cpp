// All seven calls use one mechanism in four steps; a row or a parameter holds the differences.
//
//   1. open    the files and the pipe, as owned descriptors (Streams). On any failure the owners close them.
//   2. prepare argument vector and environment, in the parent. The daemon has many threads, and one of them
//              may hold the allocator's lock: a child that allocates could hang for ever.
//   3. start   vfork: the child borrows the parent's memory and stack, and the calling thread is suspended until
//              the child executes its program or ends. No page table is copied, so the cost of a start does not
//              depend on the daemon's size, and other threads get no page faults from it. But what the child
//              writes to memory, the parent sees. So the child reads a ChildPlan, writes only to its own stack
//              frames, and makes only async-signal-safe calls: streams, signals, descriptor limit, execve, and
//              _exit(127) if that returns. Its descriptors and signal settings are its own.
//   4. finish  the parent's owners close its copies; it waits (exec) or puts the stream on the list (popen).
//
// Every descriptor made here is created close-on-exec, including pipe ends and input files; dup2 in the child makes the
// only copy that survives. A program that another thread starts at the same moment therefore inherits none of them: it
// cannot keep a pipe open, and no child needs to walk the list of open pipes.
//
// The list of open pipes is the only state shared between calls. Its mutex is held only while a node is linked or
// unlinked, never during a start or a wait.
#include "common/process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "common/activity.h"
#include "common/guarded_open.h"
#include "common/unique_fd.h"

namespace {

enum class Environment { empty, inherited };

// The differences between the two exec families.
struct ExecFamily {
  Environment environment;
  bool traces_input;
};
constexpr ExecFamily kExecCmd = {.environment = Environment::empty, .traces_input = false};
constexpr ExecFamily kExecCmdStdio = {.environment = Environment::inherited, .traces_input = true};

constexpr char kNull[] = "/dev/null";
constexpr char kLibraryPath[] = "LD_LIBRARY_PATH=";
constexpr int kCannotExecute = 127;  // the exit status for a program that cannot be run, as in shells

// A stream of popen_cmd and its program. The list uses plain pointers, because threads may still use it while static
// objects are being destroyed.
struct OpenPipe {
  explicit OpenPipe(const char* path) : run(path) {}
  OpenPipe* next = nullptr;
  FILE* stream = nullptr;
  pid_t pid = 0;
  ProgramRun run;
};
std::mutex g_open_pipes_mutex;
OpenPipe* g_open_pipes = nullptr;  // latest first

// The state that the daemon was started with, for programs and libraries; null until remember_start.
struct Start {
  sigset_t signals;
  rlimit descriptors;
};
std::atomic<const Start*> g_start{nullptr};

// The number of threads that need the original descriptor limit, and the limit to restore after the last one.
struct Lowered {
  std::mutex mutex;
  int users = 0;
  rlimit raised{};
};
Lowered g_lowered;

// ---- The child ----------------------------------------------------------------------------------------

// Everything the child needs; it is in the parent's frame.
struct ChildPlan {
  const char* path;
  char* const* argv;
  char* const* environment;
  int streams[3];       // these become descriptors 0, 1 and 2; -1: inherit
  const rlimit* limit;  // null: keep the daemon's
};

bool place_streams(const ChildPlan& plan) {
  int sources[3];
  for (int target = 0; target < 3; ++target) {
    const int source = plan.streams[target];
    // If the daemon has no standard streams, its files may have descriptors 0 to 2. Move such a source before another
    // stream takes its number.
    const bool in_the_way = source >= 0 && source < 3 && source != target;
    sources[target] = in_the_way ? fcntl(source, F_DUPFD_CLOEXEC, 3) : source;
    if (in_the_way && sources[target] < 0) return false;
  }
  for (int target = 0; target < 3; ++target) {
    const int source = sources[target];
    if (source < 0) continue;
    // dup2 onto itself would leave close-on-exec set.
    const int result = source == target ? fcntl(target, F_SETFD, 0) : dup2(source, target);
    if (result < 0) return false;
  }
  return true;
}

// Called with every signal blocked, so that none of the daemon's handlers can run in the child. Signals that were
// ignored at start (nohup) stay ignored, except SIGPIPE, which the daemon itself ignores.
void reset_signals() {
  struct sigaction ordinary {};
  ordinary.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current {};
    if (sigaction(signal, nullptr, &current) != 0) continue;
    const bool stays = current.sa_handler == SIG_DFL || (current.sa_handler == SIG_IGN && signal != SIGPIPE);
    if (!stays) sigaction(signal, &ordinary, nullptr);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Not inlined: its stack frame must be below everything that the parent still uses.
[[noreturn, gnu::noinline]] void become_program(const ChildPlan& plan) {
  if (!place_streams(plan)) _exit(kCannotExecute);
  reset_signals();
  if (plan.limit != nullptr) setrlimit(RLIMIT_NOFILE, plan.limit);  // a plain system call, safe here
  execve(plan.path, plan.argv, plan.environment);
  _exit(kCannotExecute);
}

// ---- The parent ---------------------------------------------------------------------------------------

std::vector<char*> make_environment(Environment policy) {
  std::vector<char*> environment;
  if (policy == Environment::inherited) {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      if (std::strncmp(*entry, kLibraryPath, sizeof kLibraryPath - 1) != 0) environment.push_back(*entry);
    }
  }
  environment.push_back(nullptr);
  return environment;
}

// The vector of an _args call. The cast is safe: execve does not change the texts.
std::vector<char*> make_arguments(const char* path, va_list rest) {
  const char* const slash = std::strrchr(path, '/');
  std::vector<char*> arguments = {const_cast<char*>(slash != nullptr ? slash + 1 : path)};
  do {
    arguments.push_back(va_arg(rest, char*));
  } while (arguments.back() != nullptr);
  return arguments;
}

// The program's standard streams; an empty one is inherited.
struct Streams {
  UniqueFd input, output, error;
};

UniqueFd open_output(const char* path) {
  if (path == nullptr) return UniqueFd(open(kNull, O_WRONLY | O_CLOEXEC));
  return open_output_file(path, 0774);
}

// Both streams use one open file; with two, each would overwrite the other's output.
UniqueFd share(const UniqueFd& output) {
  return UniqueFd(fcntl(output.get(), F_DUPFD_CLOEXEC, 0));
}

bool same_file(const char* output, const char* error) {
  return output != nullptr && error != nullptr && std::strcmp(output, error) == 0;
}

// Makes the child. Every signal must be blocked: a handler must not run in a child that has the parent's memory. A
// separate function, so that the child cannot change values that the caller keeps in registers.
[[gnu::noinline]] pid_t make_child(const ChildPlan& plan) {
  const pid_t pid = vfork();           // NOLINT(clang-analyzer-security.insecureAPI.vfork): see step 3 above
  if (pid == 0) become_program(plan);  // NOLINT(clang-analyzer-unix.Vfork): likewise
  return pid;
}

// Returns the child's pid, or -1 with errno set.
pid_t start(const char* path, char* const argv[], Environment policy, const Streams& streams) {
  const std::vector<char*> environment = make_environment(policy);
  const Start* const begin = g_start.load();
  const ChildPlan plan = {.path = path,
                          .argv = argv,
                          .environment = environment.data(),
                          .streams = {streams.input.get(), streams.output.get(), streams.error.get()},
                          .limit = begin != nullptr ? &begin->descriptors : nullptr};
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t pid = make_child(plan);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return pid;
}

// The raw wait status, or -1. Signals that interrupt the wait are ignored.
int wait_for(pid_t pid) {
  int status = 0;
  pid_t result;
  do {
    result = waitpid(pid, &status, 0);
  } while (result < 0 && errno == EINTR);
  return result < 0 ? -1 : status;
}

// ---- exec: run and wait -------------------------------------------------------------------------------

// Writes a report of one call to a file. Does nothing without a file, or if it cannot be written.
class Trace {
 public:
  explicit Trace(const char* path) : file_(path != nullptr ? std::fopen(path, "a+e") : nullptr) {}

  __attribute__((format(printf, 2, 3))) void write(const char* fmt, ...) const {
    if (!file_) return;
    va_list arguments;
    va_start(arguments, fmt);
    std::vfprintf(file_.get(), fmt, arguments);
    va_end(arguments);
    std::fflush(file_.get());
  }

 private:
  const UniqueStream file_;
};

const char* shown(const char* path) {
  return path != nullptr ? path : "(null)";
}

void remove_outputs(const char* output, const char* error) {
  for (const char* path : {output, error}) {
    if (path != nullptr) unlink(path);
  }
}

bool open_streams(const char* input, const char* output, const char* error, const Trace& trace, Streams* streams) {
  streams->output = open_output(output);
  if (!streams->output) {
    trace.write("open %s failed: %d\n", shown(output), streams->output.get());
    return false;
  }
  const bool shared = same_file(output, error);
  streams->error = shared ? share(streams->output) : open_output(error);
  if (!streams->error) {
    trace.write("open %s failed: %d\n", shown(error), streams->error.get());
    remove_outputs(output, error);
    return false;
  }
  if (shared) trace.write("pipe stdout and stderr to the same file %s\n", output);
  if (input == nullptr) return true;
  streams->input = open_input_file(input);
  if (!streams->input) {
    trace.write("open %s failed\n", input);
    remove_outputs(output, error);
    return false;
  }
  return true;
}

int run(const ExecFamily& family, const char* input, const char* output, const char* error, const char* trace_path,
        const char* path, char* const argv[]) {
  ProgramRun program(path);
  Streams streams;
  {
    const Trace trace(trace_path);
    trace.write("cmd=%s\n", shown(path));
    if (family.traces_input) trace.write("stdin_file=%s\n", shown(input));
    trace.write("stdout_file=%s\n", shown(output));
    trace.write("stderr_file=%s\n", shown(error));
    if (!open_streams(input, output, error, trace, &streams)) return -1;
  }
  const pid_t pid = start(path, argv, family.environment, streams);
  // Callers have always got 0 when no process can be created; their replies depend on it.
  if (pid < 0) return 0;
  program.started(pid);
  return program.ended(wait_for(pid));
}

}  // namespace

int exec_cmd(const char* output, const char* error, const char* trace, const char* path, char* const argv[]) {
  return run(kExecCmd, nullptr, output, error, trace, path, argv);
}

int exec_cmd_args(const char* output, const char* error, const char* trace, const char* path, ...) {
  va_list rest;
  va_start(rest, path);
  const std::vector<char*> arguments = make_arguments(path, rest);
  va_end(rest);
  return exec_cmd(output, error, trace, path, arguments.data());
}

int exec_cmd_stdio(const char* input, const char* output, const char* error, const char* trace, const char* path,
                   char* const argv[]) {
  return run(kExecCmdStdio, input, output, error, trace, path, argv);
}

int exec_cmd_stdio_args(const char* input, const char* output, const char* error, const char* trace, const char* path,
                        ...) {
  va_list rest;
  va_start(rest, path);
  const std::vector<char*> arguments = make_arguments(path, rest);
  va_end(rest);
  return exec_cmd_stdio(input, output, error, trace, path, arguments.data());
}

// ---- popen: run beside the caller ---------------------------------------------------------------------

FILE* popen_cmd(const char* input, const char* output, const char* error, const char* mode, const char* path,
                char* const argv[]) {
  const bool reads = mode != nullptr && std::strcmp(mode, "r") == 0;
  const bool writes = mode != nullptr && std::strcmp(mode, "w") == 0;
  if (!reads && !writes) {
    errno = EINVAL;
    return nullptr;
  }
  std::unique_ptr<OpenPipe> node(new (std::nothrow) OpenPipe(path));
  int ends[2];
  if (!node || pipe2(ends, O_CLOEXEC) != 0) return nullptr;
  UniqueFd ours(ends[reads ? 0 : 1]);
  UniqueFd theirs(ends[reads ? 1 : 0]);

  Streams streams;
  if (reads) {
    if (input != nullptr && !(streams.input = open_input_file(input))) return nullptr;
    streams.output = std::move(theirs);
  } else {
    streams.input = std::move(theirs);
    if (!(streams.output = open_output(output))) return nullptr;
  }
  streams.error = writes && same_file(output, error) ? share(streams.output) : open_output(error);
  if (!streams.error) return nullptr;

  // Before the start: after it no failure may leave the program without its stream.
  UniqueStream stream(fdopen(ours.get(), mode));
  if (!stream) return nullptr;
  ours.release();
  node->stream = stream.get();
  node->pid = start(path, argv, Environment::inherited, streams);
  if (node->pid < 0) return nullptr;
  node->run.started(node->pid);

  const std::lock_guard lock(g_open_pipes_mutex);
  node->next = g_open_pipes;
  g_open_pipes = node.release();
  return stream.release();
}

FILE* popen_cmd_args(const char* input, const char* output, const char* error, const char* mode, const char* path,
                     ...) {
  va_list rest;
  va_start(rest, path);
  const std::vector<char*> arguments = make_arguments(path, rest);
  va_end(rest);
  return popen_cmd(input, output, error, mode, path, arguments.data());
}

int pclose_cmd(FILE* stream) {
  std::unique_ptr<OpenPipe> node;
  {
    const std::lock_guard lock(g_open_pipes_mutex);
    OpenPipe** link = &g_open_pipes;
    while (*link != nullptr && (*link)->stream != stream) link = &(*link)->next;
    if (*link == nullptr) return -1;
    node.reset(*link);
    *link = node->next;
  }
  std::fclose(node->stream);
  return node->run.ended(wait_for(node->pid));
}

void remember_start() {
  static const Start start = [] {
    Start now{};
    pthread_sigmask(SIG_BLOCK, nullptr, &now.signals);
    getrlimit(RLIMIT_NOFILE, &now.descriptors);
    return now;
  }();
  g_start = &start;
}

void raise_descriptor_limit(unsigned long wanted) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const rlim_t target = std::min<rlim_t>(wanted, limit.rlim_max);
  if (limit.rlim_cur >= target) return;
  limit.rlim_cur = target;
  setrlimit(RLIMIT_NOFILE, &limit);
}

AsStarted::AsStarted() {
  const Start* const start = g_start;
  const sigset_t* const signals = start != nullptr ? &start->signals : nullptr;
  pthread_sigmask(SIG_SETMASK, signals, &before_);
  const std::lock_guard lock(g_lowered.mutex);
  if (g_lowered.users++ > 0 || start == nullptr) return;
  getrlimit(RLIMIT_NOFILE, &g_lowered.raised);
  rlimit limit = g_lowered.raised;
  limit.rlim_cur = std::min(limit.rlim_cur, start->descriptors.rlim_cur);
  setrlimit(RLIMIT_NOFILE, &limit);
}

AsStarted::~AsStarted() {
  {
    const std::lock_guard lock(g_lowered.mutex);
    if (--g_lowered.users == 0 && g_start != nullptr) setrlimit(RLIMIT_NOFILE, &g_lowered.raised);
  }
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}
