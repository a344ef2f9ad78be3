// `sendmail`, on the mail service: hands a mail that the client has left in the staging directory to the
// system's mail program.
//
//   request  {"user": text, "pwd": text, "config_file": name, "content_file": name}
//   runs     /usr/sbin/sendmail -C CONFIG -t                  with the content as input, if user or pwd is empty
//            /usr/sbin/sendmail -auUSER -auPWD -C CONFIG -t   with the configuration file as input, else
//   reply    {"result": n}: exit status, 127 for no program, 128 + its signal, or -1 when nothing was started
//
// Afterwards both files are moved to the scratch directory, beside the program's output and a record of the
// send. All four belong to the last mail: with several under way at once the last writer wins. The password
// appears in the record and in the program's command line, and must not appear in the log.
#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include "common/guarded_open.h"
#include "common/log.h"
#include "common/process.h"
#include "common/text.h"
#include "handlers/captured_run.h"
#include "handlers/debug_record.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"

namespace {

constexpr char kLogName[] = "nos_sendmail_handler";

constexpr char kMailProgram[] = "/usr/sbin/sendmail";
constexpr char kStagingDir[] = "/tmp/vistalsurveillance_sendmail";
// In the scratch directory.
constexpr char kOutputLog[] = "sendmail.log";
constexpr char kLastConfig[] = "sendmail.conf";
constexpr char kLastContent[] = "sendmail.content";
constexpr char kDebugRecord[] = "sendmail.dbg";

// Bytes, terminators included.
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kCredentialSize = 64;

// The record and the log have a place for command texts, from when the mail went through a shell. Readers of
// both expect the lines.
constexpr char kNoCommand[] = "";

struct Mail {
  std::string user;
  std::string password;
  std::string config_path;
  std::string content_path;
};

// The name is not looked at: one with ".." in it leads out of the directory, as it always has.
std::string staged(const std::string& name) {
  return format_bounded(kPathSize, "%s/%s", kStagingDir, name.c_str());
}

// The mail program opens its configuration by itself, and would wait for ever on a pipe. One that is missing is its
// own affair.
bool can_be_configuration(const char* path) {
  struct stat info {};
  return stat(path, &info) != 0 || S_ISREG(info.st_mode) || S_ISDIR(info.st_mode);
}

// Returns the raw wait status, or -1 when nothing was run.
int run_mail_program(const Mail& mail, const HeldFolder& scratch) {
  const char* const config = mail.config_path.c_str();
  if (!can_be_configuration(config)) return -1;
  const std::string output_path = scratch.path_of(kOutputLog);
  const char* const output = output_path.c_str();
  if (mail.user.empty() || mail.password.empty()) {
    return exec_cmd_stdio_args(mail.content_path.c_str(), output, output, nullptr, kMailProgram, "-C", config,
                               "-t", nullptr);
  }
  // Twice the same option, and the configuration as input: clients that authenticate write their files so.
  const std::string user = format_bounded(kCredentialSize, "-au%s", mail.user.c_str());
  const std::string password = format_bounded(kCredentialSize, "-au%s", mail.password.c_str());
  return exec_cmd_stdio_args(config, output, output, nullptr, kMailProgram, user.c_str(), password.c_str(),
                             "-C", config, "-t", nullptr);
}

// Only a file is moved: an empty name stands for the staging directory itself.
void keep_file(const std::string& path, const std::string& kept) {
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) std::rename(path.c_str(), kept.c_str());
}

// Empties the staging directory of this mail. A file that is not there to be moved has been missed before,
// by the mail program.
void keep_files(const Mail& mail, const HeldFolder& scratch) {
  keep_file(mail.config_path, scratch.path_of(kLastConfig));
  keep_file(mail.content_path, scratch.path_of(kLastContent));
}

void write_record(const Mail& mail, int result, const HeldFolder& scratch) {
  const UniqueStream record = open_debug_record(scratch, kDebugRecord);
  if (!record) return;
  std::fprintf(record.get(), "str_usr=[%s]\n", mail.user.c_str());
  std::fprintf(record.get(), "str_pwd=[%s]\n", mail.password.c_str());
  std::fprintf(record.get(), "str_conf_path=[%s]\n", mail.config_path.c_str());
  std::fprintf(record.get(), "str_content_path=[%s]\n", mail.content_path.c_str());
  std::fprintf(record.get(), "str_cmd_sendmail=[%s]\n", kNoCommand);
  std::fprintf(record.get(), "str_cmd_rm=[%s]\n", kNoCommand);
  std::fprintf(record.get(), "ret_val=[%d]\n", result);
}

void write_log(const Mail& mail, int result) {
  LOG_AT(kLogName, "str_conf_path=[%s].", mail.config_path.c_str());
  LOG_AT(kLogName, "str_content_path=[%s].", mail.content_path.c_str());
  LOG_AT(kLogName, "str_cmd_sendmail=[%s].", kNoCommand);
  LOG_AT(kLogName, "ret_val=[%d].\n", result);  // the empty line ends a mail's lines
}

}  // namespace

void nos_sendmail_handler(ks_io* io, int) {
  std::string user;
  std::string password;
  std::string config_file;
  std::string content_file;
  const Params params = {
      {"user", &user}, {"pwd", &password}, {"config_file", &config_file}, {"content_file", &content_file}};
  handle_request(io, kLogName, params, [&](Json::Value& reply) {
    const Mail mail = {.user = user,
                       .password = password,
                       .config_path = staged(config_file),
                       .content_path = staged(content_file)};
    LOG_AT(kLogName, "exec sendmail start.");
    const HeldFolder scratch(kScratchDir);
    const int result = exit_status(run_mail_program(mail, scratch));
    keep_files(mail, scratch);
    reply["result"] = result;
    write_record(mail, result, scratch);
    write_log(mail, result);
    return Outcome::own;
  });
}
