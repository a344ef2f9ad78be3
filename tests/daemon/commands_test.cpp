// The commands: request -> call of a platform program or library -> reply, with programs that succeed or fail.
#include <filesystem>

#include "common/base64.h"
#include "harness.h"

namespace {

namespace fs = std::filesystem;

constexpr char kHardware[] = "/sbin/hwctl_app";
constexpr char kGuard[] = "/sbin/share_guard";
constexpr char kReader[] = "/usr/bin/getfattr";
constexpr char kAnalytics[] = "/usr/local/bin/kanalytic_tool";
constexpr char kNotify[] = "/share/VistalServer/vistalpro_notify.sh";
constexpr char kAccounts[] = "/usr/lib/libuCore_NAS.so.0.0";
constexpr char kPackages[] = "/etc/config/kpkg.conf";
constexpr char kDevices[] = "/usr/local/bin/kcloud_device_tool";
constexpr char kTunnel[] = "/usr/local/bin/kcloud_tunnel_agent_tool";
constexpr char kLogin[] = "/sbin/kcli";
constexpr char kToken[] = "/usr/bin/kcloud_cli";
constexpr char kConnections[] = "/sbin/connrec_tool";
constexpr char kAgent[] = "/share/VistalServer/ext_service/ExtVistalCloudAgent/vistal_agent_cli";

constexpr char kTunnelAgent[] = "system_call_cloud_kcm_tunnel_agent";
const std::string kTunnelTool = std::string(kTunnel + 1) + "|";
constexpr char kUsage[] = "system_get_tiermount_cloud_usage";
constexpr char kLoginFails[] = R"({"error_code":-2,"error_msg":"get_sess_id fail"})";

const std::string kX40(40, 'x');

// A body with all parameters of these commands. The last of two members with the same name counts.
std::string body(const std::string& more = R"("more":[1])") {
  return R"({"share_name":"","group_name":"everyone","user":")" + kX40 + R"(","pwd":"a b)" + kX40 +
         R"(","sid":"s1","length":-2147483648,"offest":-2147483648,"full_path":"L3NoYXJlL0NvbGQgMQ==",)"
         R"("cmd":3,"type":-1,"acy":2147483647,"provide_id":"p 1","command":"get_url","mode":"M",)"
         R"("package_name":"P n","callback_path":"C","reg_id":"R","log_type":1,"service_type":-2,)"
         R"("action_type":3,"log_mseg":"m \"m\"","user_name":"u","IP":"::1","computer_name":"pc",)" +
         more + "}";
}

std::string answer(const std::string& name, const std::optional<std::string>& body = std::nullopt) {
  const std::string text = call(kMain, name, body).text;
  return text.ends_with('\n') ? text.substr(0, text.size() - 1) : "no line: " + text;
}

std::string base64(const std::string& bytes) {
  std::string encoded;
  base64_encode(bytes, &encoded);
  return encoded;
}

class Commands : public DaemonTest {
 protected:
  // The attribute reader is the machine's own. In an ordinary user's appliance it can be deleted but not changed.
  Commands() {
    fs::remove(kReader);
    fs::copy_file(kGuard, kReader);
  }
};

// The failure reply, from the handler's own name.
std::string failed(const std::string& handler) {
  return R"({"error_msg":")" + handler + R"( fail","result":-1})";
}

std::string failed_command(const std::string& name) {
  return failed("nos_" + name + "_handler");
}

