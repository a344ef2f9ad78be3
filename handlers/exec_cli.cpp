// `exec_cli`: runs the program that the request names and returns what it prints.
//
//   request  {"command": [path, argument, ...]}
//   reply    {"error_code": 0, "handler": "exec_cli_handler", "result": output, "service": ...}
//            {"error_code": -1, "error_msg": "Read command fail.", ...} when there is no such command
//
// How the program ends is not looked at: one that cannot be run has printed nothing.
#include <cstddef>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/json_param.h"
#include "common/text.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/service_names.h"

namespace {

constexpr std::size_t kArgumentSize = 256;  // bytes of one argument, its NUL included
constexpr std::size_t kMaxOutput = 5120;    // bytes of output that are returned

struct CliResult {
  int status;
  std::string message;  // the output, or why there is none
};

// The command as texts, program first. Numbers and booleans stand for their JSON texts; nothing when there is
// no program, or something has no text form.
std::optional<std::vector<std::string>> read_command(const std::string& text) {
  Json::Value root;
  if (!json_parse(text, &root) || !root.isObject()) return std::nullopt;
  const Json::Value& command = root["command"];
  if (!command.isArray() || command.empty()) return std::nullopt;
  std::vector<std::string> texts;
  for (const Json::Value& element : command) {
    if (!element.isConvertibleTo(Json::stringValue)) return std::nullopt;
    texts.push_back(element.asString());
  }
  return texts;
}

// What a C string of this text is: everything before its first NUL.
std::string until_nul(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

CliResult relay_command_line(const std::string& text) {
  std::optional<std::vector<std::string>> command = read_command(text);
  if (!command) return {-1, "Read command fail."};
  try {
    const std::string program = command->front();
    command->front() = base_name(program);
    for (std::size_t i = 1; i < command->size(); ++i) {
      (*command)[i] = format_bounded(kArgumentSize, "%s", (*command)[i].c_str());
    }
    const CapturedRun run(program, std::move(*command));
    return {0, until_nul(run.output(kMaxOutput))};
  } catch (const std::bad_alloc&) {
    return {-2, "malloc fail."};
  }
}

}  // namespace

void exec_cli_handler(ks_io* io, int) {
  const CliResult result = relay_command_line(read_request_text(io));
  Json::Value reply;
  reply["handler"] = "exec_cli_handler";
  reply["service"] = kMainServiceName;
  reply["error_code"] = result.status;
  reply[result.status == 0 ? "result" : "error_msg"] = result.message;
  reply_json(reply, io);
}
