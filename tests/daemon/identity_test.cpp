// What the daemon tells of its appliance: hardware tool's output, configuration or marker -> reply and log.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <filesystem>

#include "harness.h"
#include "service/ks.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr std::size_t kLarge = 10 * 1024 * 1024;

std::string success(const std::string& member, const std::string& value) {
  // Members are sorted by name, and all these come after "result" but for "platform_display_name".
  const std::string text = "\"" + member + "\":\"" + value + "\"";
  return member < "result" ? "{" + text + ",\"result\":0}\n" : "{\"result\":0," + text + "}\n";
}

std::string failure(const std::string& log_name) {
  return "{\"error_msg\":\"" + log_name + " fail\",\"result\":-1}\n";
}

testing::Matcher<std::string> log_line(const std::string& name, const std::string& text) {
  return MatchesRegex(".*\\] \\[" + name + "\\]\\[[0-9]+\\] " + text);
}

class Identity : public DaemonTest {
 protected:
  void TearDown() override {
    tool.forget();
    DaemonTest::TearDown();
  }
  const StandIn tool{"/sbin/hwctl_app"};
};

TEST_F(Identity, EachFieldIsAskedByItsNumber) {
  const struct {
    std::string field;
    const char* number;
  } rows[] = {{"productnamed", "0:7"}, {"eepkey", "0:8"}, {"channel", "0:9"}};
  for (const auto& row : rows) {
    tool.forget();
    tool.plays("stdout name=ABC123\\n\n");
    EXPECT_EQ(call(kMain, "get_vpd_" + row.field, "not JSON, not read").text,
              success("vpd_" + row.field, "ABC123"));
    ASSERT_EQ(tool.calls().size(), 1u);
    EXPECT_EQ(tool.calls()[0].argv,
              (std::vector<std::string>{"hwctl_app", "--vpd_get_field",
                                        "enc_sys_id=root,obj_index=" + std::string(row.number)}));
    EXPECT_THAT(tool.calls()[0].environment, Contains(StartsWith("PATH=")));
    tool.remove();
    EXPECT_EQ(call(kMain, "get_vpd_" + row.field).text, failure("nos_get_vpd_" + row.field + "_handler"));
    tool.restore();
  }
  EXPECT_THAT(new_log_lines(), IsEmpty());
}

TEST_F(Identity, AFieldIsWhatStandsBehindTheOneEqualsSign) {
  const struct {
    const char* script;
    const char* value;  // null: the failure reply
  } rows[] = {
      {"stdout a name = \\n A  B\\n \\n\n", "A  B"},
      {"stdout name==\\xFFx\n", "\\ufffdx"},
      {"stdout name=\\x09v\\n\n", "\\tv"},
      {"stdout name= \\n\n", ""},
      {"stdout name=v\\x00w=x\n", "v"},
      {"stdout name=v\nstderr a=b=c\nexit 3\n", "v"},
      {"stdout name=v\nsignal 9\n", "v"},
      {"stdout name=v\nlinger 100\n", "v"},
      {"stdout name=v=w\\n\n", nullptr},
      {"stdout name\\n\n", nullptr},
      {"stdout =ABC123\\n\n", nullptr},
      {"stdout name=\n", nullptr},
      {"", nullptr},
      {"signal 11\n", nullptr},
      {"bytes 10485760\n", nullptr},
  };
  for (const auto& row : rows) {
    tool.plays(row.script);
    EXPECT_EQ(call(kMain, "get_vpd_channel").text, row.value != nullptr
                                                       ? success("vpd_channel", row.value)
                                                       : failure("nos_get_vpd_channel_handler"))
        << row.script;
  }
  tool.plays("stdout name=\nbytes 10485760\n");
  EXPECT_EQ(call(kMain, "get_vpd_channel").text, success("vpd_channel", std::string(kLarge, '#')));
}

TEST_F(Identity, TheExtendedAreaIsWhateverTheToolPrintsWithoutBlanksAndNewlines) {
  const struct {
    const char* script;
    const char* value;
  } rows[] = {
      {"stdout AB CD\\nEF\\n\n", "ABCDEF"},
      {"stdout  error: no=such\\x09area \nexit 1\n", "error:no=such\\tarea"},
      {"stdout AB\nsignal 9\n", "AB"},
      {"", ""},
  };
  for (const auto& row : rows) {
    tool.plays(row.script);
    EXPECT_EQ(call(kMain, "get_vpd_ext_area", R"({"offest":0,"length":8})").text,
              success("vpd_ext_area", row.value))
        << row.script;
  }
  tool.plays("bytes 10485760\n");
  EXPECT_EQ(call(kMain, "get_vpd_ext_area", R"({"offest":0,"length":8})").text,
            success("vpd_ext_area", std::string(kLarge, '#')));
  tool.remove();
  EXPECT_EQ(call(kMain, "get_vpd_ext_area", R"({"offest":0,"length":8})").text, success("vpd_ext_area", ""));
  tool.restore();
}

