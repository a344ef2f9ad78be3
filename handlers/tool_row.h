// What the tables of commands that run a program have in common: a row names the request's parameters, all of
// them texts, and says which of them the program is given where.
#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "handlers/handler.h"

// As many parameters as any such command has. Names are in the order in which they are read; null ends the
// list.
inline constexpr std::size_t kMostParams = 5;
using ParamNames = std::array<const char*, kMostParams>;
using ParamValues = std::array<std::string, kMostParams>;

// One argument of a program: fixed, or the request's parameter of that number. Empty slots are left out.
struct Argument {
  constexpr Argument() = default;
  constexpr Argument(const char* fixed) : text(fixed) {}  // NOLINT: a row reads better without a name for it
  constexpr explicit Argument(int number) : param(number) {}
  const char* text = nullptr;
  int param = -1;
};

constexpr Argument param(int number) {
  return Argument(number);
}

// The row of a command; it has one, or the daemon's own table would not have led here (std::logic_error).
template <typename Row>
const Row& row_of(std::span<const Row> table, std::string_view command) {
  const auto row = std::ranges::find(table, command, &Row::command);
  if (row == table.end()) throw std::logic_error("no row for this command");
  return *row;
}

// The arguments of a row, filled in.
std::vector<std::string> arguments_of(std::span<const Argument> row, const ParamValues& values);

// Runs the action with a row's parameters, as handle_request does, or as handle_bare_request when it has
// none.
using RowAction = std::function<Outcome(const ParamValues& values, Json::Value& reply)>;
void handle_row(ks_io* io, const char* log_name, const ParamNames& names, const RowAction& action);
