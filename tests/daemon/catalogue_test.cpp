// The commands that run one program: request -> argument vector that the program saw -> reply.
#include <gmock/gmock.h>

#include "harness.h"
#include "service/ks.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

struct ToolRow {
  const char* command;
  const char* body;  // null: none
  const char* tool;
  std::vector<std::string> argv;
  const char* failure;  // "error_msg" when the tool fails
};

const ToolRow kTools[] = {
    {"system_call_share_guard_add",
     R"({"share_name":"Camera 1"})",
     "/sbin/share_guard",
     {"share_guard", "add", "Camera 1", "VistalServer"},
     "nos_system_call_share_guard_add_handler fail"},
    {"system_call_share_guard_remove",
     R"({"more":[1],"share_name":""})",
     "/sbin/share_guard",
     {"share_guard", "remove", ""},
     "nos_system_call_share_guard_remove_handler fail"},
    {"system_call_vistalpro_disable",
     "not JSON, not read",
     "/etc/init.d/vistalserver.sh",
     {"vistalserver.sh", "force_stop"},
     "nos_system_system_call_vistalpro_disable_handler fail"},
    {"system_call_cloud_analysis_send",
     R"({"provide_id":"p0","command":"send","record_type":"t y","record_text":"-e \"x\""})",
     "/usr/local/bin/kanalytic_tool",
     {"kanalytic_tool", "send", "-p", "p0", "-r", "t y", "-e", "-e \"x\""},
     "nos_system_call_cloud_analysis_send_handler fail"},
    {"system_call_cloud_analysis_flush",
     R"({"command":"flush","provide_id":"p1"})",
     "/usr/local/bin/kanalytic_tool",
     {"kanalytic_tool", "flush", "-p", "p1"},
     "nos_system_call_cloud_analysis_flush_handler fail"},
    {"system_call_cloud_analysis_unregister",
     R"({"command":"unreg","provide_id":"p2"})",
     "/usr/local/bin/kanalytic_tool",
     {"kanalytic_tool", "unreg", "-p", "p2"},
     "nos_system_call_cloud_analysis_unregister_handler fail"},
    {"system_trn_smb_setfolder_priv",
     R"({"share_name":"s","command":"c","priv_type":"rw"})",
     "/etc/init.d/vistal_smb_update.sh",
     {"vistal_smb_update.sh", "c", "s", "rw"},
     "nos_system_trn_smb_setfolder_priv_handler fail"},
    {"system_call_share_folder_renew",
     nullptr,
     "/etc/init.d/vistalserver.sh",
     {"vistalserver.sh", "share_folder_renew"},
     "nos_system_call_share_folder_renew_handler fail"},
    {"system_call_kseek_list_add",
     R"({"exclude_name":"n","exclude_path":"/p q"})",
     "/etc/init.d/vistalserver.sh",
     {"vistalserver.sh", "kbus_kseek_list_add", "n", "/p q"},
     "nos_system_call_kseek_list_add_handler fail"},
};

std::optional<std::string> body_of(const ToolRow& row) {
  return row.body == nullptr ? std::nullopt : std::optional<std::string>(row.body);
}

class Catalogue : public DaemonTest {};

TEST_F(Catalogue, RunsTheToolAndAnswersByItsExitStatus) {
  for (const ToolRow& row : kTools) {
    SCOPED_TRACE(row.command);
    const StandIn tool(row.tool);
    tool.forget();
    EXPECT_EQ(call(kMain, row.command, body_of(row)).text, "{\"result\":0}\n");
    ASSERT_EQ(tool.calls().size(), 1u);
    EXPECT_EQ(tool.calls()[0].argv, row.argv);
    EXPECT_THAT(tool.calls()[0].environment, IsEmpty());

    const std::string failure = std::string("{\"error_msg\":\"") + row.failure + "\",\"result\":-1}\n";
    for (const char* script : {"exit 3\n", "signal 9\n"}) {
      tool.plays(script);
      EXPECT_EQ(call(kMain, row.command, body_of(row)).text, failure) << script;
    }
    tool.remove();
    EXPECT_EQ(call(kMain, row.command, body_of(row)).text, failure) << "missing";
    tool.restore();
    tool.forget();
  }
  EXPECT_THAT(new_log_lines(), IsEmpty());
}

TEST_F(Catalogue, AMissingControlScriptEntryFailsTheAction) {
  const std::string config = read_file("/etc/config/kpkg.conf");
  write_file("/etc/config/kpkg.conf", "[VistalServer]\nInstall_Path = /share/VistalServer\n");
  EXPECT_EQ(call(kMain, "system_call_share_folder_renew").text,
            "{\"error_msg\":\"nos_system_call_share_folder_renew_handler fail\",\"result\":-1}\n");
  write_file("/etc/config/kpkg.conf", config);
}

TEST_F(Catalogue, BadRequestsAreRefusedAndRunNothing) {
  const StandIn tool("/sbin/share_guard");
  const std::string input_error = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
  const std::string paser_fail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
  const struct {
    const char* body;
    const std::string& reply;
  } rows[] = {
      {"{}", paser_fail},
      {"null", paser_fail},
      {R"({"share_name":5})", paser_fail},
      {R"({"share_name":null})", paser_fail},
      {R"({"Share_name":"x"})", paser_fail},
      {"share", input_error},
      {"{\"share_name\":\"x\"", input_error},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(call(kMain, "system_call_share_guard_add", row.body).text, row.reply) << row.body;
  }
  EXPECT_THAT(new_log_lines(), ElementsAre(EndsWith("] ks_io input fail."), EndsWith("] ks_io input fail.")));
  EXPECT_THAT(new_log_lines()[0], testing::HasSubstr(" [nos_system_call_share_guard_add_handler]["));
  EXPECT_THAT(tool.calls(), IsEmpty());
}

TEST_F(Catalogue, WhatHandlersThrowCostsOneRequestAndOneLogLine) {
  const std::string deep(5000, '[');
  const std::optional<std::string> bodies[] = {std::nullopt, "[1]", "5", "\"text\"", deep};
  for (const auto& body : bodies) {
    const std::size_t lines = new_log_lines().size();
    EXPECT_EQ(call(kMain, "system_call_share_guard_add", body).status, KS_STATUS_BROKEN)
        << body.value_or("none");
    EXPECT_EQ(new_log_lines().size(), lines + 1);
    EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  }
}

TEST_F(Catalogue, ABodyOfWholePagesHasNoNulBehindIt) {
  const std::string head = R"({"share_name":")";
  const std::string name(4096 - head.size() - 2, 'x');
  const StandIn tool("/sbin/share_guard");
  EXPECT_EQ(call(kMain, "system_call_share_guard_remove", head + name + "\"}").text, "{\"result\":0}\n");
  ASSERT_EQ(tool.calls().size(), 1u);
  EXPECT_EQ(tool.calls()[0].argv[2], name);
  tool.forget();
}

}  // namespace
