#include "daemon/crash_handler.h"

#include <errno.h>
#include <execinfo.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "common/log.h"

namespace {

constexpr int kMaxFrames = 100;
// The dump takes milliseconds; if it takes longer, it waits for a lock that the crashed thread holds.
constexpr int kDumpSeconds = 5;

struct Free {
  void operator()(void* block) const { std::free(block); }
};

// Makes the kernel kill the process if the dump hangs: it allocates, which can hang after a crash in the allocator.
void kill_when_stuck() {
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGKILL;
  timer_t timer;
  if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0) return;
  itimerspec limit{};
  limit.it_value.tv_sec = kDumpSeconds;
  timer_settime(timer, 0, &limit, nullptr);
}

}  // namespace

void vistalprod_debug_backtrace_dump() {
  void* addresses[kMaxFrames];
  const int count = backtrace(addresses, kMaxFrames);
  const std::unique_ptr<char*[], Free> frames(backtrace_symbols(addresses, count));
  for (int i = 0; frames != nullptr && i < count; ++i) LOG_AT(__func__, "%s", frames[static_cast<size_t>(i)]);
  log_write("[%s][%d]==========================", __func__, __LINE__);
  log_write("[%s][%d]%s", __func__, __LINE__, program_invocation_name);
}

void crash_handler(int) {
  kill_when_stuck();
  vistalprod_debug_backtrace_dump();
  kill(getpid(), SIGKILL);
}
