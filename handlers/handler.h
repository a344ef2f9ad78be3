// The skeleton of all commands: request text -> JSON -> typed parameters -> action -> reply.
//
// A command that does more than run a program has an action, a function in its family's file:
//
//     Outcome look_up(Request& request, const std::string& user, std::int32_t type) {
//       ...                                 // act; add to request.reply what the reply carries besides
//       return Outcome::success;
//     }
//
//     constexpr Command main_service::get_something = Row{
//         .params = {text("user"), number("type")},
//         .runs = "what a reader of `ksctl list` is told",
//         .action = calls<look_up>};
//
// The skeleton sends one of these replies, on one line of JSON unless the row asks for several:
//   the body is not JSON                 {"error_code":-1,"error_msg":"input error"}     and one log line
//   or it would take too much memory     the same, and another log line
//   a parameter is missing or mistyped   {"error_code":-1,"error_msg":"paser fail"}
//   Outcome::failure                     {"error_msg":"<log name> fail","result":-1}
//   Outcome::success                     {"result":0} and what the action has set
//   Outcome::own                         what the action has set
//   Outcome::silent                      nothing: the dispatcher hangs up
// The body of a command without parameters is ignored. If a body is read, an empty one raises std::logic_error, and
// JSON that is neither an object nor null raises Json::LogicError. These and exceptions from actions reach the
// dispatcher, which catches them.
#pragma once

#include <json/value.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "common/logged_run.h"
#include "handlers/command.h"
#include "service/ks.h"

using Value = std::variant<std::string, std::int32_t>;

// The state of one request in the skeleton.
struct Request {
  Request(const CommandRow& row, ks_io* request_io);

  // For actions that read the body themselves. False if the body is refused; the reply is then the refusal. read_params
  // fills `values`, parse_body only `body`.
  bool parse_body();
  bool read_params();

  // The path of the row's program, empty if the package list lacks the control script; and the program's arguments.
  std::string program() const;
  std::vector<std::string> arguments() const;

  const Command& command;
  const std::string log_name;
  ks_io* const io;
  std::array<Value, kMostParams> values;  // of the parameters, in order
  Json::Value body;
  Json::Value reply;
  std::function<void()> afterwards;  // called after the reply is sent

 private:
  bool refuse(const char* message);
};

// The name used in a command's log lines and failure replies.
std::string log_name_of(const CommandRow& row);

// Runs a command for one request and sends the reply. The dispatcher keeps the request.
void carry_out(const CommandRow& row, ks_io* io);

// The result of a function that looks up the row's `member`: its value, or nothing on failure.
using MemberValue = std::optional<Json::Value>;

// The outcome of an action that only succeeds or fails, and of one that adds the row's `member`.
Outcome success_if(bool done);
Outcome success_if_had(Request& request, MemberValue member);

// calls<f> is the action that calls `f` with the request and the row's parameters, in order. If `f` returns a
// MemberValue, the row needs a `member`.
template <auto function>
struct Call;
template <typename Result, typename... Taken, Result (*function)(Request&, Taken...)>
struct Call<function> {
  static constexpr bool kAddsMember = std::is_same_v<Result, MemberValue>;
  static constexpr std::array<Type, sizeof...(Taken)> kTypes = {
      std::is_same_v<std::remove_cvref_t<Taken>, std::string> ? Type::string : Type::integer...};
  template <std::size_t... place>
  static Result pick(Request& request, std::index_sequence<place...>) {
    return function(request, std::get<std::remove_cvref_t<Taken>>(request.values[place])...);
  }
  static Outcome run(Request& request) {
    Result result = pick(request, std::index_sequence_for<Taken...>());
    if constexpr (kAddsMember) {
      return success_if_had(request, std::move(result));
    } else {
      return result;
    }
  }
};
template <auto function>
inline constexpr Action calls{Call<function>::run, Reads::params, Call<function>::kTypes, Call<function>::kAddsMember};

// Runs a program with logging and replies with its output: "result_out" in base64, and "cli_ret" 0. With
// `removal_tells` "cli_ret" is -1 if the output file could not be removed. Sends no reply if the program failed.
Outcome relay_logged(Request& request, LoggedRun run, bool removal_tells = false);

// The member `name` of `object`, an object or null; or `otherwise` if it has none. Unlike the library's get(), does not
// copy the result, which lives as long as the two arguments.
const Json::Value& member_or(const Json::Value& object, std::string_view name, const Json::Value& otherwise);

// Tells the dispatcher how long a handler has been writing its reply, which a hostile client can hold up. The request's
// user value (ks_io_set) points to it, or is 0. Any thread may read it.
class ReplyClock {
 public:
  void start() { started_.store(std::chrono::steady_clock::now().time_since_epoch()); }
  void stop() { started_.store(kStopped); }
  // Zero unless a reply is being written.
  std::chrono::steady_clock::duration elapsed() const;
  // Whether a reply has been written.
  bool has_stopped() const { return started_.load() == kStopped; }

 private:
  static constexpr auto kStopped = std::chrono::steady_clock::duration::max();
  std::atomic<std::chrono::steady_clock::duration> started_{};
};

// Returns the request's body up to its first NUL. Stops reading when the body exceeds every limit. Throws
// std::logic_error if there is no body. Reads through the descriptor, because the client can shrink a mapped file.
std::string read_request_text(ks_io* io);

// Replaces the request's body by `text` and notifies the client; does nothing if the client has gone.
void reply_json_string(const std::string& text, ks_io* io);
