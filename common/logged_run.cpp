#include "common/logged_run.h"

#include <cstddef>
#include <utility>

#include "common/captured_run.h"
#include "common/log.h"

namespace {

void log_arguments(const char* log_name, const std::vector<std::string>& arguments, const char* end) {
  for (std::size_t i = 0; i <= arguments.size(); ++i) {
    const char* const text = i < arguments.size() ? arguments[i].c_str() : "(null)";
    LOG_AT(log_name, "argv[%d] = [%s]%s", static_cast<int>(i), text, end);
  }
}

}  // namespace

std::optional<LoggedOutput> run_logged(const char* log_name, LoggedRun run) {
  const char* const program = run.program.c_str();
  std::vector<std::string> arguments = argument_vector(base_name(run.program), std::move(run.arguments));
  log_arguments(log_name, arguments, run.blank_after_argument ? " " : "");
  CapturedRun captured(run.program, std::move(arguments));
  if (captured.status() != 0) {
    if (run.failure_shows_output) {
      LOG_AT(log_name, "exec %s failed, ret_out=[%s]", program, captured.output().c_str());
    } else {
      LOG_AT(log_name, "exec %s failed, ret=[%d]", program, captured.status());
    }
    captured.keep();
    return std::nullopt;
  }
  std::string output = captured.output();
  LOG_AT(log_name, "exec %s succ, ret_out=[%s]", program, output.c_str());
  const bool removed = captured.remove();
  return LoggedOutput{.text = std::move(output), .removed = removed};
}
