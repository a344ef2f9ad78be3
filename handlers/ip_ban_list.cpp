// `update_ip_ban_list`: replaces the list of addresses that the appliance's front web server refuses.
//
//   request  {"ip_list": addresses, separated by commas, each as the web server reads it after "deny from"}
//   writes   the server's fragment
//   runs     /usr/local/apache/bin/httpd_proxy -k graceful -f /etc/httpd-sys-proxy.conf, then
//            /etc/init.d/stunnel.sh reload
//   reply    {"result": 0}, whatever their exit statuses; the failure reply if the list cannot be written
#include <algorithm>
#include <string>
#include <string_view>

#include "common/fragment.h"
#include "common/json_cost.h"
#include "common/log.h"
#include "common/process.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kFragment[] = "/etc/default_config/apache/extra/vistalcms_ip_ban_list.conf";
constexpr char kWebServer[] = "/usr/local/apache/bin/httpd_proxy";
constexpr char kWebServerConfig[] = "/etc/httpd-sys-proxy.conf";
constexpr char kTunnelScript[] = "/etc/init.d/stunnel.sh";

constexpr std::string_view kBegin = "<LocationMatch \"/.*\">\norder allow,deny\n";
constexpr std::string_view kBeforeAddress = "deny from ";
constexpr std::string_view kEnd = "allow from all\n</LocationMatch>\n";

// Calls `act` with each address. A list of strings would need more memory than the addresses.
template <typename Act>
void for_each_address(std::string_view addresses, const Act& act) {
  for (std::size_t begin = 0, end = 0; end < addresses.size(); begin = end + 1) {
    end = std::min(addresses.find(',', begin), addresses.size());
    if (end > begin) act(addresses.substr(begin, end - begin));
  }
}

std::size_t fragment_size(std::string_view addresses) {
  std::size_t size = kBegin.size() + kEnd.size();
  for_each_address(addresses, [&](std::string_view address) { size += kBeforeAddress.size() + address.size() + 1; });
  return size;
}

std::string fragment_text(std::string_view addresses, std::size_t size) {
  std::string text;
  text.reserve(size);
  text.append(kBegin);
  for_each_address(addresses,
                   [&](std::string_view address) { text.append(kBeforeAddress).append(address).append("\n"); });
  text.append(kEnd);
  return text;
}

Outcome update_ban_list(Request& request, const std::string& addresses) {
  const std::size_t size = fragment_size(addresses);
  if (size + addresses.size() > kJsonBudget) {  // for tens of millions of very short addresses
    LOG_AT(request.log_name.c_str(), "a fragment of %zu bytes is too large.", size);
    return Outcome::failure;
  }
  if (!write_fragment_through_links(kFragment, fragment_text(addresses, size))) return Outcome::failure;
  // A stopped server reads the list when it starts.
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
        .action = calls<update_ban_list>};
