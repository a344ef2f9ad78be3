#include "common/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "common/process.h"
#include "common/unique_fd.h"
#include "common/write_all.h"

namespace {

constexpr char kFileName[] = ".nxe_ks_vistalprod.log";
constexpr off_t kLargestFile = 0x7FFFF;     // bytes; a larger file is renamed
constexpr std::size_t kMessageSize = 2047;  // bytes, including the terminator, like the sizes below
constexpr std::size_t kLineSize = 2048;
constexpr std::size_t kTimeSize = 21;  // "Sun Nov 15 09:12:20 ": without the year
constexpr std::size_t kBackupPathSize = 256;

// Set by log_set_dir before other threads exist, only read afterwards. Plain arrays, because threads may log while
// static objects are being destroyed. An empty path means "not set".
char g_log_dir[256];
char g_log_path[512];

class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = saved_; }

 private:
  const int saved_ = errno;
};

bool log_is_set() {
  if (g_log_path[0] != '\0') return true;
  std::fprintf(stderr, "Log file path not set. Please call log_set_dir() first.\n");
  return false;
}

time_t now() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return now.tv_sec;
}

void write_time(time_t time, char (&text)[kTimeSize]) {
  char whole[26] = "";  // the size that ctime_r requires
  tzset();              // ctime_r does not re-read the time zone
  ctime_r(&time, whole);
  std::snprintf(text, sizeof text, "%.*s", static_cast<int>(kTimeSize - 1), whole);
}

// Returns the length of the line. Allocates nothing, because failed allocations are logged, too.
std::size_t compose(char (&line)[kLineSize], const char* time, const char* fmt, va_list arguments)
    __attribute__((format(printf, 3, 0)));

std::size_t compose(char (&line)[kLineSize], const char* time, const char* fmt, va_list arguments) {
  auto length = static_cast<std::size_t>(std::snprintf(line, sizeof line, "[%05d] [%s] ", getpid(), time));
  char* const message = line + length;
  if (std::vsnprintf(message, std::min(kMessageSize, sizeof line - length), fmt, arguments) < 0) *message = '\0';
  length += std::strlen(message);
  if (length + 1 < sizeof line) line[length++] = '\n';  // a line that fills the buffer has no newline
  return length;
}

// Appends whole lines to the file. On failure they are lost.
void append(const char* path, const char* lines, std::size_t size) {
  log_rotate_check(path);
  // Close-on-exec, so that a program that another thread starts now does not inherit the log.
  const UniqueFd file(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
  if (file) write_all(file.get(), lines, size);
}

void append_line(const char* path, const char* fmt, va_list arguments) __attribute__((format(printf, 2, 0)));

void append_line(const char* path, const char* fmt, va_list arguments) {
  char time[kTimeSize];
  write_time(now(), time);
  char line[kLineSize];
  append(path, line, compose(line, time, fmt, arguments));
}

bool is_full(const char* path) {
  struct stat info {};
  return stat(path, &info) == 0 && info.st_size > kLargestFile;
}

}  // namespace

int log_set_dir(const char* dir) {
  struct stat info {};
  if (stat(dir, &info) != 0) {
    const int result = mkdir(dir, 0775);
    if (result != 0) {
      std::printf("Error mkdir [%s] failed ret=%d\n", dir, result);
      std::fflush(stdout);  // standard output later goes to clients, who must not get this line
    }
  }
  std::snprintf(g_log_dir, sizeof g_log_dir, "%s", dir);
  std::snprintf(g_log_path, sizeof g_log_path, "%s/%s", g_log_dir, kFileName);
  return 0;
}

void log_write(const char* fmt, ...) {
  const ErrnoKeeper keeper;
  if (!log_is_set()) return;
  va_list arguments;
  va_start(arguments, fmt);
  append_line(g_log_path, fmt, arguments);
  va_end(arguments);
}

void log_write_to(const char* path, const char* fmt, ...) {
  const ErrnoKeeper keeper;
  va_list arguments;
  va_start(arguments, fmt);
  append_line(path, fmt, arguments);
  va_end(arguments);
}

void log_rotate_check(const char* path) {
  const ErrnoKeeper keeper;
  if (!is_full(path)) return;
  // One move at a time: a second one would replace the history by the few lines of the new file. Other threads do not
  // wait; their lines go into the old or the new file.
  static std::mutex moving;
  const std::unique_lock lock(moving, std::try_to_lock);
  if (!lock || !is_full(path)) return;
  char backup[kBackupPathSize];
  std::snprintf(backup, sizeof backup, "%s.bak", path);
  try {
    // If the move fails, the file keeps growing, and the next line tries again.
    exec_cmd_args(nullptr, nullptr, nullptr, "/bin/mv", path, backup, nullptr);
  } catch (const std::bad_alloc&) {
    // Likewise.
  }
}

void LogBatch::write(const char* fmt, ...) {
  const ErrnoKeeper keeper;
  if (const time_t second = now(); second != std::exchange(second_, second)) write_time(second, time_);
  char line[kLineSize];
  va_list arguments;
  va_start(arguments, fmt);
  const std::size_t size = compose(line, time_, fmt, arguments);
  va_end(arguments);
  if (size > sizeof lines_ - used_) flush();
  std::memcpy(lines_ + used_, line, size);
  used_ += size;
}

void LogBatch::flush() {
  const ErrnoKeeper keeper;
  if (used_ > 0 && log_is_set()) append(g_log_path, lines_, used_);
  used_ = 0;
}
