// Command lines for programs of application packages.
//
// `cmv_cli`, the media viewer's
//   request  {"cmd": text}
//   runs     INSTALL_PATH/bin/rdconf CMD
//   reply    {"cli_ret": raw wait status, "is_enabled": 1 or 0, "is_installed": 1 or 0, "result": 0,
//            "result_out": base64 of the output}; without the program a success too, with "cli_ret" -1,
//            "is_installed" 0 and a message as output. "result" is -1, with "error_msg" and "error_code", when
//            the request is refused or nothing can be started.
// `vistal_agent_cli`, our own cloud agent's
//   request  {"opt": [argument, ...]}
//   runs     INSTALL_PATH/ext_service/ExtVistalCloudAgent/vistal_agent_cli OPT...
//   reply    {"cli_ret": raw wait status, "result": 0, "result_out": base64 of the output}, however the program
//            ended; "error_msg" and a negative "result" without a program or a request; none for an option that
//            is no text.
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/base64.h"
#include "common/json_param.h"
#include "common/log.h"
#include "common/text.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/package_config.h"

namespace {

constexpr char kViewerLogName[] = "nos_cmv_cli_handler";
constexpr char kViewerPackage[] = "CayinMediaViewer";
constexpr char kViewerProgram[] = "bin/rdconf";

constexpr char kAgentLogName[] = "vistal_agent_cli_handler";
constexpr char kAgentProgram[] = "ext_service/ExtVistalCloudAgent/vistal_agent_cli";

// Bytes, terminators included.
constexpr std::size_t kProgramPathSize = 512;
constexpr std::size_t kMissingMessageSize = 256;
constexpr std::size_t kStartMessageSize = 512;

constexpr std::size_t kChunkSize = 1023;  // bytes; what follows a NUL in one of them is not relayed

bool exists(const std::string& path) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0;
}

// The viewer's reply without its output, as it stands when nothing has been run.
struct ViewerAnswer {
  std::string output;
  int cli_ret = -1;
  bool installed = false;
  bool enabled = false;
  bool failed = false;
};

void refuse(const std::string& message, int code, ViewerAnswer& answer, Json::Value& reply) {
  reply["error_msg"] = message;
  reply["error_code"] = code;
  answer.failed = true;
}

void run_viewer(const std::string& command, ViewerAnswer& answer, Json::Value& reply) {
  answer.enabled = package_enabled(kViewerPackage);
  const std::string path = package_file(kViewerPackage, kViewerProgram, kProgramPathSize);
  if (!exists(path)) {
    answer.output = format_bounded(kMissingMessageSize, "[%s][%d] cmv_cli_path=[%s] doesnt exist. errno=[%d]",
                                   kViewerLogName, __LINE__, path.c_str(), errno);
    return;
  }
  answer.installed = true;
  const std::optional<std::string> output =
      piped_output(path, {base_name(path), command}, kChunkSize, &answer.cli_ret);
  if (output) {
    answer.output = *output;
  } else {
    refuse(format_bounded(kStartMessageSize, "popen failed, path=[%s], errno=[%d].", path.c_str(), errno), -4,
           answer, reply);
  }
}

}  // namespace

void nos_cmv_cli_handler(ks_io* io, int) {
  const std::string text = read_request_text(io);
  Json::Value request;
  Json::Value reply;
  ViewerAnswer answer;
  std::string command;
  bool mistyped = false;
  if (!json_parse(text, &request)) {
    LOG_AT(kViewerLogName, "ks_io input fail. [%s]", text.c_str());
    refuse("input error", -1, answer, reply);
  } else if (parser_param_from_json_str(request, "cmd", &command, "string", &mistyped); mistyped) {
    refuse("paser fail", -1, answer, reply);
  } else {
    run_viewer(command, answer, reply);
  }
  reply["result_out"] = base64_text(answer.output);
  reply["cli_ret"] = answer.cli_ret;
  reply["is_installed"] = answer.installed ? 1 : 0;
  reply["is_enabled"] = answer.enabled ? 1 : 0;
  reply["result"] = answer.failed ? -1 : 0;
  reply_json(reply, io);
}

void vistal_agent_cli_handler(ks_io* io, int) {
  Json::Value reply;
  const auto refuse_with = [&](const char* message, int result) {
    reply["error_msg"] = message;
    reply["result"] = result;
    reply_json(reply, io);
  };
  const std::string path = package_file(kOwnPackage, kAgentProgram, kProgramPathSize);
  if (!exists(path)) {
    LOG_AT(kAgentLogName, "vistal_agent_cli_path does not exist: %s", path.c_str());
    return refuse_with("vistal_agent_cli_path does not exist", -4);
  }
  Json::Value request;
  if (!json_parse(read_request_text(io), &request)) {
    LOG_AT(kAgentLogName, "ks_io input fail.");
    return refuse_with("input error", -1);
  }
  std::vector<std::string> arguments = {rootless_path(path)};
  std::string list;
  const Json::Value& options = std::as_const(request)["opt"];  // not get(), which copies
  for (Json::ArrayIndex i = 0; i < options.size(); ++i) {
    arguments.emplace_back(options[i].asCString());  // throws for what is no text
    list += arguments.back() + ",";
  }
  log_write("[%s] args=[%s], ", kAgentLogName, list.c_str());
  CapturedRun run(path, std::move(arguments));
  const std::string output = run.output();
  run.remove();
  log_write("[%s] ret=[%d][%s]", kAgentLogName, run.status(), output.c_str());
  reply["result_out"] = base64_text(output);
  reply["cli_ret"] = run.status();
  reply["result"] = 0;
  reply_json(reply, io);
}
