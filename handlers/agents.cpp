// Run command-line programs of application packages.
//
// `cmv_cli`, the media viewer's
//   request  {"cmd": text}
//   runs     INSTALL_PATH/bin/rdconf CMD
//   reply    {"cli_ret": raw wait status, "is_enabled": 1 or 0, "is_installed": 1 or 0, "result": 0,
//            "result_out": base64 of the output}. A missing program is a success, too: "cli_ret" is -1,
//            "is_installed" 0, and the output is a message. If the request is refused or no process can be
//            created, "result" is -1, with "error_msg" and "error_code".
// `vistal_agent_cli`, our own cloud agent's
//   request  {"opt": [argument, ...]}
//   runs     INSTALL_PATH/ext_service/ExtVistalCloudAgent/vistal_agent_cli OPT...
//   reply    {"cli_ret": raw wait status, "result": 0, "result_out": base64 of the output}, however the program
//            ended; "error_msg" and a negative "result" if the program is missing or the body is not JSON; no
//            reply if an option is not a text
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/base64.h"
#include "common/captured_run.h"
#include "common/log.h"
#include "common/package_config.h"
#include "common/text.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kViewerPackage[] = "CayinMediaViewer";
constexpr char kViewerProgram[] = "bin/rdconf";

constexpr char kAgentProgram[] = "ext_service/ExtVistalCloudAgent/vistal_agent_cli";

// Bytes, terminators included.
constexpr std::size_t kProgramPathSize = 512;
constexpr std::size_t kMissingMessageSize = 256;
constexpr std::size_t kStartMessageSize = 512;

constexpr std::size_t kListedSize = 2048;  // bytes of the arguments, as much as a log line can hold

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// Refusals also have all members.
Outcome relay_viewer(Request& request) {
  Json::Value& reply = request.reply;
  reply["result_out"] = "";
  reply["cli_ret"] = -1;
  reply["is_installed"] = 0;
  reply["is_enabled"] = 0;
  reply["result"] = -1;
  if (!request.read_params()) return Outcome::own;
  reply["is_enabled"] = package_enabled(kViewerPackage) ? 1 : 0;
  const std::string path = package_file(kViewerPackage, kViewerProgram, kProgramPathSize);
  if (!exists(path)) {
    reply["result_out"] =
        base64_text(format_bounded(kMissingMessageSize, "[%s][%d] cmv_cli_path=[%s] doesnt exist. errno=[%d]",
                                   request.log_name.c_str(), __LINE__, path.c_str(), errno));
    return Outcome::success;
  }
  reply["is_installed"] = 1;
  int status = -1;
  const std::optional<std::string> output =
      piped_output(path, {base_name(path), std::get<std::string>(request.values[0])}, &status);
  if (!output) {
    reply["error_msg"] = format_bounded(kStartMessageSize, "popen failed, path=[%s], errno=[%d].", path.c_str(), errno);
    reply["error_code"] = -4;
    return Outcome::own;
  }
  reply["result_out"] = base64_text(*output);
  reply["cli_ret"] = status;
  return Outcome::success;
}

// The program is checked before the body.
Outcome relay_agent(Request& request) {
  const char* const log_name = request.log_name.c_str();
  Json::Value& reply = request.reply;
  const std::string path = package_file(kOwnPackage, kAgentProgram, kProgramPathSize);
  if (!exists(path)) {
    LOG_AT(log_name, "vistal_agent_cli_path does not exist: %s", path.c_str());
    reply["error_msg"] = "vistal_agent_cli_path does not exist";
    reply["result"] = -4;
    return Outcome::own;
  }
  if (!request.parse_body()) {
    reply.removeMember("error_code");
    reply["result"] = -1;
    return Outcome::own;
  }
  std::vector<std::string> arguments = {rootless_path(path)};
  std::string list;
  const Json::Value& options = std::as_const(request.body)["opt"];  // not get(), which copies
  arguments.reserve(options.size() + 1);
  for (Json::ArrayIndex i = 0; i < options.size(); ++i) {
    arguments.emplace_back(options[i].asCString());  // throws for a value that is not a text
    if (list.size() < kListedSize) list.append(arguments.back(), 0, kListedSize).append(",");
  }
  log_write("[%s] args=[%s], ", log_name, list.c_str());
  CapturedRun run(path, std::move(arguments));
  const std::string output = run.output();
  run.remove();
  log_write("[%s] ret=[%d][%s]", log_name, run.status(), output.c_str());
  reply["result_out"] = base64_text(output);
  reply["cli_ret"] = run.status();
  return Outcome::success;
}

}  // namespace

constexpr Command main_service::cmv_cli = Row{.params = {text("cmd")},
                                              .runs = "INSTALL_PATH/bin/rdconf CMD, of package CayinMediaViewer",
                                              .answers = "cli_ret, is_enabled, is_installed, result, result_out",
                                              .action = {relay_viewer, Reads::itself},
                                              .logs_bad_body = true};

constexpr Command main_service::vistal_agent_cli =
    Row{.log_name = "vistal_agent_cli_handler",
        .params = {optional(array("opt"))},
        .runs = "INSTALL_PATH/ext_service/ExtVistalCloudAgent/vistal_agent_cli OPT...",
        .answers = "cli_ret, result, result_out",
        .action = {relay_agent, Reads::itself}};