// At least one command of each kind.
TEST_F(Commands, AProgramOrLibraryThatFailsIsAFailureReply) {
  const struct Row {
    std::string name;
    const char* program;
    std::string failure = failed_command(name);
  } rows[] = {
      {"system_call_share_guard_add", kGuard},
      {"system_call_vistalpro_disable", "/etc/init.d/vistalserver.sh",
       failed("nos_system_system_call_vistalpro_disable_handler")},
      {kUsage, kReader},
      {"get_sess_id", kLogin, kLoginFails},
      {"get_all_users", kAccounts},
      {"vistal_auth_get_session", "/usr/lib/libuCore_nasauth.so.1.0.0"},
      {"system_call_cloud_get_user_token", kToken},
      {"system_call_evrec_tool", "/sbin/evrec_tool"},
      {"system_connrec_tool", kConnections, failed("nos_system_call_evrec_tool_handler")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const StandIn program(row.program);
    for (const char* script : {"exit 3\nreturn -1\n", "signal 9\nreturn -1\n"}) {
      program.plays(script);
      EXPECT_EQ(answer(row.name, body()), row.failure) << script;
      EXPECT_EQ(program.calls().size(), 1u);
    }
    program.remove();
    EXPECT_EQ(answer(row.name, body()), row.failure) << "missing";
  }
  EXPECT_THAT(read_file("/proc/" + std::to_string(daemon_->pid()) + "/maps"),
              testing::Not(testing::HasSubstr("libuCore")));
}

TEST_F(Commands, LongArgumentsAreTruncatedAndOthersUnchanged) {
  const struct {
    const char *name, *program;
    std::string line;
    const char* more = R"("more":[1])";
  } rows[] = {
      {"get_vpd_ext_area", kHardware, "hwctl_app|--vpd_get_ext_area|offset=-2147483648,length=-2147"},
      {kUsage, kReader, "getfattr|--only-values|--absolute-names|-n|trusted.tm.cloud_usage|/share/Cold 1"},
      {"get_sess_id", kLogin, "kcli|-l|user=" + kX40.substr(14) + "|pw=a b" + kX40.substr(15)},
      {kTunnelAgent, kTunnel, kTunnelTool + "register_kcm|-m|M|-p|P n|-c|C", R"("command":"register_kcm")"},
      {kTunnelAgent, kTunnel, kTunnelTool + "unregister_kcm|-r|R", R"("command":"unregister_kcm")"},
  };
  for (const auto& row : rows) {
    const StandIn program(row.program);
    answer(row.name, body(row.more));
    EXPECT_EQ(program.calls().at(0).line, row.line);
  }
}

TEST_F(Commands, TheOutputOfAProgramBecomesTheReply) {
  const auto ok = [](const std::string& member, const std::string& value) {
    return R"({"result":0,")" + member + "\":\"" + value + "\"}";
  };
  const auto channel = [&](const std::string& value) { return ok("vpd_channel", value); };
  const auto usage = [&](const std::string& bytes) { return ok("size_info", base64(bytes)); };
  const struct {
    const char *name, *program, *script;
    std::string reply;
  } rows[] = {
      {"get_vpd_channel", kHardware, "stdout a name = \\n A  B\\n \\n\n", channel("A  B")},
      {"get_vpd_channel", kHardware, "stdout n=v\\x00w=x\nstderr a=b=c\nexit 3\n", channel("v")},
      {"get_vpd_channel", kHardware, "stdout n=v\nlinger 100\n", channel("v")},
      {"get_vpd_channel", kHardware, "stdout n=\nbytes 10485760\n", channel(std::string(10485760, '#'))},
      {"get_vpd_channel", kHardware, "stdout n=v=w\\n\n", failed_command("get_vpd_channel")},
      {"get_vpd_ext_area", kHardware, "stdout A B\\nC\\n\nexit 1\n", ok("vpd_ext_area", "ABC")},
      {"get_sess_id", kLogin, "stdout \\n\\na b\\n\\n  sid   is  x=y  \n", R"({"error_code":0,"sid":"x=y"})"},
      {"get_sess_id", kLogin, "stdout a\\nb c d\\ne\\n\n", kLoginFails},
      {kUsage, kReader, "stdout a\\x00\ndelay 20\nstdout b\nexit 1\n", usage(std::string("a\0b", 3))},
      {kUsage, kReader, "bytes 1533\n", usage(std::string(1533, '#'))},
      {kUsage, kReader, "bytes 1534\n", failed_command(kUsage)},
      {"system_call_cloud_get_user_token", kToken, "stdout a\\x00b\nstderr c\n",
       R"({"cli_ret":0,"result":0,"result_out":"YQBi"})"},
      {"system_call_cloud_get_device_status", kDevices, "stdout a\nstderr b\nstdout c\nexit 3\n",
       R"({"device_status":"YWJj","error_msg":"nos_system_call_cloud_get_device_status_handler fail","result":768})"},
  };
  for (const auto& row : rows) {
    const StandIn program(row.program);
    program.plays(row.script);
    EXPECT_EQ(answer(row.name, body()), row.reply) << row.script;
  }
}

