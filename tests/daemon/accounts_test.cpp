// Accounts and sessions: request -> the call that the platform's library or tool saw -> reply, whatever state
// the library is in.
#include <gmock/gmock.h>

#include <filesystem>
#include <thread>

#include "harness.h"
#include "service/ks.h"

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kAccounts[] = "/usr/lib/libuCore_NAS.so.0.0";
constexpr char kConfig[] = "/usr/lib/libuCore_config.so.0.0";
constexpr char kSessions[] = "/usr/lib/libuCore_nasauth.so.1.0.0";

constexpr char kSession[] = R"({"type":7,"user":"al ice","sid":"s1","length":-1})";
constexpr char kSms[] =
    R"({"country":"Norway","country_code":"+47","max_provider":8,"mode":1,"now_provider":2,)"
    R"("phone1":"0912345678","phone2":"0987654321","result":0,"using_provider":-1})";

struct LibraryRow {
  const char* command;
  const char* body;  // null: none
  const char* library;
  const char* another;            // a library that lacks the function
  std::vector<std::string> call;  // function and arguments
  std::string reply;
  std::vector<std::string> failures;  // scripts that fail the command
};

const LibraryRow kLibraryRows[] = {
    {"get_all_users",
     "not JSON, not read",
     kAccounts,
     kConfig,
     {"Get_Local_User_List_V2", "0", "0", "null"},
     R"({"local_count":3,"result":0,"user_list":["admin","alice","bob"]})",
     {"return -1\n"}},
    {"get_all_groups",
     nullptr,
     kAccounts,
     kSessions,
     {"Get_Local_Group_List_V2", "0", "0", "null"},
     R"({"group_list":["administrators","everyone"],"local_count":2,"result":0})",
     {"return -8\n"}},
    {"get_group_members",
     R"({"group_name":"everyone"})",
     kAccounts,
     kConfig,
     {"Get_NAS_User_List_Of_Group_Ex", "everyone"},
     R"({"result":0,"user_count":3,"user_list":[true,true,true]})",
     {"return -1\n"}},
    {"get_sms_config", nullptr, kConfig, kAccounts, {"Get_SMS_config"}, kSms, {"return -1\n"}},
    {"vistal_auth_add_session",
     kSession,
     kSessions,
     kConfig,
     {"auth_add_session", "s1", "al ice", "7", ""},
     R"({"result":0})",
     {"return -1\n", "return 1\n"}},
    {"vistal_auth_get_session",
     kSession,
     kSessions,
     kAccounts,
     {"auth_get_session", "s1", "7"},
     R"({"result":0,"user":"al ice"})",
     {"return -1\n", "return 1\n"}},
};

std::string failure(const std::string& command) {
  return "{\"error_msg\":\"nos_" + command + "_handler fail\",\"result\":-1}\n";
}

class Accounts : public DaemonTest {
 protected:
  void TearDown() override {
    for (const StandIn& stand_in : {accounts, config, sessions, login}) stand_in.forget();
    EXPECT_THAT(read_file("/proc/" + std::to_string(daemon().pid()) + "/maps"), Not(HasSubstr("libuCore")));
    DaemonTest::TearDown();
  }
  const StandIn accounts{kAccounts};
  const StandIn config{kConfig};
  const StandIn sessions{kSessions};
  const StandIn login{"/sbin/kcli"};
};

