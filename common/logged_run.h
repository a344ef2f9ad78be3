// Runs a program and logs its arguments and its result in the daemon's log.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct LoggedRun {
  std::string program;
  std::vector<std::string> arguments;  // after the program's name
  // Differences between commands in the log: a blank after each argument; the program's output instead of its status
  // after a failure.
  bool blank_after_argument = false;
  bool failure_shows_output = false;
};

struct LoggedOutput {
  std::string text;  // the program's output
  bool removed;      // whether the output file could be removed
};

// Runs the program with its output in a temporary file. If it does not exit with 0, the result is empty, and the file
// stays so that the failure can be diagnosed.
std::optional<LoggedOutput> run_logged(const char* log_name, LoggedRun run);
