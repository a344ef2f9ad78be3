// Runs a program for a command and discards its output, or captures it in a temporary file or through a pipe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "common/temp_file.h"

// The text of `path` after its last "/", or all of it. Most programs get it as argument 0.
std::string base_name(const std::string& path);

// The text of `path` after its first "/", or all of it. Cloud tools and log tools get it as argument 0.
std::string rootless_path(const std::string& path);

// A complete argument vector: `name`, then `arguments`.
std::vector<std::string> argument_vector(std::string name, std::vector<std::string> arguments);

// The status that replies and records report for a raw wait status: the exit status, 128 + the signal's number as in
// shells, or -1 if nothing was run.
int exit_status(int status);

// Any thread may call these functions. They run the program at `path` and wait for its end. It inherits standard input.
// `arguments` is the complete argument vector, beginning with argument 0. The environment is empty, or that of the
// daemon where a function says so.

// Discards the output. Returns the result of exec_cmd (common/process.h): the raw wait status, exit status 127 for a
// program that cannot be executed, 0 if no process can be created.
int run_quietly(const std::string& path, std::vector<std::string> arguments);

enum class Streams { output, both };

// Captures standard output, optionally together with standard error, in a temporary file. The file is removed with this
// object or by remove(); keep() makes it permanent. Standard error is discarded unless captured.
class CapturedRun {
 public:
  CapturedRun(const std::string& path, std::vector<std::string> arguments, Streams streams = Streams::output);

  // The result of exec_cmd; -1 if no file could be made.
  int status() const { return status_; }
  // At most `limit` bytes of the program's output; empty if the file cannot be read.
  std::string output(std::size_t limit = std::string::npos) const;
  // Removes the file early; false when that fails.
  bool remove() { return file_.remove(); }
  void keep() { file_.release(); }
  const std::string& file() const { return file_.path(); }

 private:
  TempFile file_;
  int status_ = -1;
};

// Captures standard output through a pipe, in pieces of 1023 bytes (the last may be shorter). Tools print texts, so
// each piece is truncated at its first NUL. Standard error is discarded and the environment is the daemon's. The output
// of a program that cannot be executed is empty. Stores the raw wait status in `*status` unless it is null. Returns
// nothing, with errno set, if no program can be started at all.
std::optional<std::string> piped_output(const std::string& path, std::vector<std::string> arguments,
                                        int* status = nullptr);

// The same for arbitrary bytes. Keeps at most `limit` bytes; reads and drops the rest, so that the program can end.
// Ignores the wait status.
std::optional<std::string> piped_bytes(const std::string& path, std::vector<std::string> arguments, std::size_t limit);