TEST_F(Accounts, EachRequestMeetsTheLibraryAsItIsThen) {
  for (const LibraryRow& row : kLibraryRows) {
    SCOPED_TRACE(row.command);
    const StandIn library(row.library);
    const auto answer = [&] {
      return call(kMain, row.command,
                  row.body == nullptr ? std::nullopt : std::optional<std::string>(row.body))
          .text;
    };
    library.forget();
    EXPECT_EQ(answer(), row.reply + "\n");
    ASSERT_EQ(library.calls().size(), 1u);
    EXPECT_EQ(library.calls()[0].argv, row.call);
    for (const std::string& script : row.failures) {
      library.plays(script);
      EXPECT_EQ(answer(), failure(row.command)) << script;
    }
    library.forget();

    library.remove();
    EXPECT_EQ(answer(), failure(row.command)) << "missing";
    write_file(row.library, "no library");
    EXPECT_EQ(answer(), failure(row.command)) << "rubbish";
    fs::remove(row.library);
    fs::copy_file(row.another, row.library);
    EXPECT_EQ(answer(), failure(row.command)) << "lacks the function";
    EXPECT_THAT(library.calls(), IsEmpty());
    fs::remove(row.library);
    library.restore();
    EXPECT_EQ(answer(), row.reply + "\n") << "restored";
    library.forget();
  }
  EXPECT_THAT(new_log_lines(), IsEmpty());
}

TEST_F(Accounts, WhatALibraryTellsIsHeldAgainstWhatItGives) {
  const std::string x32(32, 'x');
  const std::string names = "[\"" + x32 + "\",\"" + x32 + "\",\"" + x32 + "\"]";
  const struct {
    const char* script;
    std::string users;    // of the list of users; empty: the failure reply
    std::string members;  // of the members of "everyone"
  } rows[] = {
      {"return 2\n", R"("local_count":3,"result":0,"user_list":["admin","alice","bob"])",
       R"("result":0,"user_count":2,"user_list":[true,true])"},
      {"count 1\n", R"("local_count":1,"result":0,"user_list":["admin"])",
       R"("result":0,"user_count":1,"user_list":[true])"},
      {"count 0\n", R"("local_count":0,"result":0,"user_list":null)",
       R"("result":0,"user_count":0,"user_list":null)"},
      {"count 0\nnull\n", R"("local_count":0,"result":0,"user_list":null)",
       R"("result":0,"user_count":0,"user_list":null)"},
      {"count -2147483648\n", R"("local_count":-2147483648,"result":0,"user_list":null)", ""},
      {"full\n", R"("local_count":3,"result":0,"user_list":)" + names,
       R"("result":0,"user_count":3,"user_list":[true,true,true])"},
      {"null 1\n", "", R"("result":0,"user_count":3,"user_list":[true,false,true])"},
      {"null\n", "", ""},
      {"count 4\n", "", ""},
      {"count 2147483647\n", "", ""},
      {"return -1\ncount 0\nnull\n", "", ""},
  };
  const auto reply = [](const std::string& command, const std::string& members) {
    return members.empty() ? failure(command) : "{" + members + "}\n";
  };
  for (const auto& row : rows) {
    accounts.plays(row.script);
    EXPECT_EQ(call(kMain, "get_all_users").text, reply("get_all_users", row.users)) << row.script;
    EXPECT_EQ(call(kMain, "get_group_members", R"({"group_name":"everyone"})").text,
              reply("get_group_members", row.members))
        << row.script;
  }
}

TEST_F(Accounts, RecordsWithoutANulAreReadToTheirEnds) {
  config.plays("full\n");
  const Json::Value sms = call(kMain, "get_sms_config").json();
  EXPECT_EQ(sms["country"], std::string(16, 'x'));
  EXPECT_EQ(sms["country_code"], std::string(16, 'x'));
  EXPECT_EQ(sms["phone1"], std::string(32, 'x'));
  EXPECT_EQ(sms["phone2"], std::string(4096 - 80, 'x'));
  sessions.plays("full\nreturn 0\n");
  EXPECT_EQ(call(kMain, "vistal_auth_get_session", kSession).json()["user"], std::string(4096 - 82, 'x'));
}

