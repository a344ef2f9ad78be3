// Mail, and the commands that belong to no family.
//
// `test`, on both services: shows that the service answers. The body is not read.
//
// `sendmail`, on the mail service: passes a mail from the staging directory to the system's mail program.
//
//   request  {"user": text, "pwd": text, "config_file": name, "content_file": name}
//   runs     /usr/sbin/sendmail -C CONFIG -t                  with the content as input, if user or pwd is empty
//            /usr/sbin/sendmail -auUSER -auPWD -C CONFIG -t   otherwise, with the configuration file as input
//   reply    {"result": n}: exit status, 127 for no program, 128 + its signal, or -1 if nothing was started
//
// Afterwards both files are moved to the scratch directory, where the program's output and a record are written, too.
// If several mails are sent at once, the last writer wins. The password is in the record and on the program's command
// line, and must not be in the log.
//
// `exec_cli`: runs the program named in the request and returns its output.
//
//   request  {"command": [path, argument, ...]}
//   reply    {"error_code": 0, "handler": "exec_cli_handler", "result": output, "service": ...}
//            {"error_code": -1, "error_msg": "Read command fail.", ...} if the request has no such command
//
// The program's exit status is ignored. If it cannot be run, the output is empty.
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/captured_run.h"
#include "common/debug_record.h"
#include "common/guarded_open.h"
#include "common/json_param.h"
#include "common/log.h"
#include "common/process.h"
#include "common/service_names.h"
#include "common/text.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kMailProgram[] = "/usr/sbin/sendmail";
constexpr char kStagingDir[] = "/tmp/vistalsurveillance_sendmail";
// In the scratch directory.
constexpr char kOutputLog[] = "sendmail.log";
constexpr char kLastConfig[] = "sendmail.conf";
constexpr char kLastContent[] = "sendmail.content";
constexpr char kDebugRecord[] = "sendmail.dbg";

// Bytes, including terminators.
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kCredentialSize = 64;

// The record and the log have lines for a shell command, which is always empty now. Readers of both expect the lines.
constexpr char kNoCommand[] = "";

struct Mail {
  std::string user;
  std::string password;
  std::string config_path;
  std::string content_path;
};

// The name is not checked: as always, ".." in it leads out of the directory.
std::string staged(const std::string& name) {
  return format_bounded(kPathSize, "%s/%s", kStagingDir, name.c_str());
}

// The mail program opens its configuration itself, and would wait for ever on a pipe or a terminal. It also reports a
// missing file or a folder itself.
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
    return exec_cmd_stdio_args(mail.content_path.c_str(), output, output, nullptr, kMailProgram, "-C", config, "-t",
                               nullptr);
  }
  // The option appears twice and the configuration is the input: authenticating clients write their files for this.
  const std::string user = format_bounded(kCredentialSize, "-au%s", mail.user.c_str());
  const std::string password = format_bounded(kCredentialSize, "-au%s", mail.password.c_str());
  return exec_cmd_stdio_args(config, output, output, nullptr, kMailProgram, user.c_str(), password.c_str(), "-C",
                             config, "-t", nullptr);
}

// Only a file is moved: an empty name would mean the staging directory itself.
void keep_file(const std::string& path, const std::string& kept) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
  if (std::rename(path.c_str(), kept.c_str()) == 0 || (errno != EISDIR && errno != EBUSY)) return;
  // Another user's folder or mount: it must not keep this mail in the staging directory.
  if (clear_away(kept.c_str())) std::rename(path.c_str(), kept.c_str());
}

// Removes this mail from the staging directory. A missing file is not an error here: the mail program reports it.
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

void write_log(const char* log_name, const Mail& mail, int result) {
  LOG_AT(log_name, "str_conf_path=[%s].", mail.config_path.c_str());
  LOG_AT(log_name, "str_content_path=[%s].", mail.content_path.c_str());
  LOG_AT(log_name, "str_cmd_sendmail=[%s].", kNoCommand);
  LOG_AT(log_name, "ret_val=[%d].\n", result);  // an empty line ends the lines of a mail
}

