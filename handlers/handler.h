// The one skeleton of all commands: request text -> JSON -> typed parameters -> action -> reply.
//
// What a command does beyond running its program is an action, a function of its family's file:
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
// and the skeleton sends, on one line of JSON unless the row asks for several:
//   the body is not JSON                 {"error_code":-1,"error_msg":"input error"}     and one log line
//   or it would take too much memory     the same, and another log line
//   a parameter is missing or mistyped   {"error_code":-1,"error_msg":"paser fail"}
//   Outcome::failure                     {"error_msg":"<log name> fail","result":-1}
//   Outcome::success                     {"result":0} and what the action has set
//   Outcome::own                         what the action has set
//   Outcome::silent                      nothing: the dispatcher hangs up
// The body of a command without parameters is not looked at. A request without any body raises std::logic_error
// where its body is read, as does JSON that is neither an object nor null (Json::LogicError); what an action
// throws passes through as well. The dispatcher catches.
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

// One request on its way through the skeleton.
struct Request {
  Request(const CommandRow& row, ks_io* request_io);

  // For actions that read the body themselves. False when there is nothing to act on: the reply is then the
  // refusal. read_params fills `values`, parse_body only `body`.
  bool parse_body();
  bool read_params();

  // The row's program, a control script looked up, or empty when the package list does not have it; and its
  // arguments, filled in.
  std::string program() const;
  std::vector<std::string> arguments() const;

  const Command& command;
  const std::string log_name;
  ks_io* const io;
  std::array<Value, kMostParams> values;  // of the parameters, in their order
  Json::Value body;
  Json::Value reply;
  std::function<void()> afterwards;  // what is left to do once the reply is out

 private:
  bool refuse(const char* message);
};

// What stands in a command's log lines and failures.
std::string log_name_of(const CommandRow& row);

// Runs a command for one request, up to its reply. The request stays the dispatcher's.
void carry_out(const CommandRow& row, ks_io* io);

// What a function returns that looks up the row's `member`: its value, or nothing when it could not be had.
using MemberValue = std::optional<Json::Value>;

// For actions that only tell whether it could be done, and for those that add the row's `member`.
Outcome success_if(bool done);
Outcome success_if_had(Request& request, MemberValue member);

// The action of a function that takes the row's parameters, in their order. One that returns a MemberValue needs a row
// with a `member`.
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

// A logged run whose output is the answer: "result_out", in base64, and a "cli_ret" of 0. `removal_tells`: -1
// there when the output file could not be removed. Without a reply when the program failed.
Outcome relay_logged(Request& request, LoggedRun run, bool removal_tells = false);

// The member of that name of an object or null, or the other value: the library's get(), which copies.
const Json::Value& member_or(const Json::Value& object, std::string_view name, const Json::Value& otherwise);

// Tells the dispatcher how long a handler has been at writing its reply, where a hostile client can hold it up. The
// request's user word (ks_io_set) points at it, or is 0. Any thread may look.
class ReplyClock {
 public:
  void start() { started_.store(std::chrono::steady_clock::now().time_since_epoch()); }
  void stop() { started_.store(kStopped); }
  // Zero while no reply is being written.
  std::chrono::steady_clock::duration elapsed() const;
  // Whether a reply has been written.
  bool has_stopped() const { return started_.load() == kStopped; }

 private:
  static constexpr auto kStopped = std::chrono::steady_clock::duration::max();
  std::atomic<std::chrono::steady_clock::duration> started_{};
};

// The request's body up to its first NUL, or so much of it that it costs more than any request may. Throws
// std::logic_error when there is no body. Reads through the descriptor: the client can shrink the file under
// a mapping.
std::string read_request_text(ks_io* io);

// Puts `text` in place of the request's body and tells the client; does nothing when the client has gone.
void reply_json_string(const std::string& text, ks_io* io);
