// Running a program for a command: quietly, or with what it prints captured, in a temporary file or through a
// pipe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "common/temp_file.h"

// The text of `path` after its last "/", or all of it: the name by which most programs are told they were
// called.
std::string base_name(const std::string& path);

// The text of `path` after its first "/", or all of it: the name that the cloud's and the log's programs are
// given.
std::string rootless_path(const std::string& path);

// A whole argument vector: `name`, then `arguments`.
std::vector<std::string> argument_vector(std::string name, std::vector<std::string> arguments);

// What replies and records say of a program with this raw wait status: its exit status, 128 + the number of the signal
// that killed it, as in shells, or -1 when nothing was run.
int exit_status(int status);

// Run the program at `path`, input left alone, and wait for its end. `arguments` is the whole argument
// vector, the program's name for itself first. The environment is empty, but for the piped_ forms.
// Thread-safe.

// Its output is discarded. Returns what exec_cmd returns (common/process.h): the raw wait status, exit status
// 127 for a program that cannot be executed, 0 when no process can be made.
int run_quietly(const std::string& path, std::vector<std::string> arguments);

enum class Streams { output, both };

// Its standard output, or that and standard error in one, goes to a temporary file, which lives as long as
// this object or until remove(), or for good after keep(). Standard error is discarded otherwise.
class CapturedRun {
 public:
  CapturedRun(const std::string& path, std::vector<std::string> arguments, Streams streams = Streams::output);

  // What exec_cmd has returned; -1 when no file could be made.
  int status() const { return status_; }
  // What the program has printed, at most `limit` bytes of it; empty when the file cannot be read.
  std::string output(std::size_t limit = std::string::npos) const;
  // Removes the file early; false when that fails.
  bool remove() { return file_.remove(); }
  void keep() { file_.release(); }
  const std::string& file() const { return file_.path(); }

 private:
  TempFile file_;
  int status_ = -1;
};

// Its standard output comes through a pipe, all of it, in pieces of 1023 bytes (the last one may be shorter); of each
// piece only what stands before its first NUL is kept, as tools print texts. Standard error
// is discarded and the environment is the daemon's. A program that cannot be executed has printed nothing.
// The raw wait status goes to `*status`, when given. Nothing, with errno set, when no program can be started
// at all.
std::optional<std::string> piped_output(const std::string& path, std::vector<std::string> arguments,
                                        int* status = nullptr);

// The same for bytes of any value. At most `limit` bytes are kept; the rest is read, so that the program can end, and
// dropped. Its wait status is not looked at.
std::optional<std::string> piped_bytes(const std::string& path, std::vector<std::string> arguments, std::size_t limit);
