// `sendmail`: request -> what the mail program was given -> reply, files, log. First with a stand-in that can
// do anything, then with a real mail program that talks to a mail server.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "harness.h"
#include "service/ks.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kStaging = "/tmp/vistalsurveillance_sendmail";
const std::string kScratch = "/tmp/.vistalsurveillance_log";
const std::string kMailProgram = "/usr/sbin/sendmail";
const std::string kConfig = "mailhub=mail.example\n";
const std::string kContent = "To: a@b.example\n\nHello\n";

std::string request(const std::string& user, const std::string& password,
                    const std::string& config = "m.conf", const std::string& content = "m.mail") {
  return R"({"user":")" + user + R"(","pwd":")" + password + R"(","config_file":")" + config +
         R"(","content_file":")" + content + "\"}";
}

std::string result(int status) {
  return "{\"result\":" + std::to_string(status) + "}\n";
}

class Mail : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    for (const std::string& directory : {kStaging, kScratch}) {
      fs::remove_all(directory);
      fs::create_directory(directory);
    }
    program_.forget();
  }
  void TearDown() override {
    program_.forget();
    DaemonTest::TearDown();
  }
  static void stage(const std::string& config = kConfig, const std::string& content = kContent) {
    write_file(kStaging + "/m.conf", config);
    write_file(kStaging + "/m.mail", content);
  }
  const StandIn program_{kMailProgram};
};

TEST_F(Mail, TheProgramGetsItsArgumentsAndInput) {
  const std::string conf = kStaging + "/m.conf";
  const std::string long_name(300, 'n');
  const struct {
    std::string request;
    std::vector<std::string> argv;
    std::string input;
  } rows[] = {
      {request("", ""), {"sendmail", "-C", conf, "-t"}, kContent},
      {request("", "b"), {"sendmail", "-C", conf, "-t"}, kContent},
      {request("a", ""), {"sendmail", "-C", conf, "-t"}, kContent},
      {request("a", "b"), {"sendmail", "-aua", "-aub", "-C", conf, "-t"}, kConfig},
      {request(std::string(70, 'u'), std::string(61, 'p')),
       {"sendmail", "-au" + std::string(60, 'u'), "-au" + std::string(60, 'p'), "-C", conf, "-t"},
       kConfig},
      {request("a", "b c", "x/../m.conf"),
       {"sendmail", "-aua", "-aub c", "-C", kStaging + "/x/../m.conf", "-t"},
       kConfig},
      {request("", "", long_name),
       {"sendmail", "-C", (kStaging + "/" + long_name).substr(0, 255), "-t"},
       kContent},
  };
  fs::create_directory(kStaging + "/x");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.request);
    program_.forget();
    stage();
    EXPECT_EQ(call(kMail, "sendmail", row.request).text, result(0));
    ASSERT_EQ(program_.calls().size(), 1u);
    EXPECT_EQ(program_.calls()[0].argv, row.argv);
    EXPECT_EQ(program_.calls()[0].input, row.input);
    EXPECT_THAT(program_.calls()[0].environment, Not(IsEmpty()));
    EXPECT_EQ(read_file(kScratch + "/sendmail.content"), kContent);
    EXPECT_FALSE(fs::exists(kStaging + "/m.mail"));
  }
  EXPECT_EQ(read_file(kScratch + "/sendmail.conf"), kConfig);
}

TEST_F(Mail, WhatASendLeavesBehind) {
  write_file(kScratch + "/sendmail.dbg", std::string(1000, 'x'));
  write_file(kScratch + "/sendmail.log", std::string(1000, 'x'));
  stage();
  program_.plays("stdout said\\n\nstderr complained\\n\nexit 75\n");
  EXPECT_EQ(call(kMail, "sendmail", request("alice", "s3cret")).text, result(75));
  EXPECT_TRUE(fs::is_empty(kStaging));
  EXPECT_EQ(read_file(kScratch + "/sendmail.conf"), kConfig);
  EXPECT_EQ(read_file(kScratch + "/sendmail.content"), kContent);
  EXPECT_EQ(read_file(kScratch + "/sendmail.log"), "said\ncomplained\n");
  EXPECT_EQ(read_file(kScratch + "/sendmail.dbg"),
            "str_usr=[alice]\nstr_pwd=[s3cret]\n"
            "str_conf_path=[/tmp/vistalsurveillance_sendmail/m.conf]\n"
            "str_content_path=[/tmp/vistalsurveillance_sendmail/m.mail]\n"
            "str_cmd_sendmail=[]\nstr_cmd_rm=[]\nret_val=[75]\n");
  EXPECT_THAT(new_log_lines(),
              ElementsAre(EndsWith("] exec sendmail start."),
                          EndsWith("] str_conf_path=[/tmp/vistalsurveillance_sendmail/m.conf]."),
                          EndsWith("] str_content_path=[/tmp/vistalsurveillance_sendmail/m.mail]."),
                          EndsWith("] str_cmd_sendmail=[]."), EndsWith("] ret_val=[75]."), ""));
  EXPECT_THAT(new_log_lines()[0], HasSubstr(" [nos_sendmail_handler]["));
  EXPECT_THAT(read_file(kLogFile), Not(HasSubstr("s3cret")));
}

