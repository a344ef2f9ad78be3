// Entries for the platform's own logs.
//
// `system_call_evrec_tool`, the event log
//   request  {"log_type": number, "log_mseg": text}
//   runs     /sbin/evrec_tool -t LOG_TYPE -a LOG_MSEG
// `system_connrec_tool`, the connection log
//   request  {"log_type": number, "service_type": number, "action_type": number, "log_mseg": text,
//            "user_name": text, "IP": text, "computer_name": text}
//   runs     /sbin/connrec_tool -t LOG_TYPE -i SERVICE_TYPE -n ACTION_TYPE -a LOG_MSEG -u USER_NAME -p IP
//            -m COMPUTER_NAME
//
// Both reply {"result": 0}, or the failure reply of the first when the tool does not exit with 0.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/log.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"

namespace {

constexpr char kEventTool[] = "/sbin/evrec_tool";
constexpr char kConnectionTool[] = "/sbin/connrec_tool";
constexpr char kEventLogName[] = "nos_system_call_evrec_tool_handler";
constexpr char kConnectionLogName[] = "nos_system_connrec_tool_handler";

bool run_tool(const std::string& tool, const std::vector<std::string>& arguments) {
  return run_quietly(tool, argument_vector(rootless_path(tool), arguments)) == 0;
}

}  // namespace

void nos_system_call_evrec_tool_handler(ks_io* io, int) {
  std::int32_t type = 0;
  std::string message;
  const Params params = {{"log_type", &type}, {"log_mseg", &message}};
  handle_request(io, kEventLogName, params, [&](Json::Value&) {
    const std::vector<std::string> arguments = {"-t", std::to_string(type), "-a", message};
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      // Counted from the program's name, which is number 1.
      LOG_AT(kEventLogName, "argv:%d , index:%s .", static_cast<int>(i) + 2, arguments[i].c_str());
    }
    return run_tool(kEventTool, arguments) ? Outcome::success : Outcome::failure;
  });
}

void nos_system_connrec_tool_handler(ks_io* io, int) {
  std::int32_t type = 0;
  std::int32_t service = 0;
  std::int32_t action = 0;
  std::string message;
  std::string user;
  std::string address;
  std::string computer;
  const Params params = {{"log_type", &type},         {"service_type", &service}, {"action_type", &action},
                         {"log_mseg", &message},      {"user_name", &user},       {"IP", &address},
                         {"computer_name", &computer}};
  handle_request(io, kConnectionLogName, params, [&](Json::Value& reply) {
    LOG_AT(kConnectionLogName,
           "LogType:%d , ServiceType:%d, ActionType:%d, LogMsg:%s, UserName:%s, IP:%s, ComputerName:%s .",
           type, service, action, message.c_str(), user.c_str(), address.c_str(), computer.c_str());
    const bool done = run_tool(
        kConnectionTool, {"-t", std::to_string(type), "-i", std::to_string(service), "-n",
                          std::to_string(action), "-a", message, "-u", user, "-p", address, "-m", computer});
    if (done) return Outcome::success;
    LOG_AT(kConnectionLogName, "fail .");
    reply["error_msg"] = std::string(kEventLogName) + " fail";  // the other's name: clients match on it
    reply["result"] = -1;
    return Outcome::own;
  });
}
