#include "handlers/tool_row.h"

std::vector<std::string> arguments_of(std::span<const Argument> row, const ParamValues& values) {
  std::vector<std::string> arguments;
  for (const Argument& argument : row) {
    if (argument.param >= 0) {
      arguments.push_back(values[static_cast<std::size_t>(argument.param)]);
    } else if (argument.text != nullptr) {
      arguments.emplace_back(argument.text);
    }
  }
  return arguments;
}

void handle_row(ks_io* io, const char* log_name, const ParamNames& names, const RowAction& action) {
  ParamValues values;
  Params params;
  for (std::size_t i = 0; i < names.size() && names[i] != nullptr; ++i) {
    params.emplace_back(names[i], &values[i]);
  }
  const auto act = [&](Json::Value& reply) { return action(values, reply); };
  if (params.empty()) return handle_bare_request(io, log_name, act);
  handle_request(io, log_name, params, act);
}