TEST_F(Commands, ABadRequestIsRefusedAndRunsNothing) {
  const std::pair<const char*, std::string> rows[] = {{"system_call_share_guard_add", R"({"share_name":5})"},
                                                      {"get_vpd_ext_area", R"({"offest":2147483648,"length":8})"},
                                                      {kTunnelAgent, R"({"command":"get_url"})"}};
  for (const auto& [name, refused] : rows)
    EXPECT_EQ(answer(name, refused), R"({"error_code":-1,"error_msg":"paser fail"})") << refused;
  EXPECT_EQ(answer(kTunnelAgent, body(R"("command":"GET_URL")")),
            R"({"error_code":-6,"error_msg":"not support command"})");
  EXPECT_EQ(new_log(), "");
  const StandIn tool(kGuard);
  EXPECT_EQ(answer("system_call_share_guard_add", "{\"share_name\":\"x\""),
            R"({"error_code":-1,"error_msg":"input error"})");
  EXPECT_THAT(new_log(), testing::MatchesRegex(
                             ".* \\[nos_system_call_share_guard_add_handler\\]\\[[0-9]+\\] ks_io input fail\\.\n"));
  // What handlers throw costs one request and one log line.
  for (const auto& thrown : {std::optional<std::string>(), std::optional(std::string(5000, '['))}) {
    const std::string log = new_log();
    EXPECT_EQ(call(kMain, "system_call_share_guard_add", thrown).status, KS_STATUS_BROKEN);
    EXPECT_THAT(new_log().substr(log.size()), testing::MatchesRegex("[^\n]+ ended without a reply: [^\n]+\n"));
  }
  EXPECT_TRUE(tool.calls().empty());
}

TEST_F(Commands, ANotificationRunsItsWrapperThroughAShell) {
  const std::string path = "/share/VistalServer/script/nc_wrapper.sh";
  const StandIn wrapper(path);
  const StandIn script(kNotify);
  const auto notify = [&](const std::string& value) {
    return answer("system_call_nc_notify", "{\"nc_notify\":\"" + value + "\"}");
  };
  const std::pair<std::string, std::string> rows[] = {
      {base64("-A 'a b' $((1+1)) \"c;d\""), "|-A|a b|2|c;d"},
      {base64(std::string(5000, 'x')), "|" + std::string(4095 - path.size() - 1, 'x')}};
  for (const auto& [value, arguments] : rows) {
    wrapper.plays("");
    EXPECT_EQ(notify(value), R"({"result":0})");
    EXPECT_EQ(wrapper.calls().at(0).line, path + arguments);
  }
  wrapper.plays("exit 3\n");
  EXPECT_EQ(notify(base64("x")), failed_command("system_call_nc_notify"));
  EXPECT_EQ(answer("notify_return", R"({"cmd":2,"type":1,"acy":5})"), failed("nos_return_handler"));
  fs::rename(kPackages, "/etc/config/aside");  // the package is at no known place
  EXPECT_EQ(notify(base64("exit 0")), R"({"result":0})");
  EXPECT_EQ(answer("notify_return", R"({"cmd":3,"type":1,"acy":5})"), failed("nos_return_handler"));
  fs::rename("/etc/config/aside", kPackages);
  EXPECT_TRUE(script.calls().empty());
}

TEST_F(Commands, AFailedRegistrationLeavesItsRecord) {
  const StandIn tool(kAnalytics);
  tool.plays("exit 3\n");
  const std::string id(600, 'i');
  EXPECT_EQ(answer("system_call_cloud_analysis_register", R"({"command":"reg","provide_id":")" + id + "\"}"),
            failed_command("system_call_cloud_analysis_register"));
  EXPECT_EQ(read_file("/tmp/.vistalsurveillance_log/cloud_analysis_register.dbg"),
            "cmd=[reg]\nprovide_id=[" + id + "]\nstr_cloud_analysis_register=[" +
                ("/usr/local/bin/kanalytic_tool reg -p " + id).substr(0, 511) + "]\nret_val=[3]\n");
}

