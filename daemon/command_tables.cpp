#include "daemon/command_tables.h"

#include "handlers/catalogue.h"

namespace {

// The enumerations make duplicate names a compile error.
#define NAME(known) known,
enum class MailName { MAIL_COMMANDS(NAME) };
enum class MainName { MAIN_COMMANDS(NAME) };

#define MAIL_ROW(known) {.name = #known, .command = &mail_service::known},
#define MAIN_ROW(known) {.name = #known, .command = &main_service::known},
constexpr CommandRow kMailCommands[] = {MAIL_COMMANDS(MAIL_ROW)};
constexpr CommandRow kMainCommands[] = {MAIN_COMMANDS(MAIN_ROW)};

}  // namespace

std::span<const CommandRow> main_commands() {
  return kMainCommands;
}

std::span<const CommandRow> mail_commands() {
  return kMailCommands;
}
