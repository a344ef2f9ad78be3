// Web commands: request -> files written, program run -> reply, log, files left. The tour uses the real web server.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "harness.h"

namespace {

namespace fs = std::filesystem;

constexpr char kProxy[] = "/usr/sbin/reverseproxy_vistalsurveillance";
constexpr char kProxySettings[] = "/etc/reverseproxy_vistalsurveillance/reverseproxy-vistalsurveillance.conf";
constexpr char kProxyRuns[] = "/var/lock/apache_reverse_proxy_vistalsurveillance.pid";
constexpr char kFront[] = "/usr/local/apache/bin/httpd_proxy";
constexpr char kManager[] = "/sbin/svc_mgr";
constexpr char kBooths[] = "/usr/sbin/kesh";
constexpr char kChain[] = "/etc/stunnel/uca.pem";
const std::string kRules = "/etc/reverseproxy_vistalsurveillance/extra/";
const std::string kFrontParts = "/etc/default_config/apache/extra/";
const std::string kBanList = kFrontParts + "vistalcms_ip_ban_list.conf";

const std::string kReload = std::string("reverseproxy_vistalsurveillance|-k|graceful|-f|") + kProxySettings;
constexpr char kDone[] = "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n";
constexpr char kInputError[] = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
constexpr char kBanFails[] = "{\"error_msg\":\"nos_update_ip_ban_list_handler fail\",\"result\":-1}\n";

// The output files that failed runs leave: takes them away and returns what is in them, each in brackets.
std::string left_outputs() {
  std::string left;
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    if (!entry.path().filename().string().starts_with("file")) continue;
    left += "[" + read_file(entry.path()) + "]";
    fs::remove(entry.path());
  }
  return left;
}

class WebFront : public DaemonTest {
 protected:
  WebFront() { clear(); }
  ~WebFront() override { clear(); }
  static void clear() {
    for (const std::string& folder : {kRules, kFrontParts}) {
      fs::remove_all(folder);
      fs::create_directory(folder);
    }
    fs::remove(kProxyRuns);
    fs::remove(kChain);
  }
  // What the log has grown by since the last call.
  std::string said() { return without_numbers(new_log().substr(std::exchange(heard_, new_log().size()))); }
  std::size_t heard_ = 0;
};

TEST_F(WebFront, AProgramsOutputIsTheReplyUnlessItFails) {
  const struct {
    std::string name, body;
    const char* program;
    std::string call;
  } rows[] = {
      {"reverse_proxy", R"({"action":"add"})", kProxy, kReload},
      {"web_booth",
       R"({"action":"add","auth_token":"t =","rule_list":[)"
       R"({"des_protocol":"rtsp","host_name":"h","des_port":-1,"browser_type":"f x"}]})",
       kBooths,
       "kesh|web-booth.container.create|token=t =|open_url=rtsp://h:-1|ttl=300|resolution=1920x1080|type=f "
       "x"},
      {"install_app", R"({"sys_install_folder":"/share/VistalServer","app_file_path":"/a b.kpk","install_volume":"v"})",
       "/share/VistalServer/script/operate_kpkgcenter_app.sh", "operate_kpkgcenter_app.sh|install|/a b.kpk"},
  };
  write_file(kProxyRuns, "");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name + row.body);
    const bool installs = row.name == "install_app";
    const std::string exec = std::string(row.name == "reverse_proxy" ? "] = [(null)] \n" : "] = [(null)]\n") + "[nos_" +
                             row.name + "_handler] exec " + row.program;
    const StandIn program(row.program);
    program.plays("stdout o\\n\\xFF\nstderr e\n");
    EXPECT_EQ(call(kMain, row.name, row.body).text,
              installs ? "{\n\t\"cli_ret\" : 0,\n\t\"result\" : 0,\n\t\"result_out\" : \"bwr/\"\n}"
                       : "{\"cli_ret\":0,\"result\":0,\"result_out\":\"bwr/\"}\n");
    EXPECT_THAT(said(), testing::EndsWith(exec + " succ, ret_out=[o\n\xFF]\n"));
    EXPECT_EQ(program.calls().size(), 1u);
    EXPECT_EQ(program.calls().at(0).line, row.call);
    program.plays("stdout half\nexit 3\n");
    EXPECT_EQ(call(kMain, row.name, row.body).status, KS_STATUS_BROKEN);
    EXPECT_THAT(said(), testing::EndsWith(exec + (installs ? " failed, ret_out=[half]\n" : " failed, ret=[768]\n")));
    EXPECT_EQ(left_outputs(), "[half]");
  }
  // install_app has set its variable in the environment that some programs get.
  const StandIn heir("/sbin/hwctl_app");
  call(kMain, "get_vpd_channel");
  EXPECT_THAT(read_file("/tmp/stand_in/sbin/hwctl_app.calls"), testing::HasSubstr("\nenv KPKGD=ALLOW\n"));
}