TEST_F(Identity, TheExtendedAreasArgumentIsLoggedAndCut) {
  tool.plays("stdout A B\n");
  for (const char* body : {R"({"offset":0,"length":8})", R"({"offest":2147483648,"length":8})"}) {
    EXPECT_EQ(call(kMain, "get_vpd_ext_area", body).text,
              "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n");
  }
  call(kMain, "get_vpd_ext_area", R"({"length":-2147483648,"offest":-2147483648})");
  ASSERT_EQ(tool.calls().size(), 1u);
  EXPECT_THAT(tool.calls()[0].argv,
              ElementsAre("hwctl_app", "--vpd_get_ext_area", "offset=-2147483648,length=-2147"));
  constexpr char kName[] = "system_call_hwctlapp_vpdget_ext_area";
  EXPECT_THAT(
      new_log_lines(),
      ElementsAre(log_line(kName, "/sbin/hwctl_app --vpd_get_ext_area  offset=-2147483648,length=-2147"),
                  log_line(kName, "str_output=A B")));
}

// Whether the daemon still holds the memory file of a request, as it does until it is altogether done with
// it.
bool is_busy(pid_t daemon) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(daemon) + "/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone).string().starts_with("/memfd:")) return true;
  }
  return false;
}

// Descriptors are taken away one by one, between requests, until there are too few for the pipe to the tool,
// which needs more at a time than the request itself.
TEST_F(Identity, ADaemonThatCanStartNoProgramSaysSo) {
  rlimit before{};
  ASSERT_EQ(prlimit(daemon().pid(), RLIMIT_NOFILE, nullptr, &before), 0);
  rlimit scarce = before;
  scarce.rlim_cur = 128;
  tool.plays("stdout n=v\n");
  const auto answer_with_one_less = [&](const char* command, const char* body) {
    EXPECT_TRUE(eventually([&] { return !is_busy(daemon().pid()); }));
    --scarce.rlim_cur;
    EXPECT_EQ(prlimit(daemon().pid(), RLIMIT_NOFILE, &scarce, nullptr), 0);
    return call(kMain, command, body).text;
  };
  std::string area;
  do {
    area = answer_with_one_less("get_vpd_ext_area", R"({"offest":0,"length":8})");
  } while (area == success("vpd_ext_area", "n=v"));
  ++scarce.rlim_cur;
  const std::string field = answer_with_one_less("get_vpd_eepkey", "");
  EXPECT_EQ(prlimit(daemon().pid(), RLIMIT_NOFILE, &before, nullptr), 0);
  EXPECT_EQ(area, failure("nos_get_vpd_ext_area_handler"));
  EXPECT_EQ(field, failure("nos_get_vpd_eepkey_handler"));
  EXPECT_THAT(new_log_lines().back(),
              log_line("nos_get_vpd_ext_area_handler", "get vpd area failed, ret=-2"));
}

TEST_F(Identity, ConfigurationValuesAreAnsweredAsTheyAreNow) {
  const std::string no_name = failure("nos_get_platform_display_name_handler");
  const auto status = [](const char* number) {
    return "{\"dispDeck_Status\":" + std::string(number) + ",\"error_code\":0}\n";
  };
  constexpr char kPlatform[] = "/etc/platform.conf";
  constexpr char kDisplay[] = "/etc/kos.ui.cp.conf";
  const struct {
    const char* file;
    const char* content;
    const char* command;
    std::string reply;
  } rows[] = {
      {kPlatform, "[MISC]\nDISPLAY_NAME = VS 1 \"x\"\n", "get_platform_display_name",
       success("platform_display_name", "VS 1 \\\"x\\\"")},
      {kPlatform, "[MISC]\nDISPLAY = x\n[CP_APP]\nDISPLAY_NAME = x\n", "get_platform_display_name", no_name},
      {kPlatform, "[MISC]\nDISPLAY_NAME =\n", "get_platform_display_name", no_name},
      {kDisplay, "[CP_APP]\ndispDeck = 1\n", "get_dispdeck_status", status("1")},
      {kDisplay, "[CP_APP]\ndispDeck = -12 or so\n", "get_dispdeck_status", status("-12")},
      {kDisplay, "[CP_APP]\ndispDeck = 010\n", "get_dispdeck_status", status("10")},
      {kDisplay, "[CP_APP]\ndispDeck = on\n", "get_dispdeck_status", status("0")},
      {kDisplay, "[CP_APP]\n", "get_dispdeck_status", status("0")},
  };
  for (const auto& row : rows) {
    const std::string before = read_file(row.file);
    write_file(row.file, row.content);
    EXPECT_EQ(call(kMain, row.command).text, row.reply) << row.content;
    write_file(row.file, before);
  }
  const StandIn reader("/sbin/rdconf");
  reader.remove();
  EXPECT_EQ(call(kMain, "get_platform_display_name").text, no_name);
  EXPECT_EQ(call(kMain, "get_dispdeck_status").text, status("0"));
  reader.restore();
}

TEST_F(Identity, AModelIsGenericByItsMarkerAndNeverTrn) {
  constexpr char kMarker[] = "/etc/IS_G";
  EXPECT_EQ(call(kMain, "is_generic_model").text, "{\"is_generic\":0,\"result\":-1}\n");
  write_file(kMarker, "");
  EXPECT_EQ(call(kMain, "is_generic_model").text, "{\"is_generic\":1,\"result\":0}\n");
  std::filesystem::remove(kMarker);
  EXPECT_EQ(call(kMain, "is_trn_model").text, "{\"is_TRN_model\":0,\"result\":0}\n");
  EXPECT_THAT(new_log_lines(), ElementsAre(log_line("nos_is_generic_model_handler", "normal\\."),
                                           log_line("nos_is_generic_model_handler", "is generic\\."),
                                           log_line("nos_system_is_TRN_model_handler", "normal\\.")));
}

}  // namespace
