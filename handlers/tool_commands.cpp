// The commands that do nothing but run one program: the request's texts become arguments, and exit status 0
// is success. One row per command says what differs.
#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "common/json_param.h"
#include "handlers/analytics_tool.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/package_config.h"

namespace {

constexpr char kShareGuard[] = "/sbin/share_guard";
constexpr char kShareUpdateScript[] = "/etc/init.d/vistal_smb_update.sh";

// One argument of a program: fixed, or the request's parameter of that number. Empty slots end the list.
struct Argument {
  constexpr Argument() = default;
  constexpr Argument(const char* fixed) : text(fixed) {}  // NOLINT: a row reads better without a name for it
  constexpr explicit Argument(int number) : param(number) {}
  const char* text = nullptr;
  int param = -1;
};

constexpr Argument param(int number) {
  return Argument(number);
}

// One for each parameter of a request; as many as any command has.
template <typename Text>
using Texts = std::array<Text, 4>;

struct ToolCommand {
  const char* command;
  const char* log_name;
  Texts<const char*> params;  // all texts, in the order in which they are read
  const char* program;        // null: the package's control script
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

const ToolCommand& find_row(std::string_view command) {
  const auto* row = std::find_if(std::begin(kToolCommands), std::end(kToolCommands),
                                 [&](const ToolCommand& candidate) { return command == candidate.command; });
  if (row == std::end(kToolCommands)) throw std::logic_error("no tool for this command");
  return *row;
}

Outcome run_tool(const ToolCommand& row, const Texts<std::string>& values) {
  std::string program;
  if (row.program != nullptr) {
    program = row.program;
  } else if (!package_control_script(&program)) {
    return Outcome::failure;
  }
  std::vector<std::string> arguments = {base_name(program)};
  for (const Argument& argument : row.args) {
    if (argument.param >= 0) {
      arguments.push_back(values[static_cast<std::size_t>(argument.param)]);
    } else if (argument.text != nullptr) {
      arguments.emplace_back(argument.text);
    }
  }
  return run_quietly(program, std::move(arguments)) == 0 ? Outcome::success : Outcome::failure;
}

}  // namespace

void nos_tool_command_handler(ks_io* io, int) {
  const ToolCommand& row = find_row(io->request_name);
  Texts<std::string> values;
  const auto action = [&](Json::Value&) { return run_tool(row, values); };
  if (row.params[0] == nullptr) return handle_bare_request(io, row.log_name, action);
  Params params;
  for (std::size_t i = 0; i < row.params.size() && row.params[i] != nullptr; ++i) {
    params.emplace_back(row.params[i], &values[i]);
  }
  handle_request(io, row.log_name, params, action);
}