TEST_F(WebFront, AnInvalidBodyIsRefusedOrHungUpOn) {
  const std::string long_folder(1100, 'x'), path = long_folder.substr(0, 1023);
  const struct {
    std::string name, body, said, reply;  // what is said last; no reply: hung up
  } rows[] = {
      {"reverse_proxy", R"({"action":"Add"})", "[nos_reverse_proxy_handler] unknown action = Add\n", ""},
      {"web_booth", R"({"action":"?"})", "[nos_web_booth_handler] jRuleList is empty\n",
       "{\"error_code\":-5,\"error_msg\":\"jRuleList is empty\"}\n"},
      {"web_booth", "x", "error=[* Line 1, Column 1\n  Syntax error: value, object or array expected.\n]\n",
       kInputError},
      {"install_app", "{\"sys_install_folder\":\"" + long_folder + "\"}", "exec " + path + " failed, ret_out=[]\n", ""},
  };
  for (const auto& row : rows) {
    const Reply reply = call(kMain, row.name, row.body);
    EXPECT_EQ(reply.text, row.reply);
    EXPECT_EQ(reply.status, row.reply.empty() ? KS_STATUS_BROKEN : KS_STATUS_OK);
    EXPECT_THAT(said(), testing::EndsWith(row.said));
  }
  EXPECT_EQ(left_outputs(), "[]");
}

TEST_F(WebFront, ARuleIsWrittenToTheByte) {
  const auto text = [](const std::string& port, const std::string& tls, const std::string& url) {
    return "Listen " + port + "\n<VirtualHost *:" + port + ">\n" + tls +
           "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n\tProxyPreserveHost on\n\tProxyPass / " + url +
           "/ connectiontimeout=60 timeout=60\n\tProxyPassReverse / " + url + "/\n</VirtualHost>\n";
  };
  const std::string tls =
      "\tSSLEngine on\n\tSSLCipherSuite EECDH+CHACHA20:EECDH+AES\n\tAll -SSLv2 -SSLv3 -TLSv1 -TLSv1.1\n"
      "\tSSLCertificateFile \"/etc/stunnel/stunnel.pem\"\n";
  const std::string chain = "\tSSLCertificateChainFile \"/etc/stunnel/uca.pem\"\n";
  const std::string hsts = "\tHeader set Strict-Transport-Security \"max-age=63072000\"\n";
  const std::string unverified =
      "\tSSLProxyEngine on\n\tSSLProxyVerify none\n\tSSLProxyCheckPeerCN off\n"
      "\tSSLProxyCheckPeerName off\n\tSSLProxyCheckPeerExpire off\n";
  const struct {
    std::string rule, text;  // no text: it cannot be converted, and the connection is closed
    bool has_chain = true;
  } rows[] = {
      {R"("port":8080,"des_port":80,"host_name":"h")", text("8080", "", "http://h:80")},
      {R"("port":-1,"des_port":-2,"host_name":"h","protocol":"https","des_protocol":"wss")",
       text("-1", tls + chain + hsts + unverified, "wss://h:-2")},
      {R"("port":1,"des_port":2,"protocol":"https","des_protocol":"https","hsts":false)",
       text("1", tls + hsts + unverified, "https://:2"), false},
      {R"("port":1,"des_port":2,"protocol":"https","hsts":true)", text("1", tls + chain, "http://:2")},
      {R"("port":1,"des_port":2,"protocol":"HTTPS","des_protocol":"x y","proxy_timeout":5)", text("1", "", "x y://:2")},
      {R"("port":1,"des_port":1,"proxy_timeout":"5")", ""},
  };
  const StandIn manager(kManager);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.rule);
    clear();
    if (row.has_chain) write_file(kChain, "");
    if (!row.text.empty()) write_file(kRules + "cam 1.conf", std::string(10000, 'x'));
    manager.plays("");
    const std::string first = R"({"GUID":5,"port":1,"des_port":1},{},)";
    const std::string body = R"({"action":"add","rule_list":[)" + first + R"({"GUID":"cam 1",)" + row.rule + "}]}";
    EXPECT_EQ(call(kMain, "reverse_proxy", body).text, row.text.empty() ? "" : kDone);
    EXPECT_THAT(said(), testing::StartsWith("[nos_reverse_proxy_handler] get jRuleList[1] strGUID failed\n"));
    EXPECT_EQ(read_file(kRules + "cam 1.conf"), row.text);
    EXPECT_EQ(read_file(kRules + "5.conf"), text("1", "", "http://:1"));
    EXPECT_EQ(manager.calls().size(), row.text.empty() ? 0u : 1u);
  }
  // A name that ends at a NUL could refer to any file.
  write_file(kRules + "cam 1", "");
  for (const char* action : {"add", "delete"}) {
    said();
    const std::string nul =
        R"({"action":")" + std::string(action) + R"(","rule_list":[{"GUID":"cam 1\u0000","port":1,"des_port":1}]})";
    EXPECT_EQ(call(kMain, "reverse_proxy", nul).text, kDone);
    EXPECT_THAT(said(), testing::StartsWith("[nos_reverse_proxy_handler] get jRuleList[0] strGUID failed\n"));
    EXPECT_TRUE(fs::is_regular_file(kRules + "cam 1") && fs::is_empty(kRules + "cam 1")) << action;
  }
  write_file(kRules + "cam 1.conf", "");
  const std::string two = R"({"rule_list":[{"GUID":"none"},{"GUID":""},{"GUID":"cam 1"}]})";
  EXPECT_EQ(call(kMain, "reverse_proxy", two).text, kDone);
  EXPECT_FALSE(fs::exists(kRules + "cam 1.conf"));
}

