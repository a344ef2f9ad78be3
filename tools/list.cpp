// `ksctl list`: the commands of the daemon's two services, from the daemon's own tables. No daemon need run.
#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <span>
#include <string>

#include "common/json_param.h"
#include "daemon/command_tables.h"
#include "handlers/handler.h"
#include "tools/cli.h"

namespace {

// As a person would write the call.
std::string runs_text(const Command& command) {
  if (command.runs != nullptr) return command.runs;
  if (command.library != nullptr) return std::string(command.function) + " of " + command.library;
  std::string text(command.program);
  for (const Argument& argument : command.args) {
    if (argument.text == nullptr) break;
    std::string word = argument.text;
    if (argument.is_param) std::transform(word.begin(), word.end(), word.begin(), ::toupper);
    text += " " + word;
  }
  return text;
}

std::string answers_text(const Command& command) {
  if (command.answers != nullptr) return command.answers;
  return command.member != nullptr ? std::string("result, ") + command.member : "result";
}

std::string line_of(const char* service, const CommandRow& row) {
  std::string line = std::string(service) + " " + row.name;
  for (const Param& param : row.command->parameters()) {
    const std::string shown = std::string(param.name) + ":" + type_name(param.type);
    line += param.optional ? " [" + shown + "]" : " " + shown;
  }
  return line + "\n";
}

Json::Value json_of(const char* service, const CommandRow& row) {
  Json::Value params(Json::arrayValue);
  for (const Param& param : row.command->parameters()) {
    Json::Value shown;
    shown["name"] = param.name;
    shown["type"] = type_name(param.type);
    shown["optional"] = param.optional;
    params.append(shown);
  }
  Json::Value shown;
  shown["service"] = service;
  shown["command"] = row.name;
  shown["parameters"] = params;
  shown["runs"] = runs_text(*row.command);
  shown["answers"] = answers_text(*row.command);
  shown["log_name"] = log_name_of(row);
  return shown;
}

struct Listing {
  std::string text;
  Json::Value json{Json::arrayValue};
};

// Adds the command of that name, or all when it is null; false when the service has none.
bool add(const char* service, std::span<const CommandRow> rows, const char* wanted, Listing& listing) {
  bool found = false;
  for (const CommandRow& row : rows) {
    if (wanted != nullptr && std::string_view(wanted) != row.name) continue;
    found = true;
    listing.json.append(json_of(service, row));
    listing.text += line_of(service, row);
    if (wanted == nullptr) continue;
    listing.text += "  runs     " + runs_text(*row.command) + "\n  answers  " + answers_text(*row.command) +
                    "\n  log name " + log_name_of(row) + "\n";
  }
  return found;
}

bool add(const char* wanted, Listing& listing) {
  const bool main = add("main", main_commands(), wanted, listing);
  return add("mail", mail_commands(), wanted, listing) || main;
}

int run_list(int argc, char** argv) {
  bool json = false;
  const Option options[] = {{.name = "json", .help = "print an array of objects", .store = store_flag(&json)}};
  std::span<char*> wanted;
  if (const auto status = read_arguments(kListCommand, options, INT_MAX, argc, argv, &wanted)) return *status;
  Listing listing;
  if (wanted.empty()) add(nullptr, listing);
  for (const char* name : wanted) {
    if (!add(name, listing)) return wrong_usage(kListCommand, std::string("no such command: ") + name);
  }
  const std::string output = json ? json_write(listing.json) : listing.text;
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