TEST_F(Mail, EveryEndOfTheProgramIsAResult) {
  const struct {
    const char* script;
    int result;
  } rows[] = {
      {"exit 255\n", 255}, {"signal 9\n", 137}, {"bytes 10485760\nexit 2\n", 2}, {"linger 50\nexit 4\n", 4}};
  for (const auto& row : rows) {
    stage();
    program_.plays(row.script);
    EXPECT_EQ(call(kMail, "sendmail", request("", "")).text, result(row.result)) << row.script;
  }
  program_.forget();
  stage();
  program_.remove();
  EXPECT_EQ(call(kMail, "sendmail", request("", "")).text, result(127)) << "missing";
  program_.restore();

  // Nothing was staged: nothing is run, and the log of a run that was not is taken away.
  EXPECT_EQ(call(kMail, "sendmail", request("", "")).text, result(-1)) << "no content file";
  EXPECT_EQ(call(kMail, "sendmail", request("a", "b")).text, result(-1)) << "no configuration file";
  EXPECT_FALSE(fs::exists(kScratch + "/sendmail.log"));
  EXPECT_THAT(read_file(kScratch + "/sendmail.dbg"), EndsWith("ret_val=[-1]\n"));
  stage();
  fs::remove_all(kScratch);
  EXPECT_EQ(call(kMail, "sendmail", request("", "")).text, result(-1)) << "no scratch directory";
  EXPECT_TRUE(fs::exists(kStaging + "/m.mail"));
  EXPECT_THAT(program_.calls(), IsEmpty());
}

// The scratch directory is everybody's, and the record is written by root.
TEST_F(Mail, WhatIsPlantedInPlaceOfTheRecordHarmsNobody) {
  const std::string record = kScratch + "/sendmail.dbg";
  const std::string victim = "/tmp/victim";
  write_file(victim, "precious");
  fs::create_symlink(victim, record);
  stage();
  EXPECT_EQ(call(kMail, "sendmail", request("", "")).text, result(0));
  EXPECT_EQ(read_file(victim), "precious");
  fs::remove(record);
  fs::remove(victim);
  ASSERT_EQ(mkfifo(record.c_str(), 0666), 0);
  stage();
  EXPECT_EQ(call(kMail, "sendmail", request("", "")).text, result(0));
}

TEST_F(Mail, BadRequestsAreRefusedAndRunNothing) {
  stage();
  for (const char* body : {"{}", R"({"user":"","pwd":"","config_file":"m.conf"})",
                           R"({"user":"","pwd":5,"config_file":"m.conf","content_file":"m.mail"})",
                           R"({"user":null,"pwd":"","config_file":"m.conf","content_file":"m.mail"})"}) {
    EXPECT_EQ(call(kMail, "sendmail", body).text, "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n")
        << body;
  }
  EXPECT_THAT(new_log_lines(), IsEmpty());
  EXPECT_EQ(call(kMail, "sendmail", "mail").text, "{\"error_code\":-1,\"error_msg\":\"input error\"}\n");
  EXPECT_THAT(new_log_lines(), ElementsAre(EndsWith("] ks_io input fail.")));
  EXPECT_THAT(program_.calls(), IsEmpty());
  EXPECT_TRUE(fs::exists(kStaging + "/m.mail"));
}

