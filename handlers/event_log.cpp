// Add entries to the platform's own logs: `system_call_evrec_tool` to the event log, `system_connrec_tool` to the
// connection log. Both run one tool, as their rows below say, and log its arguments. If it does not exit with 0, both
// send the failure reply of the first command.
#include <cstdint>
#include <string>

#include "common/captured_run.h"
#include "common/log.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

bool run_tool(const Request& request) {
  const std::string tool = request.program();
  return run_quietly(tool, argument_vector(rootless_path(tool), request.arguments())) == 0;
}

Outcome write_event(Request& request) {
  int number = 2;  // the program's name is number 1
  for (const std::string& argument : request.arguments()) {
    LOG_AT(request.log_name.c_str(), "argv:%d , index:%s .", number++, argument.c_str());
  }
  return success_if(run_tool(request));
}

Outcome write_connection(Request& request, std::int32_t type, std::int32_t service, std::int32_t action,
                         const std::string& message, const std::string& user, const std::string& address,
                         const std::string& computer) {
  const char* const log_name = request.log_name.c_str();
  LOG_AT(log_name, "LogType:%d , ServiceType:%d, ActionType:%d, LogMsg:%s, UserName:%s, IP:%s, ComputerName:%s .", type,
         service, action, message.c_str(), user.c_str(), address.c_str(), computer.c_str());
  if (run_tool(request)) return Outcome::success;
  LOG_AT(log_name, "fail .");
  // The other command's name, which clients expect here.
  request.reply["error_msg"] = "nos_system_call_evrec_tool_handler fail";
  request.reply["result"] = -1;
  return Outcome::own;
}

}  // namespace

constexpr Command main_service::system_call_evrec_tool = Row{.params = {number("log_type"), text("log_mseg")},
                                                             .program = "/sbin/evrec_tool",
                                                             .args = {"-t", param("log_type"), "-a", param("log_mseg")},
                                                             .action = write_event};

constexpr Command main_service::system_connrec_tool =
    Row{.params = {number("log_type"), number("service_type"), number("action_type"), text("log_mseg"),
                   text("user_name"), text("IP"), text("computer_name")},
        .program = "/sbin/connrec_tool",
        .args = {"-t", param("log_type"), "-i", param("service_type"), "-n", param("action_type"), "-a",
                 param("log_mseg"), "-u", param("user_name"), "-p", param("IP"), "-m", param("computer_name")},
        .action = calls<write_connection>};
