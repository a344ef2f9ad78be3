#include "daemon/command_tables.h"

#include <cstddef>
#include <string_view>

#include "handlers/catalogue.h"

namespace {

#define MAIL_ROW(known) {.name = #known, .command = &mail_service::known},
#define MAIN_ROW(known) {.name = #known, .command = &main_service::known},
constexpr CommandRow kMailCommands[] = {MAIL_COMMANDS(MAIL_ROW)};
constexpr CommandRow kMainCommands[] = {MAIN_COMMANDS(MAIN_ROW)};

consteval bool all_different(std::span<const CommandRow> rows) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (std::string_view(rows[i].name) == rows[j].name) return false;
    }
  }
  return true;
}
static_assert(all_different(kMailCommands) && all_different(kMainCommands), "a name stands twice");

}  // namespace

std::span<const CommandRow> main_commands() {
  return kMainCommands;
}

std::span<const CommandRow> mail_commands() {
  return kMailCommands;
}
