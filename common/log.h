// The daemon's log: one text file, one line per call, "[pid] [weekday month day time ] message".
//
// Each call opens the file for appending, writes its line in one piece and closes it, so any thread may call at any
// time and no thread waits for another. A file of 512 KiB or more is renamed with ".bak" appended before the next line,
// by one thread at a time; lines of other threads may still go into it. A message that cannot be written is lost.
// Nothing throws or changes errno, so a failure can be logged before it is reported.
#pragma once

#include <cstddef>
#include <ctime>

// Writes one line with the prefix that readers of the log expect: a function name (any text, not necessarily the
// enclosing function's) and this source line. `format` is a literal.
#define LOG_AT(function, format, ...) log_write("[%s][%d] " format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Makes `dir` if it is missing and sets the log file to ".nxe_ks_vistalprod.log" in it. Prints a line on standard
// output if the directory cannot be made. Call once, before other threads run. Always 0.
int log_set_dir(const char* dir);

// Appends one line with the formatted message, truncated to 2046 characters; a line beyond 2047 characters is truncated
// and has no newline. Before log_set_dir the message is dropped, with a line on standard error.
void log_write(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The same, to the file `path`.
void log_write_to(const char* path, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Renames the file at `path` if it is full. All writers call it before each write.
void log_rotate_check(const char* path);

// Collects the lines of a request that may log very many, and opens the file once per 64 KiB. The destructor writes the
// rest. One thread per object; it must not use the log otherwise meanwhile, or its lines get out of order.
class LogBatch {
 public:
  // cppcheck-suppress uninitMemberVar ; 64 KiB that are written before they are read
  LogBatch() = default;
  LogBatch(const LogBatch&) = delete;
  LogBatch& operator=(const LogBatch&) = delete;
  ~LogBatch() { flush(); }

  // As log_write.
  void write(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

 private:
  void flush();

  char lines_[64 * 1024];
  std::size_t used_ = 0;
  char time_[21] = "";  // of the latest line; reused within one second
  time_t second_ = -1;
};