TEST_F(Commands, ALibraryCountThatDoesNotFitItsListIsAFailure) {
  const StandIn accounts(kAccounts);
  const struct {
    const char* script;
    const char* users;    // of the reply; null: the failure reply
    const char* members;  // of the members of "everyone"
  } rows[] = {
      {"count 1\n", R"({"local_count":1,"result":0,"user_list":["admin"]})",
       R"({"result":0,"user_count":1,"user_list":[true]})"},
      {"count 0\nnull\n", R"({"local_count":0,"result":0,"user_list":null})",
       R"({"result":0,"user_count":0,"user_list":null})"},
      {"count -5\n", R"({"local_count":-5,"result":0,"user_list":null})", nullptr},
      {"null 1\n", nullptr, R"({"result":0,"user_count":3,"user_list":[true,false,true]})"},
      {"count 65537\n", nullptr, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    accounts.plays(row.script);
    EXPECT_EQ(answer("get_all_users"), row.users != nullptr ? row.users : failed_command("get_all_users"));
    EXPECT_EQ(answer("get_group_members", body()),
              row.members != nullptr ? row.members : failed_command("get_group_members"));
  }
  // Names without a NUL end with their entry.
  accounts.plays("full\n");
  EXPECT_EQ(call(kMain, "get_all_users").json()["user_list"][0], std::string(32, 'x'));
  accounts.remove();
  fs::copy_file("/usr/lib/libuCore_config.so.0.0", kAccounts);
  EXPECT_EQ(answer("get_all_users"), failed_command("get_all_users")) << "lacks the function";
}

TEST_F(Commands, TheOutputOfCloudToolsIsReturnedWithoutALogLine) {
  const StandIn version("/usr/sbin/kcloud_tool"), id("/sbin/read_suid");
  id.plays("stdout in the cloud\n");
  const std::pair<const char*, const char*> versions[] = {{"stdout VNOS_CLD\\nmore\nexit 3\n", "in the cloud"},
                                                          {"stdout VNOS_CLD \n", ""}};
  for (const auto& [script, output] : versions) {
    version.plays(script);
    EXPECT_EQ(answer("read_hwsn"), R"({"result":0,"result_out":")" + base64(output) + "\"}") << script;
  }
  EXPECT_EQ(new_log(), "") << "file names, arguments and tokens must not be in the log";
}

TEST_F(Commands, EntriesForTheLogsAreLoggedHereToo) {
  const StandIn connections(kConnections);
  connections.plays("exit 1\n");
  answer("system_call_evrec_tool", R"({"log_mseg":"a b","log_type":4})");
  answer("system_connrec_tool", body());
  EXPECT_THAT(new_log(), testing::AllOf(testing::HasSubstr("] argv:2 , index:-t .\n"),
                                        testing::HasSubstr("] argv:5 , index:a b .\n"),
                                        testing::HasSubstr(" LogType:1 , ServiceType:-2, ActionType:3, LogMsg:m "),
                                        testing::EndsWith("] fail .\n")));
}

TEST_F(Commands, APackageProgramThatFailsIsReportedWithItsStatus) {
  const StandIn viewer("/share/CayinMediaViewer/bin/rdconf"), agent(kAgent);
  viewer.plays("stdout a\\x00b\nbytes 1019\nstdout cd\nexit 3\n");
  EXPECT_EQ(answer("cmv_cli", R"({"cmd":"a b"})"),
            R"({"cli_ret":768,"is_enabled":1,"is_installed":1,"result":0,"result_out":"YWQ="})");
  agent.plays("stdout out\nsignal 9\n");
  EXPECT_EQ(answer("vistal_agent_cli", R"({"opt":["status","-v x"]})"),
            R"({"cli_ret":9,"result":0,"result_out":"b3V0"})");
  EXPECT_EQ(answer("vistal_agent_cli", "{"), R"({"error_msg":"input error","result":-1})");
  EXPECT_EQ(call(kMain, "vistal_agent_cli", R"({"opt":["a",1]})").status, KS_STATUS_BROKEN);
  agent.remove();
  EXPECT_EQ(answer("vistal_agent_cli", "{"), R"({"error_msg":"vistal_agent_cli_path does not exist","result":-4})");

  // As far as the package list knows: enabled in another spelling, and nowhere.
  fs::copy_file(kPackages, "/etc/config/aside");
  write_file(kPackages, "[CayinMediaViewer]\nEnable = true\n");
  const Json::Value missing = call(kMain, "cmv_cli", R"({"cmd":""})").json();
  EXPECT_TRUE(missing["is_enabled"] == 1 && missing["is_installed"] == 0 && missing["result"] == 0);
  fs::rename("/etc/config/aside", kPackages);
}

}  // namespace
