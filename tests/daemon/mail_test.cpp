// `sendmail`: request -> what the mail program was given -> reply, files, log. The real mail program is in the tour.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "harness.h"

namespace fs = std::filesystem;

namespace {

const std::string kStaging = "/tmp/vistalsurveillance_sendmail";
const std::string kScratch = "/tmp/.vistalsurveillance_log";
constexpr char kMailProgram[] = "/usr/sbin/sendmail";

// Stages a mail, sends it and returns the reply.
std::string send_mail(const std::string& user, const std::string& password,
                      const std::string& config = "mailhub=mail.example\n",
                      const std::string& content = "To: a@b.example\n\nHello\n") {
  write_file(kStaging + "/m.conf", config);
  write_file(kStaging + "/m.mail", content);
  return call(
             kMail, "sendmail",
             R"({"user":")" + user + R"(","pwd":")" + password + R"(","config_file":"m.conf","content_file":"m.mail"})")
      .text;
}

std::string result(int status) {
  return "{\"result\":" + std::to_string(status) + "}\n";
}

class Mail : public DaemonTest {
 protected:
  Mail() {
    fs::remove_all(kScratch);
    fs::create_directory(kScratch);
  }
  const StandIn program_{kMailProgram};
};

TEST_F(Mail, TheMailProgramGetsItsArgumentsAndInput) {
  const std::string x70(70, 'x');
  const std::string config_text = "mailhub=mail.example\\n";
  const std::string content_text = "To: a@b.example\\n\\nHello\\n";
  const std::string tail = "|-C|" + kStaging + "/m.conf|-t";
  const struct {
    std::string user, password, line, input;
  } rows[] = {
      {"", "b", "sendmail" + tail, content_text},
      {"a", "", "sendmail" + tail, content_text},
      {x70, "b c", "sendmail|-au" + x70.substr(0, 60) + "|-aub c" + tail, config_text},
  };
  for (const auto& row : rows) {
    program_.plays("");
    EXPECT_EQ(send_mail(row.user, row.password), result(0));
    EXPECT_EQ(program_.calls().at(0).line, row.line);
    EXPECT_EQ(program_.calls()[0].input, row.input);
  }
}

TEST_F(Mail, ASentMailLeavesItsRecordAndNoStagedFiles) {
  write_file(kScratch + "/sendmail.dbg", std::string(1000, 'x'));
  program_.plays("stdout said\\n\nstderr complained\\n\nexit 75\n");
  EXPECT_EQ(send_mail("alice", "s3cret"), result(75));
  EXPECT_TRUE(fs::is_empty(kStaging));
  EXPECT_EQ(read_file(kScratch + "/sendmail.conf"), "mailhub=mail.example\n");
  EXPECT_EQ(read_file(kScratch + "/sendmail.content"), "To: a@b.example\n\nHello\n");
  EXPECT_EQ(read_file(kScratch + "/sendmail.log"), "said\ncomplained\n");
  EXPECT_EQ(read_file(kScratch + "/sendmail.dbg"),
            "str_usr=[alice]\nstr_pwd=[s3cret]\n"
            "str_conf_path=[/tmp/vistalsurveillance_sendmail/m.conf]\n"
            "str_content_path=[/tmp/vistalsurveillance_sendmail/m.mail]\n"
            "str_cmd_sendmail=[]\nstr_cmd_rm=[]\nret_val=[75]\n");
  EXPECT_THAT(new_log(), testing::ContainsRegex("\\] str_cmd_sendmail=\\[\\]\\.\n.*\\] ret_val=\\[75\\]\\.\n\n$"));
  EXPECT_THAT(new_log(), testing::Not(testing::HasSubstr("s3cret")));
}

TEST_F(Mail, TheExitStatusOfTheMailProgramIsTheResult) {
  program_.plays("bytes 10485760\nlinger 50\nexit 4\n");
  EXPECT_EQ(send_mail("", ""), result(4));
  program_.plays("signal 9\n");
  EXPECT_EQ(send_mail("", ""), result(137));
  program_.remove();
  EXPECT_EQ(send_mail("", ""), result(127)) << "missing";
}

// Every user can write to the scratch directory, and root writes there, too.
TEST_F(Mail, PlantedFilesInPlaceOfOutputAndRecordAreReplaced) {
  const std::string victim = "/tmp/victim";
  const std::pair<const char*, std::function<void(const std::string&)>> rows[] = {
      {"link", [&](const std::string& path) { fs::create_symlink(victim, path); }},
      {"second name", [&](const std::string& path) { fs::create_hard_link(victim, path); }},
      {"pipe", [](const std::string& path) { ASSERT_EQ(mkfifo(path.c_str(), 0666), 0); }},
      {"folder", [](const std::string& path) { fs::create_directories(path + "/taken"); }},
      {"another user's",
       [](const std::string& path) {
         write_file(path, "");
         if (chown(path.c_str(), 65534, 65534) != 0) fs::remove(path);
       }},
      {"a device that any user can make",
       [](const std::string& path) {
         if (mknod(path.c_str(), S_IFCHR | 0666, 0) == 0 && chown(path.c_str(), 65534, 65534) != 0) fs::remove(path);
       }},
      {"file system in user space that does not answer",
       [](const std::string& path) {
         write_file(path, "");
         static const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
         const std::string options = "fd=" + std::to_string(device) + ",rootmode=100666,user_id=0,group_id=0";
         mount("none", path.c_str(), "fuse", 0, options.c_str());  // where that is allowed
       }},
      {"readable", [](const std::string& path) { write_file(path, std::string(1000, 'x')); }},
  };
  for (const auto& [what, plant] : rows) {
    SCOPED_TRACE(what);
    write_file(victim, "precious");
    for (const char* name : {"/sendmail.log", "/sendmail.dbg", "/sendmail.conf"}) {
      fs::remove(kScratch + name);
      plant(kScratch + name);
    }
    program_.plays("stdout said\n");
    EXPECT_EQ(send_mail("", ""), result(0));
    EXPECT_EQ(read_file(victim), "precious");
    EXPECT_EQ(read_file(kScratch + "/sendmail.log"), "said");
    EXPECT_EQ(read_file(kScratch + "/sendmail.conf"), "mailhub=mail.example\n");
    struct stat record {};
    EXPECT_EQ(lstat((kScratch + "/sendmail.dbg").c_str(), &record), 0);
    EXPECT_TRUE(record.st_mode == (S_IFREG | 0600) && record.st_uid == geteuid() && record.st_size > 0);
  }
}

TEST_F(Mail, AMailWithAMissingLogFolderOrALinkInItsPlaceIsNotSent) {
  fs::remove_all(kScratch);
  EXPECT_EQ(send_mail("", ""), result(-1)) << "missing";
  fs::create_directory("/tmp/elsewhere");
  fs::create_symlink("/tmp/elsewhere", kScratch);
  EXPECT_EQ(send_mail("", ""), result(-1)) << "a link";
  EXPECT_TRUE(program_.calls().empty());
  EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
  fs::remove(kScratch);
}

TEST_F(Mail, AMailWhoseInputIsNoFileIsNotSent) {
  const struct {
    const char *user, *config, *content;
    int result;
  } rows[] = {{"", "m.conf", "pipe", -1}, {"a", "pipe", "m.mail", -1},         {"", "pipe", "m.mail", -1},
              {"", "m.conf", "", -1},     {"", "m.conf", "../../dev/tty", -1}, {"", "../../dev/tty", "m.mail", -1},
              {"", "", "m.mail", 0}};
  ASSERT_EQ(mkfifo((kStaging + "/pipe").c_str(), 0666), 0);
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.config) + " and " + row.content);
    write_file(kStaging + "/m.conf", "");
    write_file(kStaging + "/m.mail", "");
    program_.plays("");
    const std::string body = R"({"user":")" + std::string(row.user) + R"(","pwd":"b","config_file":")" + row.config +
                             R"(","content_file":")" + row.content + "\"}";
    EXPECT_EQ(call(kMail, "sendmail", body).text, result(row.result));
    EXPECT_EQ(program_.calls().size(), row.result == 0 ? 1u : 0u);
    EXPECT_TRUE(fs::is_directory(kStaging) && fs::is_fifo(kStaging + "/pipe"));
  }
  for (const auto& entry : fs::directory_iterator(kStaging)) fs::remove(entry);
}

}  // namespace
