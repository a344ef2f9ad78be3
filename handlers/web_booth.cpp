// `web_booth`: a browser in a container of the appliance, opened on a page and shown to the user.
//
//   request  {"action": "add", "delete" or "get_status", "auth_token": text, "rule_list": [{"bs_id": text,
//            "des_protocol": scheme, "host_name": text, "des_port": number, "browser_type": text}]}; of the
//            list only the first element counts
//   runs     /usr/sbin/kesh with web-booth.container.create token=... open_url=... ttl=300
//                                resolution=1920x1080 type=...
//                              web-booth.container.delete token=... id=...
//                              web-booth.container token=... id=...
//   reply    {"cli_ret": 0, "result": 0, "result_out": base64 of the output}; without a list {"error_code": -5,
//            "error_msg": "jRuleList is empty"}; none when the tool failed, and for another action or none
#include <optional>
#include <string>
#include <vector>

#include "common/log.h"
#include "common/logged_run.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kTool[] = "/usr/sbin/kesh";

using Arguments = std::vector<std::string>;

// Nothing for an action that the tool has no verb for.
std::optional<Arguments> tool_arguments(const std::string& action, const std::string& token,
                                        const Json::Value& rule) {
  const std::string id = "id=" + rule.get("bs_id", "").asString();
  std::string url = "open_url=" + rule.get("des_protocol", "http").asString();
  url += "://" + rule.get("host_name", "").asString();
  url += ":" + std::to_string(rule.get("des_port", 0).asInt());
  const std::string type = "type=" + rule.get("browser_type", "chrome").asString();
  if (action == "add") {
    return Arguments{"web-booth.container.create", token, url, "ttl=300", "resolution=1920x1080", type};
  }
  if (action == "delete") return Arguments{"web-booth.container.delete", token, id};
  if (action == "get_status") return Arguments{"web-booth.container", token, id};
  return std::nullopt;
}

Outcome control_booth(Request& request) {
  const char* const log_name = request.log_name.c_str();
  const Json::Value& body = request.body;
  const std::string action = body.get("action", "remove").asString();
  const Json::Value& rules = body["rule_list"];  // not get(), which copies
  const std::string token = "token=" + body.get("auth_token", "").asString();
  if (rules.size() == 0) {  // empty() would not do: it does not count a text as a list without elements
    LOG_AT(log_name, "jRuleList is empty");
    request.reply["error_code"] = -5;
    request.reply["error_msg"] = "jRuleList is empty";
    return Outcome::own;
  }
  const std::optional<Arguments> arguments = tool_arguments(action, token, rules[0]);
  if (!arguments) {
    LOG_AT(log_name, "unknown action = %s", action.c_str());
    return Outcome::silent;
  }
  return relay_logged(request, {.program = kTool, .arguments = *arguments});
}

}  // namespace

constexpr Command main_service::web_booth =
    Row{.params = {optional(text("action")), optional(text("auth_token")), optional(array("rule_list"))},
        .runs = "/usr/sbin/kesh web-booth.container[.create|.delete] token=AUTH_TOKEN ...",
        .answers = "cli_ret, result, result_out",
        .action = {control_booth, Reads::members}};
