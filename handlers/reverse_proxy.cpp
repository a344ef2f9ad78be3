// `reverse_proxy`: publishes web services of the application on ports of the appliance, or unpublishes them.
//
//   request  {"action": "add" or "delete" (default), "rule_list": [{"GUID": name of the rule, "port": number,
//            "des_port": number, "protocol": "http" or "https", "des_protocol": "http", "https", "ws" or
//            "wss", "host_name": text, "hsts": true omits the header, "proxy_timeout": number without
//            effect}, ...]}
//   writes   or removes one fragment per rule, named by the GUID
//   runs     the proxy, to reload its configuration; or the daemon manager, to start a proxy for an added rule
//   reply    {"cli_ret": 0 or -1, "result": 0, "result_out": base64 of the output}; none if that program fails,
//            the action is unknown, or a value of a rule has the wrong type
#include <unistd.h>

#include <string>
#include <string_view>
#include <utility>

#include "common/fragment.h"
#include "common/log.h"
#include "common/logged_run.h"
#include "common/tls_settings.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kProxy[] = "/usr/sbin/reverseproxy_vistalsurveillance";
constexpr char kProxyConfig[] = "/etc/reverseproxy_vistalsurveillance/reverseproxy-vistalsurveillance.conf";
constexpr char kFragmentDir[] = "/etc/reverseproxy_vistalsurveillance/extra/";
constexpr char kPidFile[] = "/var/lock/apache_reverse_proxy_vistalsurveillance.pid";
constexpr char kServiceManager[] = "/sbin/svc_mgr";
constexpr char kServiceName[] = "reverseproxy_vistalsurveillance";

constexpr std::size_t kOtherTextSize = 2048;  // bytes, more than the rest of a rule needs

struct TlsSettings {
  std::string protocols;
  std::string ciphers;
  bool has_chain = false;
};

struct Rule {
  int port;
  int target_port;
  std::string protocol;
  std::string target_protocol;
  bool without_hsts;
  std::string target_host;
};

std::string fragment_path(const std::string& guid) {
  constexpr std::string_view kEnd = ".conf";
  std::string path = kFragmentDir;
  path.reserve(path.size() + guid.size() + kEnd.size());
  path.append(guid).append(kEnd);
  return path;
}

// Throws if a value has the wrong type or a port is missing. The order of the checks is visible to clients that send
// several wrong values.
Rule read_rule(const Json::Value& rule) {
  Rule read;
  read.port = member_or(rule, "port", "").asInt();
  read.target_port = member_or(rule, "des_port", "").asInt();
  read.protocol = member_or(rule, "protocol", "http").asString();
  read.target_protocol = member_or(rule, "des_protocol", "http").asString();
  read.without_hsts = member_or(rule, "hsts", false).asBool();
  read.target_host = member_or(rule, "host_name", "").asString();
  (void)member_or(rule, "proxy_timeout", 60).asInt();  // must be a number, but has no effect
  return read;
}

// The line of protocols lacks its directive. Ordinary web servers reject such a configuration, but the platform's own
// may accept it; the text has always been like this.
std::string tls_text(const TlsSettings& tls, bool without_hsts) {
  std::string text = "\tSSLEngine on\n";
  text += "\tSSLCipherSuite " + tls.ciphers + "\n";
  text += "\t" + tls.protocols + "\n";
  text += std::string("\tSSLCertificateFile \"") + kCertificateFile + "\"\n";
  if (tls.has_chain) text += std::string("\tSSLCertificateChainFile \"") + kChainFile + "\"\n";
  if (!without_hsts) text += "\tHeader set Strict-Transport-Security \"max-age=63072000\"\n";
  return text;
}

