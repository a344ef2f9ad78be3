// Cloud commands: each runs one of the platform's cloud tools and returns its output. A row per command holds the
// differences; commands that do more have a function.
//
//   request  the row's parameters
//   reply    {"result": 0, MEMBER: base64 of the output} and, in most, "cli_ret": 0, or the failure reply when
//            the tool does not exit with 0. The device list is text instead of base64, and the device status
//            comes with a failure, too.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/base64.h"
#include "common/captured_run.h"
#include "common/log.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kDeviceTool[] = "/usr/local/bin/kcloud_device_tool";
constexpr char kTunnelTool[] = "/usr/local/bin/kcloud_tunnel_agent_tool";
constexpr char kHostTool[] = "/usr/sbin/get_kcloud_host";
constexpr char kIdentityTool[] = "/usr/sbin/kcloud_tool";
constexpr char kSerialReader[] = "/sbin/read_hwsn";
constexpr char kCloudSerialReader[] = "/sbin/read_suid";
constexpr char kCloudIdentity[] = "VNOS_CLD";  // of an appliance that runs in the cloud

// How a tool's output becomes the reply.
struct Relay {
  bool has_cli_ret = false;  // also logs if the output file cannot be removed
  bool without_last_line_feed = false;
  bool as_text = false;       // instead of base64
  bool removed_late = false;  // removes the output file after the reply
};

Outcome answer(Request& request, Relay how, const CapturedRun& run) {
  if (run.status() != 0) return Outcome::failure;
  std::string output = run.output();
  if (how.without_last_line_feed) output.resize(std::min(output.rfind('\n'), output.size()));
  const char* const member = request.command.member;
  request.reply[member != nullptr ? member : "result_out"] = how.as_text ? output : base64_text(output);
  if (how.has_cli_ret) request.reply["cli_ret"] = 0;
  return Outcome::success;
}

Outcome run_and_answer(Request& request, Relay how, const std::string& program, std::vector<std::string> arguments) {
  const auto run =
      std::make_shared<CapturedRun>(program, argument_vector(rootless_path(program), std::move(arguments)));
  const auto clean_up = [how, run, log_name = request.log_name] {
    if (!run->remove() && how.has_cli_ret) {
      LOG_AT(log_name.c_str(), "remove tmpfile:[%s] fail.", run->file().c_str());
    }
  };
  const Outcome outcome = answer(request, how, *run);
  if (how.removed_late) {
    request.afterwards = clean_up;
  } else {
    clean_up();
  }
  return outcome;
}

template <Relay how>
Outcome relay(Request& request) {
  return run_and_answer(request, how, request.program(), request.arguments());
}

// The result is the tool's output on both streams, whatever its exit status.
Outcome relay_status(Request& request) {
  const std::string program = request.program();
  const CapturedRun run(program, argument_vector(rootless_path(program), request.arguments()), Streams::both);
  if (run.status() != 0) request.reply["error_msg"] = request.log_name + " fail";
  request.reply["result"] = run.status();
  request.reply["device_status"] = base64_text(run.output());
  return Outcome::own;
}

Outcome relay_tunnel_agent(Request& request, const std::string& command, const std::string& mode,
                           const std::string& package, const std::string& callback, const std::string& id) {
  std::vector<std::string> arguments = {command};
  if (command == "register_kcm") {
    arguments.insert(arguments.end(), {"-m", mode, "-p", package, "-c", callback});
  } else if (command == "unregister_kcm") {
    arguments.insert(arguments.end(), {"-r", id});
  } else if (command != "get_url") {
    request.reply["error_msg"] = "not support command";
    request.reply["error_code"] = -6;
    return Outcome::own;
  }
  return run_and_answer(request, {.has_cli_ret = true}, kTunnelTool, std::move(arguments));
}

bool runs_in_cloud() {
  const CapturedRun run(kIdentityTool, {rootless_path(kIdentityTool), "-d"});
  const std::string identity = run.output();
  return identity.substr(0, identity.find('\n')) == kCloudIdentity;
}

// An appliance that runs in the cloud has no hardware number.
Outcome relay_serial(Request& request) {
  return run_and_answer(request, {}, runs_in_cloud() ? kCloudSerialReader : kSerialReader, {});
}

constexpr Relay kRemovedLate = {.has_cli_ret = true, .removed_late = true};
constexpr char kCliRetAnswers[] = "cli_ret, result, result_out";

}  // namespace

constexpr Command main_service::system_call_cloud_get_kid_service =
    Row{.params = {text("section_name"), text("field_name")},
        .program = "/sbin/rdconf",
        .args = {param("section_name"), param("field_name"), "-f", "/etc/config/kid.conf"},
        .answers = kCliRetAnswers,
        .action = relay<Relay{.has_cli_ret = true, .without_last_line_feed = true}>};

constexpr Command main_service::system_call_cloud_get_access_token =
    Row{.params = {text("client_id"), text("client_secret"), text("access_token")},
        .program = "/usr/local/bin/kcloud_auth_tool",
        .args = {"signin", "-t", "exchange_token", "-a", param("access_token"), "-i", param("client_id"), "-s",
                 param("client_secret"), "-o", "json"},
        .answers = kCliRetAnswers,
        .action = relay<Relay{.has_cli_ret = true}>};

constexpr Command main_service::system_call_cloud_kcm_tunnel_agent =
    Row{.params = {text("command"), text("mode"), text("package_name"), text("callback_path"), text("reg_id")},
        .runs =
            "/usr/local/bin/kcloud_tunnel_agent_tool register_kcm -m MODE -p PACKAGE_NAME -c CALLBACK_PATH, "
            "unregister_kcm -r REG_ID or get_url",
        .answers = kCliRetAnswers,
        .action = calls<relay_tunnel_agent>};

constexpr Command main_service::system_call_cloud_get_user_token =
    Row{.program = "/usr/bin/kcloud_cli", .args = {"-t"}, .answers = kCliRetAnswers, .action = relay<kRemovedLate>};

constexpr Command main_service::system_call_cloud_get_host_site =
    Row{.program = kHostTool, .args = {"-s"}, .answers = kCliRetAnswers, .action = relay<kRemovedLate>};

constexpr Command main_service::system_call_cloud_get_host_endpoint =
    Row{.program = kHostTool, .args = {"-n", "k2_api"}, .answers = kCliRetAnswers, .action = relay<kRemovedLate>};

constexpr Command main_service::system_call_cloud_get_device_status = Row{
    .program = kDeviceTool, .args = {"get_device_status"}, .answers = "device_status, result", .action = relay_status};

constexpr Command main_service::system_call_cloud_get_device_info =
    Row{.program = kDeviceTool, .args = {"get_device_info"}, .member = "device_info", .action = relay<Relay{}>};

constexpr Command main_service::system_call_cloud_get_device_list =
    Row{.program = kDeviceTool,
        .args = {"get_device_list", "-d", "TALKBOX_IOS"},
        .member = "device_list",
        .action = relay<Relay{.as_text = true}>};

constexpr Command main_service::read_hwsn =
    Row{.runs = "/usr/sbin/kcloud_tool -d; then /sbin/read_hwsn, or /sbin/read_suid in the cloud",
        .member = "result_out",
        .action = relay_serial};