TEST_F(Accounts, ASessionIsFoundByItsIdAndType) {
  call(kMain, "vistal_auth_add_session", R"({"type":1,"user":"bob","sid":"s2"})");
  call(kMain, "vistal_auth_add_session", R"({"type":-2,"user":"","sid":"s3"})");
  const std::string none = failure("vistal_auth_get_session");
  const std::string paser_fail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
  const struct {
    const char* body;
    std::string reply;
  } rows[] = {
      {R"({"type":1,"length":0,"sid":"s2"})", "{\"result\":0,\"user\":\"bob\"}\n"},
      {R"({"type":-2,"length":0,"sid":"s3"})", "{\"result\":0,\"user\":\"\"}\n"},
      {R"({"type":2,"length":0,"sid":"s2"})", none},
      {R"({"type":1,"length":0,"sid":"s"})", none},
      {R"({"type":1,"sid":"s2"})", paser_fail},
      {R"({"type":1,"length":"0","sid":"s2"})", paser_fail},
      {"s2", "{\"error_code\":-1,\"error_msg\":\"input error\"}\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(call(kMain, "vistal_auth_get_session", row.body).text, row.reply) << row.body;
  }
  EXPECT_EQ(sessions.calls().size(), 6u);
  EXPECT_EQ(call(kMain, "get_group_members", R"({"group_name":"nobody"})").text,
            failure("get_group_members"));
}

TEST_F(Accounts, RequestsAtTheSameTimeShareALibrarySafely) {
  const auto ask = [] {
    for (int i = 0; i < 100; ++i) EXPECT_EQ(call(kMain, "get_all_users").json()["local_count"], 3);
  };
  std::thread other(ask);
  ask();
  other.join();
}

TEST_F(Accounts, TheSessionIdIsTheThirdWordOfTheSecondLine) {
  const struct {
    const char* script;
    const char* sid;  // null: the failure reply
  } rows[] = {
      {"stdout welcome\\nsid is abc123\\n\n", "abc123"},
      {"stdout \\n\\na b\\n\\n  sid   is  x=y  \n", "x=y"},
      {"stdout a\\nb c d\\x00e f\nstderr one\\ntwo\nexit 1\n", "d"},
      {"stdout a\\nb c d\nsignal 9\n", "d"},
      {"stdout a\\nb c d\nlinger 100\n", "d"},
      {"stdout a b c\\n\n", nullptr},
      {"stdout a\\nb c d e\\n\n", nullptr},
      {"stdout a\\nb\\x09c d\\n\n", nullptr},
      {"stdout a\\nb c d\\ne\\n\n", nullptr},
      {"", nullptr},
      {"signal 9\n", nullptr},
      {"bytes 10485760\n", nullptr},
  };
  const std::string failed = "{\"error_code\":-2,\"error_msg\":\"get_sess_id fail\"}\n";
  constexpr char kBody[] = R"({"user":"alice","pwd":"s3cret word"})";
  for (const auto& row : rows) {
    login.plays(row.script);
    EXPECT_EQ(call(kMain, "get_sess_id", kBody).text,
              row.sid != nullptr ? "{\"error_code\":0,\"sid\":\"" + std::string(row.sid) + "\"}\n" : failed)
        << row.script;
  }
  login.remove();
  EXPECT_EQ(call(kMain, "get_sess_id", kBody).text, failed) << "missing";
  login.restore();
  EXPECT_THAT(new_log_lines(), IsEmpty());
}

TEST_F(Accounts, TheLoginToolGetsBothTextsCutTo31Characters) {
  const std::string x40(40, 'x');
  call(kMain, "get_sess_id", "{\"user\":\"" + x40 + "\",\"pwd\":\"a b" + x40 + "\"}");
  EXPECT_EQ(call(kMain, "get_sess_id", R"({"user":"alice"})").text,
            "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n");
  ASSERT_EQ(login.calls().size(), 1u);
  EXPECT_EQ(login.calls()[0].argv, (std::vector<std::string>{"kcli", "-l", "user=" + std::string(26, 'x'),
                                                             "pw=a b" + std::string(25, 'x')}));
}

}  // namespace
