// Runs programs by path with an argument vector, never through a shell.
//
// The caller names the files for a program's standard streams. An output file is created (mode 0774) or truncated;
// anything else at its path is removed, see open_output_file. A null output or error path means /dev/null. If output
// and error path are equal, both streams share one file. An input must be a regular file; without an input path the
// program inherits the daemon's standard input.
//
// A program starts with no signal blocked, SIGPIPE at its default action, and the descriptor limit that the daemon was
// started with. Its environment is
//   exec_cmd, exec_cmd_args     empty: not even PATH
//   all others                  the daemon's, without LD_LIBRARY_PATH
//
// `argv` is the complete null-terminated vector, beginning with argument 0. The _args forms take the arguments after
// argument 0, ending with a null; argument 0 is the path's text after its last "/".
//
// Any thread may call these functions; each blocks only its caller.
#pragma once

#include <csignal>
#include <cstdio>

// Run a program and wait for it. The result is its raw wait status: 0 for success, otherwise to be decoded with
// WIFEXITED and the like; a program that cannot be executed exits with 127. The result is -1 if a file cannot be opened
// (nothing is run, and the output files of the call are removed) or if waiting fails. It is 0, as for success, if no
// process can be created. Output files stay in place otherwise. A non-null `trace` names a file to which a report of
// the call is appended; it need not be writable.
int exec_cmd(const char* output, const char* error, const char* trace, const char* path, char* const argv[]);
int exec_cmd_args(const char* output, const char* error, const char* trace, const char* path, ...)
    __attribute__((sentinel));
int exec_cmd_stdio(const char* input, const char* output, const char* error, const char* trace, const char* path,
                   char* const argv[]);
int exec_cmd_stdio_args(const char* input, const char* output, const char* error, const char* trace, const char* path,
                        ...) __attribute__((sentinel));

// Start a program and return a stream, to be closed with pclose_cmd. With mode "r" the stream reads the program's
// standard output; `input` may name its input, and `output` is ignored. With mode "w" the stream writes to the
// program's standard input; its output goes to `output`, and `input` is ignored. Null, with errno set, for any other
// mode (EINVAL), or if a file, the pipe or the process cannot be created.
FILE* popen_cmd(const char* input, const char* output, const char* error, const char* mode, const char* path,
                char* const argv[]);
FILE* popen_cmd_args(const char* input, const char* output, const char* error, const char* mode, const char* path, ...)
    __attribute__((sentinel));

// Closes a stream of popen_cmd, waits for its program and returns the raw wait status. Returns -1 if waiting fails, and
// for any other stream, which stays open.
int pclose_cmd(FILE* stream);

// Records the current signal mask and descriptor limit; programs are started with this limit. Call once, before either
// is changed and before other threads run.
void remember_start();

// Raises this process's soft descriptor limit to `wanted`, or as far as the hard limit allows; never lowers it.
void raise_descriptor_limit(unsigned long wanted);

// For code that starts programs itself. During an object's lifetime its thread has the signal mask, and the process the
// soft descriptor limit, that remember_start recorded. The limit affects the whole process: other threads keep their
// descriptors, but get no new ones with higher numbers. One thread per object.
class AsStarted {
 public:
  AsStarted();
  AsStarted(const AsStarted&) = delete;
  AsStarted& operator=(const AsStarted&) = delete;
  ~AsStarted();

 private:
  sigset_t before_;
};
