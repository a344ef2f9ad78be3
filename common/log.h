// The daemon's log: one text file, one line per call, "[pid] [weekday month day time ] message".
//
// Nothing is kept open and nothing is locked: each call opens the file for appending, writes its line in one
// piece and closes it, so any thread may call at any time. A file of 512 KiB or more is moved to its name
// with ".bak" before the next line; lines of other threads may go along with it. A message that cannot be
// written is lost. errno is left as it was, so a failure can be logged before it is reported.
#pragma once

// Writes one line that begins with the prefix every reader of the log expects: a function name (a text, which
// need not be the enclosing function's) and this source line. `format` is a literal.
#define LOG_AT(function, format, ...) \
  log_write("[%s][%d] " format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

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
