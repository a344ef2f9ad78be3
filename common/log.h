// The daemon's log: one text file, one line per call, "[pid] [weekday month day time ] message".
//
// Nothing is kept open: each call opens the file for appending, writes its line in one piece and closes it, so any
// thread may call at any time, and none waits for another. A file of 512 KiB or more is moved to its name with
// ".bak" before the next line, by one thread at a time; lines of other threads may go along with it. A message that
// cannot be written is lost. Nothing throws, and errno is left as it was, so a failure can be logged before it is
// reported.
#pragma once

#include <cstddef>
#include <ctime>

// Writes one line that begins with the prefix every reader of the log expects: a function name (a text, which
// need not be the enclosing function's) and this source line. `format` is a literal.
#define LOG_AT(function, format, ...) log_write("[%s][%d] " format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Makes `dir` if it is missing and sends the log to ".nxe_ks_vistalprod.log" in it. Once, at start-up, before
// other threads run. A directory that cannot be made is reported on standard output. Always 0.
int log_set_dir(const char* dir);

// Adds one line with the formatted message, of which at most 2046 characters are kept; a line beyond 2047
// characters is cut, newline and all. Before log_set_dir the message is dropped, with a word on stderr.
void log_write(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The same, to the file `path`.
void log_write_to(const char* path, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Moves the file at `path` aside when it is full. Both writers do this before every line.
void log_rotate_check(const char* path);

// For a request that may cause any number of lines: they are written many at a time, with one open for each 64 KiB,
// and the rest when the object goes. One thread per object; it must write nothing else to the log meanwhile, lest
// its lines change their order.
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
  char time_[21] = "";  // of the latest line; it is the same for thousands
  time_t second_ = -1;
};
