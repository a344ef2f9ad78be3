// The run that commands with a log of their own share: what is run, and what came of it, stands in the
// daemon's log.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct LoggedRun {
  std::string program;
  std::vector<std::string> arguments;  // after the program's name
  // Where the commands differ, in the log: a blank behind each argument; a failure with the program's output
  // in place of its status.
  bool blank_after_argument = false;
  bool failure_shows_output = false;
};

struct LoggedOutput {
  std::string text;  // what the program has printed
  bool removed;      // whether the file that held it could be removed
};

// Runs the program, its output going to a temporary file. Nothing when it does not exit with 0: the file then
// stays for people who look into the failure.
std::optional<LoggedOutput> run_logged(const char* log_name, LoggedRun run);
