// `ksctl list`: lists the commands of the daemon's two services, from the daemon's own tables. The daemon need not run.
#include <json/value.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstring>
#include <span>
#include <string>

#include "common/json_param.h"
#include "common/write_all.h"
#include "daemon/command_tables.h"
#include "handlers/handler.h"
#include "tools/cli.h"

namespace {

// The call in readable form.
std::string runs_text(const Command& command) {
  if (command.runs != nullptr) return command.runs;
  if (command.library != nullptr) return std::string(command.function) + " of " + command.library;
  std::string text(command.program);
  for (const Argument& argument : command.args) {
    if (argument.text == nullptr) break;
    std::string word = argument.text;
    if (argument.is_param)
      for (char& c : word) c = static_cast<char>(std::toupper(c));
    text += " " + word;
  }
  return text;
}

std::string answers_text(const Command& command) {
  if (command.answers != nullptr) return command.answers;
  return command.member != nullptr ? std::string("result, ") + command.member : "result";
}

Json::Value describe(const char* service, const CommandRow& row) {
  Json::Value described;
  described["service"] = service;
  described["command"] = row.name;
  described["parameters"] = Json::arrayValue;
  for (const Param& param : row.command->parameters()) {
    Json::Value& shown = described["parameters"].append({});
    shown["name"] = param.name;
    shown["type"] = type_name(param.type);
    shown["optional"] = param.optional;
  }
  described["runs"] = runs_text(*row.command);
  described["answers"] = answers_text(*row.command);
  described["log_name"] = log_name_of(row);
  return described;
}

std::string text_of(const Json::Value& described, bool in_full) {
  std::string text = described["service"].asString() + " " + described["command"].asString();
  for (const Json::Value& param : described["parameters"]) {
    const std::string shown = param["name"].asString() + ":" + param["type"].asString();
    text += param["optional"].asBool() ? " [" + shown + "]" : " " + shown;
  }
  if (in_full) {
    for (const char* what : {"runs", "answers", "log_name"})
      text += std::string("\n  ") + what + ": " + described[what].asString();
  }
  return text + "\n";
}

// Adds the commands called `name`, or all if it is null; false if there are none.
bool add(const char* wanted, Json::Value& list) {
  const Json::ArrayIndex before = list.size();
  for (const char* service : {"main", "mail"}) {
    for (const CommandRow& row : std::strcmp(service, "main") == 0 ? main_commands() : mail_commands())
      if (wanted == nullptr || std::strcmp(wanted, row.name) == 0) list.append(describe(service, row));
  }
  return list.size() > before;
}

int run_list(int argc, char** argv) {
  bool json = false;
  const Option options[] = {{.name = "json", .help = "print an array of objects", .store = store_flag(&json)}};
  std::span<char*> wanted;
  if (const auto status = read_arguments(kListCommand, options, INT_MAX, argc, argv, &wanted)) return *status;
  Json::Value list(Json::arrayValue);
  if (wanted.empty()) add(nullptr, list);
  for (const char* name : wanted) {
    if (!add(name, list)) return wrong_usage(kListCommand, std::string("no such command: ") + name);
  }
  std::string output = json ? json_write(list) : "";
  if (!json)
    for (const Json::Value& described : list) output += text_of(described, !wanted.empty());
  if (write_all(STDOUT_FILENO, output.data(), output.size())) return 0;
  return local_trouble(kListCommand, "cannot write to standard output");
}

}  // namespace

const Subcommand kListCommand = {.name = "list",
                                 .operands = "[COMMAND]...",
                                 .summary = "Lists the commands of the daemon's services, or describes those named.",
                                 .statuses =
                                     "  0   the list is printed\n"
                                     "  1   standard output cannot be written\n"
                                     "  2   wrong usage, or there is no such command\n",
                                 .example = "ksctl list exec_cli",
                                 .run = run_list};