Outcome send_mail(Request& request, const std::string& user, const std::string& password,
                  const std::string& config_file, const std::string& content_file) {
  const char* const log_name = request.log_name.c_str();
  const Mail mail = {
      .user = user, .password = password, .config_path = staged(config_file), .content_path = staged(content_file)};
  LOG_AT(log_name, "exec sendmail start.");
  const HeldFolder scratch(kScratchDir);
  const int result = exit_status(run_mail_program(mail, scratch));
  const HeldFolder scratch_now(kScratchDir);  // opened again: the folder may have been replaced while the mail was sent
  keep_files(mail, scratch_now);
  request.reply["result"] = result;
  write_record(mail, result, scratch_now);
  write_log(log_name, mail, result);
  return Outcome::own;
}

template <const char* service>
Outcome name_handler_and_service(Request& request) {
  request.reply["handler"] = request.log_name;
  request.reply["service"] = service;
  return Outcome::own;
}

// ---- Command lines

constexpr std::size_t kArgumentSize = 256;  // bytes of one argument, including the NUL
constexpr std::size_t kMaxOutput = 5120;    // bytes of output that are returned

// The command as texts, program first. Numbers and booleans become their JSON texts. Nothing if there is no program, or
// an element cannot become a text.
std::optional<std::vector<std::string>> read_command_line(const std::string& text) {
  Json::Value root;
  if (!json_parse(text, &root) || !root.isObject()) return std::nullopt;
  const Json::Value& command = root["command"];
  if (!command.isArray() || command.empty()) return std::nullopt;
  std::vector<std::string> texts;
  texts.reserve(command.size());
  for (const Json::Value& element : command) {
    if (!element.isConvertibleTo(Json::stringValue)) return std::nullopt;
    texts.push_back(element.asString());
  }
  return texts;
}

Outcome relay_command_line(Request& request) {
  name_handler_and_service<kMainServiceName>(request);
  const auto answer = [&](int code, const char* member, const std::string& text) {
    request.reply["error_code"] = code;
    request.reply[member] = text;
    return Outcome::own;
  };
  std::optional<std::vector<std::string>> command = read_command_line(read_request_text(request.io));
  if (!command) return answer(-1, "error_msg", "Read command fail.");
  try {
    const std::string program = command->front();
    command->front() = base_name(program);
    for (std::size_t i = 1; i < command->size(); ++i) {
      (*command)[i].resize(strnlen((*command)[i].c_str(), kArgumentSize - 1));
    }
    const CapturedRun run(program, std::move(*command));
    return answer(0, "result", run.output(kMaxOutput).c_str());  // up to its first NUL
  } catch (const std::bad_alloc&) {
    return answer(-2, "error_msg", "malloc fail.");
  }
}

}  // namespace

constexpr Command mail_service::test = Row{.log_name = "nos_test_sendmail_srv_handler",
                                           .runs = "nothing",
                                           .answers = "handler, service",
                                           .action = name_handler_and_service<kMailServiceName>};

constexpr Command mail_service::sendmail =
    Row{.params = {text("user"), text("pwd"), text("config_file"), text("content_file")},
        .runs = "/usr/sbin/sendmail [-auUSER -auPWD] -C CONFIG_FILE -t",
        .answers = "result: the exit status",
        .action = calls<send_mail>};

constexpr Command main_service::test = Row{.log_name = "test_handler",
                                           .runs = "nothing",
                                           .answers = "handler, service",
                                           .action = name_handler_and_service<kMainServiceName>};

constexpr Command main_service::exec_cli = Row{.log_name = "exec_cli_handler",
                                               .params = {array("command")},
                                               .runs = "COMMAND...",
                                               .answers = "error_code, handler, result, service",
                                               .action = {relay_command_line, Reads::itself}};