std::string rule_text(const Rule& rule, const TlsSettings& tls) {
  const std::string port = std::to_string(rule.port);
  const std::string target_port = std::to_string(rule.target_port);
  std::string text = "Listen " + port + "\n<VirtualHost *:" + port + ">\n";
  const auto pass = [&](const char* directive, const char* end) {
    text.append(directive).append(" / ").append(rule.target_protocol).append("://");
    text.append(rule.target_host).append(":").append(target_port).append("/").append(end).append("\n");
  };
  text.reserve(2 * (rule.target_protocol.size() + rule.target_host.size()) + kOtherTextSize);
  if (rule.protocol == "https") text += tls_text(tls, rule.without_hsts);
  if (rule.target_protocol == "https" || rule.target_protocol == "wss") {
    text +=
        "\tSSLProxyEngine on\n\tSSLProxyVerify none\n\tSSLProxyCheckPeerCN off\n"
        "\tSSLProxyCheckPeerName off\n\tSSLProxyCheckPeerExpire off\n";
  }
  text += "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n";
  text += "\tProxyPreserveHost on\n";
  pass("\tProxyPass", " connectiontimeout=60 timeout=60");
  pass("\tProxyPassReverse", "");
  text += "</VirtualHost>\n";
  return text;
}

// Calls `act` with each rule that has a GUID, and the GUID. A GUID with a NUL is ignored: the path would end at the
// NUL, before ".conf".
template <typename Act>
void for_each_rule(Request& request, const Act& act) {
  Json::Value& rules = request.body["rule_list"];
  LogBatch log;  // a list may contain a million rules without a GUID
  for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
    const std::string guid = member_or(rules[i], "GUID", "").asString();
    if (guid.empty() || guid.find('\0') != std::string::npos) {
      log.write("[%s][%d] get jRuleList[%d] strGUID failed", request.log_name.c_str(), __LINE__, static_cast<int>(i));
    } else {
      act(rules[i], guid);
    }
  }
}

void add_rules(Request& request) {
  TlsSettings tls;
  get_ssl_cipher_suite(&tls.ciphers);
  get_ssl_protocols(&tls.protocols);
  tls.has_chain = has_ssl_chain_file() == 1;
  for_each_rule(request, [&](Json::Value& rule, const std::string& guid) {
    const Rule read = read_rule(rule);
    rule = Json::Value();  // free it before the text is kept
    // A failure is not reported: the other rules still take effect, and the reply is for all rules.
    write_fragment(fragment_path(guid), rule_text(read, tls));
  });
}

void delete_rules(Request& request) {
  for_each_rule(request, [](const Json::Value&, const std::string& guid) { unlink(fragment_path(guid).c_str()); });
}

bool proxy_runs() {
  return access(kPidFile, F_OK) == 0;
}

LoggedRun start_proxy(const char* log_name) {
  const std::string command = std::string("\"") + kProxy + " -k start -f " + kProxyConfig + "\"";
  LOG_AT(log_name, "proxy_cmd = %s", command.c_str());
  return {.program = kServiceManager, .arguments = {kServiceName, "start", command}};
}

LoggedRun reload_proxy() {
  return {.program = kProxy, .arguments = {"-k", "graceful", "-f", kProxyConfig}};
}

Outcome change_rules(Request& request) {
  const char* const log_name = request.log_name.c_str();
  const std::string action = member_or(request.body, "action", "delete").asString();
  const bool adds = action == "add";
  if (adds) {
    add_rules(request);
  } else if (action == "delete") {
    delete_rules(request);
  } else {
    LOG_AT(log_name, "unknown action = %s", action.c_str());
    return Outcome::silent;
  }
  LoggedRun run = adds && !proxy_runs() ? start_proxy(log_name) : reload_proxy();
  run.blank_after_argument = true;
  return relay_logged(request, run, true);
}

}  // namespace

constexpr Command main_service::reverse_proxy =
    Row{.params = {optional(text("action")), optional(array("rule_list"))},
        .runs = "/usr/sbin/reverseproxy_vistalsurveillance -k graceful -f CONFIG, or /sbin/svc_mgr to start it",
        .answers = "cli_ret, result, result_out",
        .action = {change_rules, Reads::members}};
