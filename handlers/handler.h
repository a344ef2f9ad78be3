// The one skeleton of all command handlers: request text -> JSON -> typed parameters -> action -> reply.
//
// A handler is a function that the dispatcher calls on a thread of its own with the request and the client's
// descriptor (whose number means nothing by then: standard output stands for it). It is written as
//
//     void nos_get_something_handler(ks_io* io, int) {
//       std::string user;
//       std::int32_t type = 0;
//       const Params params = {{"user", &user}, {"type", &type}};
//       handle_request(io, "nos_get_something_handler", params, [&](Json::Value& reply) {
//         ...                           // act on user and type; add what the reply carries besides
//         return Outcome::success;
//       });
//     }
//
// and the skeleton sends, one line of JSON each (handle_object_request has its own layout):
//   the body is not JSON                 {"error_code":-1,"error_msg":"input error"}     and one log line
//   a parameter is missing or mistyped   {"error_code":-1,"error_msg":"paser fail"}
//   Outcome::failure                     {"error_msg":"<log name> fail","result":-1}
//   Outcome::success                     {"result":0} and what the action has set
//   Outcome::own                         what the action has set
//   Outcome::silent                      nothing: the dispatcher hangs up
// A request without any body raises std::logic_error out of the handler, as does JSON that is neither an
// object nor null
// (Json::LogicError); the dispatcher catches.
#pragma once

#include <json/value.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "service/ks.h"

enum class Outcome { success, failure, own, silent };

// One parameter of a request: its member name and the variable that receives it, which says what type it must
// be.
struct Param {
  Param(const char* name, std::string* out) : key(name), type("string"), value(out) {}
  Param(const char* name, std::int32_t* out) : key(name), type("int"), value(out) {}
  const char* key;
  const char* type;
  void* value;
};

using Params = std::vector<Param>;
using Action = std::function<Outcome(Json::Value& reply)>;

// Runs a handler that reads its request. `log_name` stands in its log lines and is the stem of its failure
// message. The action runs only when every parameter is there.
void handle_request(ks_io* io, const char* log_name, const Params& params, const Action& action);

// Runs a handler without parameters: the body is not looked at.
void handle_bare_request(ks_io* io, const char* log_name, const Action& action);

// How a reply stands on the wire: on one line, or on several, indented by tabs.
enum class Layout { compact, indented };

using ObjectAction = std::function<Outcome(const Json::Value& request, Json::Value& reply)>;

// Runs a handler that takes its members from the request itself, by the library's own conversions and with
// defaults for those that are absent; what the action throws passes through. The body is read by
// json_parse_builder. For one that is not JSON, the log line has the reader's account. `layout` holds for
// every reply, the refusal included.
void handle_object_request(ks_io* io, const char* log_name, Layout layout, const ObjectAction& action);

// Tells the dispatcher how long a handler has been at writing its reply, where a hostile client can hold it up. The
// request's user word (ks_io_set) points at it, or is 0. Any thread may look.
class ReplyClock {
 public:
  void start() { started_.store(std::chrono::steady_clock::now().time_since_epoch()); }
  void stop() { started_.store({}); }
  // Zero while no reply is being written.
  std::chrono::steady_clock::duration elapsed() const;

 private:
  std::atomic<std::chrono::steady_clock::duration> started_{};
};

// The request's body up to its first NUL, and at most its first 4 MiB (kMaxRequestText). Throws
// std::logic_error when there is no body. Reads through the descriptor: the client can shrink the file under
// a mapping.
std::string read_request_text(ks_io* io);

// Puts `text`, or `reply` on one line, in place of the request's body and tells the client; does nothing when
// the client has gone.
void reply_json_string(const std::string& text, ks_io* io);
void reply_json(const Json::Value& reply, ks_io* io);
