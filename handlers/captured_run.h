// Running a program for a command: quietly, or with what it prints captured in a temporary file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "common/temp_file.h"

// The text of `path` after its last "/", or all of it: the name by which most programs are told they were
// called.
std::string base_name(const std::string& path);

// Run the program at `path` with an empty environment, input left alone. `arguments` is the whole argument
// vector, the program's name for itself first. Thread-safe.

// Its output is discarded. Returns the raw wait status, -1 when nothing could be run.
int run_quietly(const std::string& path, std::vector<std::string> arguments);

// Its standard output goes to a temporary file, which lives as long as this object or until remove().
// Standard error is discarded.
class CapturedRun {
 public:
  CapturedRun(const std::string& path, std::vector<std::string> arguments);

  // The raw wait status; -1 when no file could be made or nothing could be run.
  int status() const { return status_; }
  // What the program has printed, at most `limit` bytes of it; empty when the file cannot be read.
  std::string output(std::size_t limit) const;
  // Removes the file early; false when that fails.
  bool remove() { return file_.remove(); }
  const std::string& file() const { return file_.path(); }

 private:
  TempFile file_;
  int status_ = -1;
};