std::string ban(const std::string& body) {
  return call(kMain, "update_ip_ban_list", body).text;
}

TEST_F(WebFront, TheBanListIsReplacedWhole) {
  const StandIn front(kFront), tunnel("/etc/init.d/stunnel.sh");
  write_file(kBanList, std::string(10000, 'x'));
  const std::pair<const char*, const char*> rows[] = {{"{\"ip_list\":\",a,,b,\"}", "deny from a\ndeny from b\n"},
                                                      {"{\"ip_list\":\"\"} // empty", ""}};
  for (const auto& [body, denied] : rows) {
    front.plays("exit 3\n");
    tunnel.plays("signal 9\n");
    EXPECT_EQ(ban(body), "{\"result\":0}\n");
    EXPECT_EQ(read_file(kBanList), std::string("<LocationMatch \"/.*\">\norder allow,deny\n") + denied +
                                       "allow from all\n</LocationMatch>\n");
    EXPECT_EQ(front.calls().at(0).line, "httpd_proxy|-k|graceful|-f|/etc/httpd-sys-proxy.conf");
    EXPECT_EQ(tunnel.calls().at(0).line, "stunnel.sh|reload");
  }
  front.plays("");
  EXPECT_EQ(ban(R"({"ip_list":["a"]})"), "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n");
  EXPECT_EQ(fs::file_size(kBanList), 71u) << "as it was";
  EXPECT_TRUE(front.calls().empty());
}

// A disk with room for a page, but not for two.
TEST_F(WebFront, AFullDiskLeavesTheOldFile) {
  const auto add = [](const std::string& host) {
    const std::string rule = R"({"GUID":"g","port":1,"des_port":1,"host_name":")" + host + "\"}";
    return call(kMain, "reverse_proxy", R"({"action":"add","rule_list":[)" + rule + "]}").text;
  };
  if (Process("mount -n -t tmpfs -o size=12288 full " + kRules).wait() != 0) GTEST_SKIP() << "cannot mount here";
  EXPECT_EQ(add("h"), kDone);
  const std::string rule = read_file(kRules + "g.conf");
  write_file(kRules + "taken", std::string(4096, 'x'));
  EXPECT_EQ(add(std::string(8192, 'x')), kDone);
  EXPECT_TRUE(!rule.empty() && read_file(kRules + "g.conf") == rule);
  EXPECT_EQ(std::distance(fs::directory_iterator(kRules), {}), 2) << "left behind";
  EXPECT_EQ(Process("umount -n " + kRules).wait(), 0);
}

// A reader never sees a partial list, and the administrator's link, owner and mode are kept.
TEST_F(WebFront, TheBanListIsReplacedAtTheTargetOfItsLink) {
  const std::string behind = "/tmp/list", body = R"({"ip_list":"a"})";
  write_file(behind, "old");
  fs::permissions(behind, fs::perms::owner_read);
  fs::create_symlink("../../../../.." + behind, kBanList);
  const std::ifstream reader(behind);
  EXPECT_EQ(ban(body), "{\"result\":0}\n");
  std::ostringstream seen;
  seen << reader.rdbuf();
  EXPECT_EQ(seen.str(), "old");
  EXPECT_TRUE(fs::is_symlink(kBanList));
  EXPECT_EQ(fs::status(behind).permissions(), fs::perms::owner_read);
  EXPECT_THAT(read_file(kBanList), testing::HasSubstr("\ndeny from a\n"));
  for (const auto& [link, reply] : {std::pair("/dev/null", "{\"result\":0}\n"), {kBanList.c_str(), kBanFails}}) {
    fs::remove(kBanList);
    fs::create_symlink(link, kBanList);
    EXPECT_EQ(ban(body), reply) << link;
  }
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  fs::remove(behind);
}

}  // namespace
