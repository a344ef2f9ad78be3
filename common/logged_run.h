// The run that commands with a log of their own share: what is run, and what came of it, stands in the
// daemon's log.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "handlers/handler.h"

struct LoggedRun {
  std::string program;
  std::vector<std::string> arguments;  // after the program's name
  // Where the commands differ.
  bool blank_after_argument = false;  // in the log
  bool failure_shows_output = false;  // in the log, in place of the status
  bool cli_ret_tells_removal =
      false;  // "cli_ret" is -1 when the output file could not be removed, else always 0
};

// Runs the program, its output going to a temporary file. Exit status 0: the reply gets "result_out", the
// output in base64, and "cli_ret"; Outcome::success. Anything else: Outcome::silent, and the file stays for
// who looks into the failure.
Outcome run_logged(const char* log_name, const LoggedRun& run, Json::Value& reply);
