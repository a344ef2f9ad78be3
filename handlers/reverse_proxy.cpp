// `reverse_proxy`: publishes web services of the application on ports of the appliance, or takes them back.
//
//   request  {"action": "add" or "delete" (default), "rule_list": [{"GUID": name of the rule, "port": number,
//            "des_port": number, "protocol": "http" or "https", "des_protocol": "http", "https", "ws" or
//            "wss", "host_name": text, "hsts": true for no such header, "proxy_timeout": number without
//            effect}, ...]}
//   writes   or removes one fragment a rule, named by the GUID
//   runs     the proxy, asked to reload gracefully, or the daemon manager when an added rule needs it started
//   reply    {"cli_ret": 0 or -1, "result": 0, "result_out": base64 of what that printed}; none when it failed,
//            for another action, and for a rule whose values have the wrong type
#include <sys/stat.h>
#include <unistd.h>

#include <string>
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
  return kFragmentDir + guid + ".conf";
}

// Throws when a value has the wrong type or a port is missing; which values are looked at first decides what
// a client is left with that sends several wrong ones.
Rule read_rule(const Json::Value& rule) {
  Rule read;
  read.port = rule.get("port", "").asInt();
  read.target_port = rule.get("des_port", "").asInt();
  read.protocol = rule.get("protocol", "http").asString();
  read.target_protocol = rule.get("des_protocol", "http").asString();
  read.without_hsts = rule.get("hsts", false).asBool();
  read.target_host = rule.get("host_name", "").asString();
  (void)rule.get("proxy_timeout", 60).asInt();  // must be a number, but the timeout is the same for all
  return read;
}

// The line of protocols has no directive before it. Web servers refuse that line, and with it their whole
// configuration, unless the platform's own is taught otherwise; the text has always been this.
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
  const std::string target =
      rule.target_protocol + "://" + rule.target_host + ":" + std::to_string(rule.target_port) + "/";
  std::string text = "Listen " + port + "\n<VirtualHost *:" + port + ">\n";
  if (rule.protocol == "https") text += tls_text(tls, rule.without_hsts);
  if (rule.target_protocol == "https" || rule.target_protocol == "wss") {
    text +=
        "\tSSLProxyEngine on\n\tSSLProxyVerify none\n\tSSLProxyCheckPeerCN off\n"
        "\tSSLProxyCheckPeerName off\n\tSSLProxyCheckPeerExpire off\n";
  }
  text += "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n";
  text += "\tProxyPreserveHost on\n";
  text += "\tProxyPass / " + target + " connectiontimeout=60 timeout=60\n";
  text += "\tProxyPassReverse / " + target + "\n";
  return text + "</VirtualHost>\n";
}

// Calls `act` with each rule that has a GUID, and with the GUID. One with a NUL is none: as a path it would end
// there, before the ".conf".
template <typename Act>
void for_each_rule(const Request& request, const Act& act) {
  const Json::Value& rules = request.body["rule_list"];  // not get(), which copies
  LogBatch log;                                          // a list may have a million rules without a GUID
  for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
    const std::string guid = rules[i].get("GUID", "").asString();
    if (guid.empty() || guid.find('\0') != std::string::npos) {
      log.write("[%s][%d] get jRuleList[%d] strGUID failed", request.log_name.c_str(), __LINE__, static_cast<int>(i));
    } else {
      act(rules[i], guid);
    }
  }
}

void add_rules(const Request& request) {
  TlsSettings tls;
  get_ssl_cipher_suite(&tls.ciphers);
  get_ssl_protocols(&tls.protocols);
  tls.has_chain = has_ssl_chain_file() == 1;
  for_each_rule(request, [&](const Json::Value& rule, const std::string& guid) {
    // A failure is not reported: the other rules still take effect, and there is no reply for a single one.
    write_fragment(fragment_path(guid), rule_text(read_rule(rule), tls));
  });
}

void delete_rules(const Request& request) {
  for_each_rule(request, [](const Json::Value&, const std::string& guid) { unlink(fragment_path(guid).c_str()); });
}

bool proxy_runs() {
  struct stat found {};
  return stat(kPidFile, &found) == 0;
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
  const std::string action = request.body.get("action", "delete").asString();
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
