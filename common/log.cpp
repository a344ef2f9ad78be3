#include "common/log.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "common/process.h"
#include "common/text.h"
#include "common/unique_fd.h"

namespace {

constexpr char kFileName[] = ".nxe_ks_vistalprod.log";
constexpr off_t kLargestFile = 0x7FFFF;     // bytes; a larger file is moved aside
constexpr std::size_t kMessageSize = 2047;  // bytes, terminator included, as the sizes below
constexpr std::size_t kLineSize = 2048;
constexpr std::size_t kTimeSize = 21;  // "Sun Nov 15 09:12:20 ": without the year
constexpr std::size_t kBackupPathSize = 256;

// Written by log_set_dir before there are threads, and only read afterwards. Plain arrays, because threads
// that are left to the end of the process may log while static objects are being destroyed. An empty path
// means "not set".
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

std::string time_text() {
  timeval now{};
  gettimeofday(&now, nullptr);
  char text[26];  // the size that ctime_r asks for
  tzset();        // ctime_r alone would not notice a new time zone
  return ctime_r(&now.tv_sec, text) != nullptr ? format_bounded(kTimeSize, "%s", text) : std::string();
}

void append_line(const char* path, const char* fmt, va_list arguments) __attribute__((format(printf, 2, 0)));

void append_line(const char* path, const char* fmt, va_list arguments) {
  const std::string message = vformat_bounded(kMessageSize, fmt, arguments);
  log_rotate_check(path);
  // Close-on-exec: a program that another thread starts right now has no business with the log.
  const UniqueStream file(std::fopen(path, "a+e"));
  if (!file) return;
  const std::string line =
      format_bounded(kLineSize, "[%05d] [%s] %s\n", getpid(), time_text().c_str(), message.c_str());
  std::fprintf(file.get(), "%s", line.c_str());
}

}  // namespace

int log_set_dir(const char* dir) {
  struct stat info {};
  if (stat(dir, &info) != 0) {
    const int result = mkdir(dir, 0775);
    if (result != 0) {
      std::printf("Error mkdir [%s] failed ret=%d\n", dir, result);
      std::fflush(stdout);  // standard output is lent to clients later, who must not find this in it
    }
  }
  std::snprintf(g_log_dir, sizeof g_log_dir, "%s", dir);
  std::snprintf(g_log_path, sizeof g_log_path, "%s/%s", g_log_dir, kFileName);
  return 0;
}

void log_write(const char* fmt, ...) {
  const ErrnoKeeper keeper;
  if (g_log_path[0] == '\0') {
    std::fprintf(stderr, "Log file path not set. Please call log_set_dir() first.\n");
    return;
  }
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
  struct stat info {};
  if (stat(path, &info) != 0 || info.st_size <= kLargestFile) return;
  const std::string backup = format_bounded(kBackupPathSize, "%s.bak", path);
  // When the move fails the file just keeps growing, and the next line tries again.
  exec_cmd_args(nullptr, nullptr, nullptr, "/bin/mv", path, backup.c_str(), nullptr);
}
