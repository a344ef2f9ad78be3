// The commands that do nothing but run one program: the request's texts become arguments, and exit status 0
// is success. One row per command says what differs.
#include <array>
#include <string>
#include <string_view>

#include "handlers/analytics_tool.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/package_config.h"
#include "handlers/tool_row.h"

namespace {

constexpr char kShareGuard[] = "/sbin/share_guard";
constexpr char kShareUpdateScript[] = "/etc/init.d/vistal_smb_update.sh";

struct ToolCommand {
  std::string_view command;
  const char* log_name;
  ParamNames params;
  const char* program;  // null: the package's control script
  std::array<Argument, 7> args;
};

constexpr ToolCommand kToolCommands[] = {
    {.command = "system_call_share_guard_add",
     .log_name = "nos_system_call_share_guard_add_handler",
     .params = {"share_name"},
     .program = kShareGuard,
     .args = {"add", param(0), "VistalServer"}},
    {.command = "system_call_share_guard_remove",
     .log_name = "nos_system_call_share_guard_remove_handler",
     .params = {"share_name"},
     .program = kShareGuard,
     .args = {"remove", param(0)}},
    {.command = "system_call_vistalpro_disable",
     .log_name = "nos_system_system_call_vistalpro_disable_handler",  // doubled word: clients match on it
     .params = {},
     .program = nullptr,
     .args = {"force_stop"}},
    {.command = "system_call_cloud_analysis_send",
     .log_name = "nos_system_call_cloud_analysis_send_handler",
     .params = {"provide_id", "command", "record_type", "record_text"},
     .program = kAnalyticsTool,
     .args = {param(1), "-p", param(0), "-r", param(2), "-e", param(3)}},
    {.command = "system_call_cloud_analysis_flush",
     .log_name = "nos_system_call_cloud_analysis_flush_handler",
     .params = {"provide_id", "command"},
     .program = kAnalyticsTool,
     .args = {param(1), "-p", param(0)}},
    {.command = "system_call_cloud_analysis_unregister",
     .log_name = "nos_system_call_cloud_analysis_unregister_handler",
     .params = {"provide_id", "command"},
     .program = kAnalyticsTool,
     .args = {param(1), "-p", param(0)}},
    {.command = "system_trn_smb_setfolder_priv",
     .log_name = "nos_system_trn_smb_setfolder_priv_handler",
     .params = {"share_name", "command", "priv_type"},
     .program = kShareUpdateScript,
     .args = {param(1), param(0), param(2)}},
    {.command = "system_call_share_folder_renew",
     .log_name = "nos_system_call_share_folder_renew_handler",
     .params = {},
     .program = nullptr,
     .args = {"share_folder_renew"}},
    {.command = "system_call_kseek_list_add",
     .log_name = "nos_system_call_kseek_list_add_handler",
     .params = {"exclude_name", "exclude_path"},
     .program = nullptr,
     .args = {"kbus_kseek_list_add", param(0), param(1)}},
};

Outcome run_tool(const ToolCommand& row, const ParamValues& values) {
  std::string program;
  if (row.program != nullptr) {
    program = row.program;
  } else if (!package_control_script(&program)) {
    return Outcome::failure;
  }
  const int status =
      run_quietly(program, argument_vector(base_name(program), arguments_of(row.args, values)));
  return status == 0 ? Outcome::success : Outcome::failure;
}

}  // namespace

void nos_tool_command_handler(ks_io* io, int) {
  const ToolCommand& row = row_of<ToolCommand>(kToolCommands, io->request_name);
  handle_row(io, row.log_name, row.params,
             [&](const ParamValues& values, Json::Value&) { return run_tool(row, values); });
}
