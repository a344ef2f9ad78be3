// Running programs: by path, with an argument vector, never through a shell.
//
// A program's standard streams are files named by the caller. An output file is created (mode 0774) or emptied;
// what is not a file of our own in its place is removed, see open_output_file. A null output or error path means
// /dev/null; the error path may equal the output path, both streams then share one file. An input must be a regular
// file. A null input path, and every call without one, leaves the daemon's own standard input.
//
// Whatever the daemon has done to itself, a program starts in the ordinary state: no signal blocked, SIGPIPE
// at its default action, the descriptor limit that the daemon was started with. Its environment is
//   exec_cmd, exec_cmd_args     empty: not even PATH
//   all others                  the daemon's, without LD_LIBRARY_PATH
//
// `argv` is the whole vector, the program's name for itself first, and ends with a null. The _args forms take
// the arguments after that name, ending with a null; the name is the path's text after its last "/".
//
// Any thread may call any of these; each blocks its own caller only.
#pragma once

#include <csignal>
#include <cstdio>

// Run a program and wait for it. The result is its raw wait status: 0 for success, else to be taken apart
// with WIFEXITED and the like; a program that cannot be executed exits with 127. -1 when a file cannot be
// opened (nothing is run, and the output files named in the call are removed) or the program cannot be waited
// for. 0, as if it had succeeded, when no process can be made. Output files stay in place otherwise. `trace`,
// when not null, names a file to which an account of the call is added; it need not be writable.
int exec_cmd(const char* output, const char* error, const char* trace, const char* path, char* const argv[]);
int exec_cmd_args(const char* output, const char* error, const char* trace, const char* path, ...)
    __attribute__((sentinel));
int exec_cmd_stdio(const char* input, const char* output, const char* error, const char* trace, const char* path,
                   char* const argv[]);
int exec_cmd_stdio_args(const char* input, const char* output, const char* error, const char* trace, const char* path,
                        ...) __attribute__((sentinel));

// Start a program and return a stream, to be closed with pclose_cmd, that reads its standard output (mode
// "r"; its input may come from `input`, and `output` is ignored) or writes to its standard input (mode "w";
// its output goes to `output`, and `input` is ignored). Null with errno set when a file, the pipe or the
// process cannot be had, and for any other mode (EINVAL).
FILE* popen_cmd(const char* input, const char* output, const char* error, const char* mode, const char* path,
                char* const argv[]);
FILE* popen_cmd_args(const char* input, const char* output, const char* error, const char* mode, const char* path, ...)
    __attribute__((sentinel));

// Closes a stream of popen_cmd, waits for its program and returns the raw wait status. -1 when the program
// cannot be waited for, and for any other stream, which stays open.
int pclose_cmd(FILE* stream);

// Remembers the signal mask and the descriptor limit that this process was started with. Once, before either is
// changed and before other threads run. Programs get the limit back that is remembered.
void remember_start();

// Raises this process's soft limit on open descriptors to `wanted`, or as far as the hard limit allows; never
// lowers it.
void raise_descriptor_limit(unsigned long wanted);

// For code that starts programs by itself. While an object lives, its thread has the signal mask, and the process
// has the soft descriptor limit, that remember_start has seen. The limit is the whole process's: other threads keep
// the descriptors that they have, but get no new ones with higher numbers meanwhile. One thread per object.
class AsStarted {
 public:
  AsStarted();
  AsStarted(const AsStarted&) = delete;
  AsStarted& operator=(const AsStarted&) = delete;
  ~AsStarted();

 private:
  sigset_t before_;
};