TEST_F(Mail, FiveSlowMailsAtOnceDoNotHoldUpTheMainService) {
  std::vector<std::thread> clients;
  std::vector<std::string> replies(5);
  for (std::size_t i = 0; i < replies.size(); ++i) {
    const std::string name = std::to_string(i);
    write_file(kStaging + "/" + name + ".conf", kConfig);
    ASSERT_EQ(mkfifo((kStaging + "/" + name + ".mail").c_str(), 0600), 0);
    clients.emplace_back([&replies, i, name] {
      replies[i] = call(kMail, "sendmail", request("", "", name + ".conf", name + ".mail")).text;
    });
  }
  // Each can be opened once somebody reads it, and is read until it is closed.
  std::vector<int> contents(replies.size(), -1);
  for (std::size_t i = 0; i < contents.size(); ++i) {
    const std::string path = kStaging + "/" + std::to_string(i) + ".mail";
    EXPECT_TRUE(eventually([&] {
      return (contents[i] = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0;
    })) << "only "
        << i << " at once";
  }
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  for (const int content : contents) close(content);
  for (std::thread& client : clients) client.join();
  EXPECT_THAT(replies, testing::Each(result(0)));
  EXPECT_EQ(program_.calls().size(), replies.size());
  EXPECT_TRUE(fs::is_empty(kStaging));
}

// A mail server, and the real mail program in place of the stand-in.
class RealMail : public Mail {
 protected:
  void SetUp() override {
    Mail::SetUp();
    ASSERT_TRUE(fs::exists("/usr/sbin/ssmtp")) << "the package ssmtp is missing";
    program_.remove();
    fs::create_symlink("ssmtp", kMailProgram);
    ASSERT_TRUE(eventually([] { return read_file("/tmp/sink.port").ends_with('\n'); }));
    mailhub_ = "mailhub=127.0.0.1:" + read_file("/tmp/sink.port") + "hostname=appliance.example\n";
  }
  void TearDown() override {
    fs::remove(kMailProgram);
    program_.restore();
    fs::remove("/tmp/sink.port");
    fs::remove("/tmp/sink.received");
    Mail::TearDown();
  }
  // Its end of the conversation: all lines that it was sent.
  static std::string received() { return read_file("/tmp/sink.received"); }

  const Process sink_{"/bin/sh", {"-c", "exec mail_sink 0 /tmp/sink.received >/tmp/sink.port"}};
  std::string mailhub_;
};

// With a user the mail program reads its configuration as the mail, too, and knows but one user: the second
// one that it is given. So the mail must be in the configuration file, whose other lines are then part of it,
// and what the server takes for a user is the password.
TEST_F(RealMail, DeliversOrSaysWhyNot) {
  const std::string headers = "To: guard@b.example\nFrom: cam@b.example\nSubject: Motion\n";
  const struct {
    const char* what;
    const char* user;
    const char* password;
    std::string config;
    std::string content;
    int result;
    std::vector<std::string> sent;  // in order, among the lines that the server was sent
    std::string complaint;          // in what the program printed
  } rows[] = {
      {"plain",
       "",
       "",
       mailhub_ + "FromLineOverride=YES\n",
       headers + "\nAt the gate\n",
       0,
       {"MAIL FROM:<cam@b.example>\n", "RCPT TO:<guard@b.example>\n", "DATA\n",
        "Subject: Motion\n\nAt the gate\n.\n"},
       ""},
      {"refused recipient",
       "",
       "",
       mailhub_,
       "To: nobody@b.example\n\nHi\n",
       1,
       {"RCPT TO:<nobody@b.example>\n"},
       "550 no such user"},
      {"no server", "", "", "mailhub=127.0.0.1:1\n", headers + "\n", 1, {}, "Cannot open 127.0.0.1:1"},
      {"authenticated",
       "alice",
       "secret",
       headers + mailhub_ + "\nAt the door\n",
       "not sent\n",
       0,
       {"AUTH LOGIN\n", "c2VjcmV0\n", "RCPT TO:<guard@b.example>\n", "DATA\n",
        mailhub_ + "\nAt the door\n.\n"},
       ""},
      {"authenticated, no mail in the configuration",
       "alice",
       "secret",
       mailhub_,
       headers + "\n",
       1,
       {"AUTH LOGIN\n", "c2VjcmV0\n"},
       "No recipients specified"},
      {"refused user",
       "alice",
       "stranger",
       headers + mailhub_ + "\n",
       "",
       1,
       {"AUTH LOGIN\n"},
       "535 refused"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::size_t before = received().size();
    stage(row.config, row.content);
    EXPECT_EQ(call(kMail, "sendmail", request(row.user, row.password)).text, result(row.result));
    const std::string sent = received().substr(before);
    std::size_t at = 0;
    for (const std::string& line : row.sent) {
      const std::size_t found = sent.find(line, at);
      ASSERT_NE(found, std::string::npos) << line << " is not in:\n" << sent;
      at = found + line.size();
    }
    EXPECT_EQ(row.result == 0, sent.find("DATA\n") != std::string::npos) << sent;
    EXPECT_THAT(read_file(kScratch + "/sendmail.log"), HasSubstr(row.complaint));
    EXPECT_THAT(sent, Not(HasSubstr("not sent")));
  }
}

}  // namespace
