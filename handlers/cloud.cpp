// The cloud's commands: each runs one of the platform's cloud tools and returns what it prints. One row per
// command says what differs; those that do more than that have a function of their own.
//
//   request  the row's parameters
//   reply    {"result": 0, MEMBER: base64 of the output} and, in most, "cli_ret": 0, or the failure reply when
//            the tool does not exit with 0. The device list is text instead of base64, and the device status
//            comes with a failure, too.
//
// To add a command: a row here, a row in the daemon's table, an entry in docs/commands.md.
#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/base64.h"
#include "common/log.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/tool_row.h"

namespace {

constexpr char kDeviceTool[] = "/usr/local/bin/kcloud_device_tool";
constexpr char kHostTool[] = "/usr/sbin/get_kcloud_host";
constexpr char kIdentityTool[] = "/usr/sbin/kcloud_tool";
constexpr char kSerialReader[] = "/sbin/read_hwsn";
constexpr char kCloudSerialReader[] = "/sbin/read_suid";
constexpr char kCloudIdentity[] = "VNOS_CLD";  // of an appliance that itself runs in the cloud

struct CloudCommand;

// Runs the row's program. The run is the caller's, who removes its output file.
using Relay = Outcome(const CloudCommand& row, const ParamValues& values, std::optional<CapturedRun>& run,
                      Json::Value& reply);
Relay relay_output, relay_status, relay_tunnel_agent, relay_serial;

struct CloudCommand {
  std::string_view command;
  ParamNames params = {};
  const char* program = nullptr;
  std::array<Argument, 11> args = {};
  const char* member = "result_out";
  Relay* relay = relay_output;
  bool has_cli_ret = false;  // and an output file that cannot be removed is logged
  bool without_last_line_feed = false;
  bool as_text = false;       // not encoded
  bool removed_late = false;  // the output file, after the reply
};

constexpr CloudCommand kCloudCommands[] = {
    {.command = "system_call_cloud_get_kid_service",
     .params = {"section_name", "field_name"},
     .program = "/sbin/rdconf",
     .args = {param(0), param(1), "-f", "/etc/config/kid.conf"},
     .has_cli_ret = true,
     .without_last_line_feed = true},
    {.command = "system_call_cloud_get_access_token",
     .params = {"client_id", "client_secret", "access_token"},
     .program = "/usr/local/bin/kcloud_auth_tool",
     .args = {"signin", "-t", "exchange_token", "-a", param(2), "-i", param(0), "-s", param(1), "-o", "json"},
     .has_cli_ret = true},
    {.command = "system_call_cloud_kcm_tunnel_agent",
     .params = {"command", "mode", "package_name", "callback_path", "reg_id"},
     .program = "/usr/local/bin/kcloud_tunnel_agent_tool",
     .relay = relay_tunnel_agent,
     .has_cli_ret = true},
    {.command = "system_call_cloud_get_user_token",
     .program = "/usr/bin/kcloud_cli",
     .args = {"-t"},
     .has_cli_ret = true,
     .removed_late = true},
    {.command = "system_call_cloud_get_host_site",
     .program = kHostTool,
     .args = {"-s"},
     .has_cli_ret = true,
     .removed_late = true},
    {.command = "system_call_cloud_get_host_endpoint",
     .program = kHostTool,
     .args = {"-n", "k2_api"},
     .has_cli_ret = true,
     .removed_late = true},
    {.command = "system_call_cloud_get_device_status",
     .program = kDeviceTool,
     .args = {"get_device_status"},
     .member = "device_status",
     .relay = relay_status},
    {.command = "system_call_cloud_get_device_info",
     .program = kDeviceTool,
     .args = {"get_device_info"},
     .member = "device_info"},
    {.command = "system_call_cloud_get_device_list",
     .program = kDeviceTool,
     .args = {"get_device_list", "-d", "TALKBOX_IOS"},
     .member = "device_list",
     .as_text = true},
    {.command = "read_hwsn", .relay = relay_serial},
};

// What the tunnel agent is told, by the command.
struct TunnelCommand {
  std::string_view command;
  std::array<Argument, 7> args;
};

constexpr TunnelCommand kTunnelCommands[] = {
    {.command = "register_kcm", .args = {param(0), "-m", param(1), "-p", param(2), "-c", param(3)}},
    {.command = "unregister_kcm", .args = {param(0), "-r", param(4)}},
    {.command = "get_url", .args = {param(0)}},
};

std::string log_name_of(const CloudCommand& row) {
  return "nos_" + std::string(row.command) + "_handler";
}

void start(std::optional<CapturedRun>& run, const std::string& program,
           const std::vector<std::string>& arguments, Streams streams = Streams::output) {
  run.emplace(program, argument_vector(rootless_path(program), arguments), streams);
}

Outcome answer(const CloudCommand& row, const CapturedRun& run, Json::Value& reply) {
  if (run.status() != 0) return Outcome::failure;
  std::string output = run.output();
  if (row.without_last_line_feed) output.resize(std::min(output.rfind('\n'), output.size()));
  reply[row.member] = row.as_text ? output : base64_text(output);
  if (row.has_cli_ret) reply["cli_ret"] = 0;
  return Outcome::success;
}

Outcome relay_output(const CloudCommand& row, const ParamValues& values, std::optional<CapturedRun>& run,
                     Json::Value& reply) {
  start(run, row.program, arguments_of(row.args, values));
  return answer(row, *run, reply);
}

// What the tool says counts, on either stream, however it ends.
Outcome relay_status(const CloudCommand& row, const ParamValues& values, std::optional<CapturedRun>& run,
                     Json::Value& reply) {
  start(run, row.program, arguments_of(row.args, values), Streams::both);
  if (run->status() != 0) reply["error_msg"] = log_name_of(row) + " fail";
  reply["result"] = run->status();
  reply[row.member] = base64_text(run->output());
  return Outcome::own;
}

Outcome relay_tunnel_agent(const CloudCommand& row, const ParamValues& values,
                           std::optional<CapturedRun>& run, Json::Value& reply) {
  const auto* const known = std::ranges::find(kTunnelCommands, values[0], &TunnelCommand::command);
  if (known == std::end(kTunnelCommands)) {
    reply["error_msg"] = "not support command";
    reply["error_code"] = -6;
    return Outcome::own;
  }
  start(run, row.program, arguments_of(known->args, values));
  return answer(row, *run, reply);
}

// An appliance that runs in the cloud has no hardware whose number could be read.
Outcome relay_serial(const CloudCommand& row, const ParamValues&, std::optional<CapturedRun>& run,
                     Json::Value& reply) {
  start(run, kIdentityTool, {"-d"});
  const std::string identity = run->output();
  const bool in_cloud = identity.substr(0, identity.find('\n')) == kCloudIdentity;
  start(run, in_cloud ? kCloudSerialReader : kSerialReader, {});
  return answer(row, *run, reply);
}

void clean_up(const CloudCommand& row, CapturedRun& run) {
  if (!run.remove() && row.has_cli_ret) {
    LOG_AT(log_name_of(row).c_str(), "remove tmpfile:[%s] fail.", run.file().c_str());
  }
}

}  // namespace

void nos_cloud_command_handler(ks_io* io, int) {
  const CloudCommand& row = row_of<CloudCommand>(kCloudCommands, io->request_name);
  std::optional<CapturedRun> run;
  handle_row(io, log_name_of(row).c_str(), row.params, [&](const ParamValues& values, Json::Value& reply) {
    const Outcome outcome = row.relay(row, values, run, reply);
    if (run && !row.removed_late) clean_up(row, *run);
    return outcome;
  });
  if (run && row.removed_late) clean_up(row, *run);
}
