#include "common/activity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/unique_fd.h"

// The list of running requests. It uses plain pointers, because threads may still use it while static objects are being
// destroyed. The mutex is never held while the log or the trace is written.
struct RunningRequests {
  void add(RunningRequest* request);
  // False if the request had already ended.
  bool remove(RunningRequest* request);
  std::optional<LongRequest> take_long(std::chrono::seconds age);

  std::mutex mutex;
  RunningRequest* first = nullptr;
};

namespace {

constexpr char kVariable[] = "VISTALPROD_TRACE";
constexpr std::size_t kLineSize = 1024;
constexpr std::size_t kWordSize = 256;  // of a name or a path, including the NUL

RunningRequests g_running;
// Set before other threads exist. -1: no trace.
int g_trace = -1;
thread_local RunningRequest* g_current_request = nullptr;

bool is_traced() {
  return g_trace >= 0;
}

// Client input must not end the line or look like another field.
void copy_word(char (&word)[kWordSize], const char* text) {
  std::size_t length = 0;
  for (; text != nullptr && text[length] != '\0' && length < kWordSize - 1; ++length) {
    word[length] = text[length] > ' ' && text[length] <= '~' ? text[length] : '?';
  }
  word[length] = '\0';
}

long long milliseconds_since(RunningRequest::Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(RunningRequest::Clock::now() - start).count();
}

std::size_t write_time(char (&line)[kLineSize]) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  tzset();  // localtime_r does not re-read the time zone
  localtime_r(&now.tv_sec, &local);
  std::size_t length = std::strftime(line, sizeof line, "%Y-%m-%dT%H:%M:%S", &local);
  length += static_cast<std::size_t>(
      std::snprintf(line + length, sizeof line - length, ".%03d", static_cast<int>(now.tv_nsec / 1'000'000)));
  return length + std::strftime(line + length, sizeof line - length, "%z ", &local);
}

__attribute__((format(printf, 1, 2))) void write_line(const char* format, ...) {
  const int error = errno;
  char line[kLineSize];
  std::size_t length = write_time(line);
  va_list arguments;
  va_start(arguments, format);
  length += static_cast<std::size_t>(std::vsnprintf(line + length, sizeof line - length, format, arguments));
  va_end(arguments);
  // One write, so that lines of several threads do not mix. If the disk is full, the line is lost.
  [[maybe_unused]] const ssize_t written = write(g_trace, line, length);
  errno = error;
}

// Never waits, not even for a pipe or a device at the path, and refuses files of other users.
UniqueFd open_trace(const char* path, const char** refusal) {
  UniqueFd file(
      open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY, S_IRUSR | S_IWUSR));
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0) {
    *refusal = std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): there is no other thread yet
    return {};
  }
  if (!S_ISREG(info.st_mode) || info.st_uid != geteuid()) {
    *refusal = "not a regular file of this user";
    return {};
  }
  return file;
}

}  // namespace

// ---- The list -----------------------------------------------------------------------------------------

void RunningRequests::add(RunningRequest* request) {
  const std::lock_guard lock(mutex);
  request->next_ = first;
  if (first != nullptr) first->previous_ = request;
  first = request;
}

bool RunningRequests::remove(RunningRequest* request) {
  const std::lock_guard lock(mutex);
  if (!request->is_running_) return false;
  request->is_running_ = false;
  (request->previous_ != nullptr ? request->previous_->next_ : first) = request->next_;
  if (request->next_ != nullptr) request->next_->previous_ = request->previous_;
  return true;
}

std::optional<LongRequest> RunningRequests::take_long(std::chrono::seconds age) {
  const auto latest = RunningRequest::Clock::now() - age;
  const std::lock_guard lock(mutex);
  for (RunningRequest* request = first; request != nullptr; request = request->next_) {
    if (request->was_reported_ || request->arrived_ > latest) continue;
    request->was_reported_ = true;
    return LongRequest{.command = request->command_, .client = request->client_, .program = request->program_};
  }
  return std::nullopt;
}

std::optional<LongRequest> next_long_request(std::chrono::seconds age) {
  return g_running.take_long(age);
}

// ---- Requests and programs ------------------------------------------------------------------------------

void activity_set_up() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
  const char* const path = std::getenv(kVariable);
  if (path == nullptr) return;
  if (path[0] != '\0') {
    const char* refusal = nullptr;
    UniqueFd file = open_trace(path, &refusal);
    if (!file) std::fprintf(stderr, "%s=%s: %s, so there is no trace.\n", kVariable, path, refusal);
    g_trace = file.release();  // open for the life of the process
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): likewise
  unsetenv(kVariable);
}

RunningRequest::RunningRequest(const char* command, pid_t client, uid_t uid)
    : command_(command), client_(client), uid_(uid) {
  g_running.add(this);
}

RunningRequest::~RunningRequest() {
  g_running.remove(this);
}

void RunningRequest::attach() {
  g_current_request = this;
}

void RunningRequest::end(const char* how) {
  if (!g_running.remove(this) || !is_traced()) return;
  char command[kWordSize];
  copy_word(command, command_);
  write_line("request client=%d uid=%u command=%s ms=%lld end=%s\n", static_cast<int>(client_), uid_, command,
             milliseconds_since(arrived_), how);
}

ProgramRun::ProgramRun(const char* path) {
  if (is_traced()) copy_word(path_, path);
}

ProgramRun::~ProgramRun() {
  if (!has_ended_ && is_traced()) trace("not started");
}

void ProgramRun::started(pid_t pid) {
  pid_ = pid;
  if (g_current_request != nullptr) outer_ = g_current_request->program_.exchange(pid);
}

int ProgramRun::ended(int status) {
  has_ended_ = true;
  // Only reset our own pid: streams need not be closed in the order in which their programs were started.
  pid_t own = pid_;
  if (g_current_request != nullptr) g_current_request->program_.compare_exchange_strong(own, outer_);
  if (!is_traced()) return status;
  char how[32] = "not known";
  if (status != -1 && WIFEXITED(status)) std::snprintf(how, sizeof how, "exit %d", WEXITSTATUS(status));
  if (status != -1 && WIFSIGNALED(status)) std::snprintf(how, sizeof how, "signal %d", WTERMSIG(status));
  trace(how);
  return status;
}

void ProgramRun::trace(const char* how) const {
  const long long ms = milliseconds_since(started_);
  const RunningRequest* const request = g_current_request;
  if (request == nullptr) {
    write_line("program client=- uid=- command=- program=%s ms=%lld end=%s\n", path_, ms, how);
    return;
  }
  char command[kWordSize];
  copy_word(command, request->command_);
  write_line("program client=%d uid=%u command=%s program=%s ms=%lld end=%s\n", static_cast<int>(request->client_),
             request->uid_, command, path_, ms, how);
}
