// A command is one row, which is checked at compile time.
//
//     constexpr Command main_service::system_call_share_guard_remove = Row{
//         .params = {text("share_name")},
//         .program = "/sbin/share_guard",
//         .args = {"remove", param("share_name")}};
//
// The row describes the request, the program and the reply. A command that does more than run a program also has an
// action (handlers/handler.h).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string_view>

struct Request;

// The type of a parameter: a text, an integer that fits 32 bits, an array.
enum class Type { string, integer, array };

constexpr const char* type_name(Type type) {
  return type == Type::string ? "string" : type == Type::integer ? "int" : "array";
}

struct Param {
  const char* name = nullptr;
  Type type = Type::string;
  bool optional = false;  // shown by `ksctl list`; the action gives it a default
};

consteval Param text(const char* name) {
  return {.name = name, .type = Type::string};
}
consteval Param number(const char* name) {
  return {.name = name, .type = Type::integer};
}
consteval Param array(const char* name) {
  return {.name = name, .type = Type::array};
}
consteval Param optional(Param param) {
  param.optional = true;
  return param;
}

// One argument of a program: a fixed text, or the value of a named parameter.
struct Argument {
  constexpr Argument() = default;
  constexpr Argument(const char* fixed) : text(fixed) {}  // NOLINT: implicit, for readable rows
  const char* text = nullptr;
  bool is_param = false;
};

consteval Argument param(const char* name) {
  Argument argument(name);
  argument.is_param = true;
  return argument;
}

// The result of an action; see handlers/handler.h.
enum class Outcome { success, failure, own, silent };

// How the body is read.
enum class Reads {
  params,   // the skeleton reads the row's parameters; it reads no body if there are none
  members,  // the skeleton parses the body; the action converts its members with the library's own conversions
  itself,   // the action has the body read, or reads it itself
};

// Runs the row's program; exit status 0 is success.
Outcome run_program(Request& request);

struct Action {
  constexpr Action() = default;
  constexpr Action(Outcome (*function)(Request&), Reads how = Reads::params, std::span<const Type> picked = {},
                   bool adds = false)
      : run(function), reads(how), takes(picked), adds_member(adds), only_runs(false) {}  // NOLINT: as above
  Outcome (*run)(Request& request) = run_program;
  Reads reads = Reads::params;
  std::span<const Type> takes;  // the parameters that `run` takes, in order
  bool adds_member = false;     // whether it adds the row's `member` to the reply
  // Whether it only runs the row's program. The compiler cannot always compare function pointers.
  bool only_runs = true;
};

inline constexpr std::size_t kMostParams = 7;
inline constexpr std::size_t kMostArguments = 14;

// In place of a path: the package's control script, `Shell` in the platform's package list.
inline constexpr std::string_view kControlScript = "SHELL";

struct Row {
  const char* log_name = nullptr;  // null: "nos_", the command's name and "_handler"
  std::array<Param, kMostParams> params = {};
  // Either a program (an absolute path or kControlScript) or a function of a platform library.
  std::string_view program = {};
  std::array<Argument, kMostArguments> args = {};
  const char* library = nullptr;
  const char* function = nullptr;
  const char* runs = nullptr;     // shown by `ksctl list` if the fields above do not say it
  const char* member = nullptr;   // the member that the action adds to the reply
  const char* answers = nullptr;  // shown by `ksctl list`: the reply's members, if not `member` and "result"
  Action action = {};
  bool indented = false;       // whether the reply is on several lines
  bool logs_bad_body = false;  // whether a body that is not JSON is logged
};

// A checked row: an invalid one does not compile.
class Command : public Row {
 public:
  consteval Command(const Row& row) : Row(row) {  // NOLINT: as above
    if (action.only_runs && program.empty()) throw "a row without a way to run";
    if (program.empty() && library == nullptr && runs == nullptr) throw "a row must say what is run";
    for (const Param& param : parameters()) {
      if (&param != &params[place_of(param.name)]) throw "two parameters of one name";
      if (param.type == Type::array && action.reads == Reads::params) throw "only actions read arrays";
      if (param.optional && action.reads == Reads::params) throw "a parameter that is read cannot be absent";
    }
    bool at_end = false;
    for (const Argument& argument : args) {
      if (argument.is_param && place_of(argument.text) == parameters().size())
        throw "an argument names a parameter that the row does not have";
      if (argument.is_param && action.reads != Reads::params) throw "an argument is never filled in";
      if (argument.text != nullptr && at_end) throw "an argument behind the end of the arguments";
      at_end = argument.text == nullptr;
    }
    if (args[0].text != nullptr && program.empty()) throw "arguments without a program";
    if ((library == nullptr) != (function == nullptr)) throw "a library and a function come together";
    if (!action.takes.empty() && !std::ranges::equal(action.takes, parameters(), {}, {}, &Param::type))
      throw "the action takes other parameters than the row has";
    if (action.adds_member && member == nullptr) throw "the action adds a member that the row does not name";
  }

  constexpr std::span<const Param> parameters() const {
    return {params.begin(), std::ranges::find(params, nullptr, &Param::name)};
  }

  // The index of a parameter; their number if there is none with this name.
  constexpr std::size_t place_of(std::string_view name) const {
    const auto all = parameters();
    return static_cast<std::size_t>(std::ranges::find(all, name, &Param::name) - all.begin());
  }
};

// One row of a service's table.
struct CommandRow {
  const char* name;
  const Command* command;
};
