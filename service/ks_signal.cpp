// Process-wide signal facilities. One table maps signal numbers to handlers; one dispatcher calls them all. The crash
// report and the list of blocked programs are for programs that want them; this daemon uses neither.

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <regex.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service/ks_internal.h"

namespace {

constexpr int kMaxFrames = 50;
// The frames of the report itself and of the signal trampoline.
constexpr int kOwnFrames = 2;

// Written during start-up, read by the thread that receives a signal.
std::array<std::atomic<ks_signal_fn>, MAX_SIGNAL_SIZE> g_signal_table{};

regex_t g_blocked_programs;

void set_action(int signum, void (*action)(int), int flags) {
  struct sigaction change {};
  sigemptyset(&change.sa_mask);
  change.sa_flags = flags;
  // The dispatcher takes only the number. Under SA_SIGINFO the kernel passes two more arguments, which it ignores.
  change.sa_handler = action;
  sigaction(signum, &change, nullptr);
}

// One frame a line, numbered from 1.
void print_frames(ks_io* report, char** symbols, int count) {
  for (int i = kOwnFrames; i < count && symbols[i] != nullptr; ++i) {
    ks_io_printf(report, "%2d. %s\n", i - kOwnFrames + 1, symbols[i]);
  }
}

void write_all(int fd, const char* data, std::uint64_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 1) return;
    data += written;
    size -= static_cast<std::uint64_t>(written);
  }
}

__attribute__((destructor)) void release_blocked_programs() {
  regfree(&g_blocked_programs);
}

}  // namespace

void ks_signal(int signum, ks_signal_fn handler) {
  if (signum <= 0 || signum >= MAX_SIGNAL_SIZE) {
    ks_abort("ks_signal", "signum > 0 && signum < MAX_SIGNAL_SIZE", "cannot handle signal number %d", signum);
  }
  g_signal_table[static_cast<std::size_t>(signum)] = handler;
  set_action(signum, handler != nullptr ? ks_sig_dispatch : SIG_DFL, SA_SIGINFO);
}

void ks_sig_dispatch(int signum) {
  if (signum <= 0 || signum >= MAX_SIGNAL_SIZE) return;
  const ks_signal_fn handler = g_signal_table[static_cast<std::size_t>(signum)];
  if (handler != nullptr) handler(signum);
}

void ks_crash_install(void) {
  for (const int signum : {SIGABRT, SIGBUS, SIGFPE, SIGSEGV}) {
    g_signal_table[static_cast<std::size_t>(signum)] = ks_crash_report;
  }
  for (int signum = 1; signum < MAX_SIGNAL_SIZE; ++signum) {
    if (signum == SIGKILL || signum == SIGSTOP) continue;
    if (g_signal_table[static_cast<std::size_t>(signum)] == nullptr) continue;
    set_action(signum, ks_sig_dispatch, static_cast<int>(SA_SIGINFO | SA_RESETHAND));
  }
}

// Allocates and uses standard I/O in a signal handler, which is acceptable because the process is about to end.
void ks_crash_report(int signum) {
  std::signal(SIGABRT, [](int) { _exit(1); });  // an abort inside the report ends the same way
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the process is about to end
  const char* const name = strsignal(signum);
  std::fprintf(stderr, "%s\n", name);
  const int kernel_log = open("/dev/kmsg", O_WRONLY);
  if (kernel_log < 0) _exit(1);
  void* addresses[kMaxFrames];
  const int count = backtrace(addresses, kMaxFrames);
  char** symbols = count > 1 ? backtrace_symbols(addresses, count) : nullptr;
  if (symbols == nullptr) _exit(1);
  ks_io* report = ks_io_create();
  ks_io_printf(report, "%s (pid %d) %s:\n", name, static_cast<int>(getpid()), program_invocation_name);
  print_frames(report, symbols, count);
  std::free(symbols);
  std::uint64_t size = 0;
  const void* text = ks_io_read(report, &size);
  // One write if possible, so that it becomes one record of the kernel log.
  write_all(kernel_log, static_cast<const char*>(text), size);
  ks_io_free(report);
  fsync(kernel_log);
  close(kernel_log);
  _exit(1);
}

void ks_init(void) {
  if (regcomp(&g_blocked_programs, BLOCKED_PROGRAM_LIST, REG_EXTENDED) != 0) {
    ks_abort("ks_init", "regcomp(&re, BLOCKED_PROGRAM_LIST, REG_EXTENDED) == 0", "cannot compile blocked program list");
  }
}
