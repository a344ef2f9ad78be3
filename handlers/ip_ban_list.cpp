// `update_ip_ban_list`: the addresses that the appliance's front web server refuses, always as a whole.
//
//   request  {"ip_list": addresses, separated by commas, each as the web server reads it after "deny from"}
//   writes   the server's fragment
//   runs     /usr/local/apache/bin/httpd_proxy -k graceful -f /etc/httpd-sys-proxy.conf, then
//            /etc/init.d/stunnel.sh reload
//   reply    {"result": 0}, whatever the two made of it; the failure reply when the list could not be written
#include <string>

#include "common/fragment.h"
#include "common/process.h"
#include "common/text.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kFragment[] = "/etc/default_config/apache/extra/vistalcms_ip_ban_list.conf";
constexpr char kWebServer[] = "/usr/local/apache/bin/httpd_proxy";
constexpr char kWebServerConfig[] = "/etc/httpd-sys-proxy.conf";
constexpr char kTunnelScript[] = "/etc/init.d/stunnel.sh";

std::string fragment_text(const std::string& addresses) {
  std::string text = "<LocationMatch \"/.*\">\norder allow,deny\n";
  for (const std::string& address : split_string(addresses, ",", true)) text += "deny from " + address + "\n";
  return text + "allow from all\n</LocationMatch>\n";
}

Outcome update_ban_list(Request&, const std::string& addresses) {
  if (!write_fragment_through_links(kFragment, fragment_text(addresses))) return Outcome::failure;
  // A server that does not run now reads the list when it starts.
  exec_cmd_args(nullptr, nullptr, nullptr, kWebServer, "-k", "graceful", "-f", kWebServerConfig, nullptr);
  exec_cmd_args(nullptr, nullptr, nullptr, kTunnelScript, "reload", nullptr);
  return Outcome::success;
}

}  // namespace

constexpr Command main_service::update_ip_ban_list =
    Row{.params = {text("ip_list")},
        .runs =
            "/usr/local/apache/bin/httpd_proxy -k graceful -f /etc/httpd-sys-proxy.conf; "
            "/etc/init.d/stunnel.sh reload",
        .action = with_params<update_ban_list>};
