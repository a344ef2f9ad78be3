// `web_booth`: opens a page for the user in a browser that runs in a container on the appliance.
//
//   request  {"action": "add", "delete" or "get_status", "auth_token": text, "rule_list": [{"bs_id": text,
//            "des_protocol": scheme, "host_name": text, "des_port": number, "browser_type": text}]}
//   runs     /usr/sbin/kesh with one verb per action. Only the first element of the list counts.
//   reply    {"cli_ret": 0, "result": 0, "result_out": base64 of the output}; an error if the list is empty; none
//            if the tool fails or the action is unknown or absent
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/log.h"
#include "common/logged_run.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kTool[] = "/usr/sbin/kesh";

using Arguments = std::vector<std::string>;

// An initializer list would copy the texts, which may be large.
template <typename... Text>
Arguments listed(Text&&... texts) {
  Arguments arguments;
  arguments.reserve(sizeof...(texts));
  (arguments.emplace_back(std::forward<Text>(texts)), ...);
  return arguments;
}

// Nothing if the tool has no verb for the action.
std::optional<Arguments> tool_arguments(const std::string& action, std::string token, const Json::Value& rule) {
  std::string id = "id=" + member_or(rule, "bs_id", "").asString();
  std::string url = "open_url=" + member_or(rule, "des_protocol", "http").asString();
  url += "://" + member_or(rule, "host_name", "").asString();
  url += ":" + std::to_string(member_or(rule, "des_port", 0).asInt());
  std::string type = "type=" + member_or(rule, "browser_type", "chrome").asString();
  if (action == "add") {
    return listed("web-booth.container.create", std::move(token), std::move(url), "ttl=300", "resolution=1920x1080",
                  std::move(type));
  }
  if (action == "delete") return listed("web-booth.container.delete", std::move(token), std::move(id));
  if (action == "get_status") return listed("web-booth.container", std::move(token), std::move(id));
  return std::nullopt;
}

Outcome control_booth(Request& request) {
  const char* const log_name = request.log_name.c_str();
  const Json::Value& body = request.body;
  const std::string action = member_or(body, "action", "remove").asString();
  const Json::Value& rules = body["rule_list"];  // not get(), which copies
  std::string token = "token=" + member_or(body, "auth_token", "").asString();
  if (rules.size() == 0) {  // not empty(), which is false for a text
    LOG_AT(log_name, "jRuleList is empty");
    request.reply["error_code"] = -5;
    request.reply["error_msg"] = "jRuleList is empty";
    return Outcome::own;
  }
  std::optional<Arguments> arguments = tool_arguments(action, std::move(token), rules[0]);
  if (!arguments) {
    LOG_AT(log_name, "unknown action = %s", action.c_str());
    return Outcome::silent;
  }
  return relay_logged(request, {.program = kTool, .arguments = std::move(*arguments)});
}

}  // namespace

constexpr Command main_service::web_booth =
    Row{.params = {optional(text("action")), optional(text("auth_token")), optional(array("rule_list"))},
        .runs = "/usr/sbin/kesh web-booth.container[.create|.delete] token=AUTH_TOKEN ...",
        .answers = "cli_ret, result, result_out",
        .action = {control_booth, Reads::members}};
