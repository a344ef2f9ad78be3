#include "handlers/handler.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "common/json_param.h"
#include "common/log.h"

namespace {

// Longer bodies are cut here, and are then no JSON as a rule: parsed values take up to fifty times the memory
// of their text, and a client shall not be able to use up the appliance's. The longest known body is a list
// of addresses of some hundred kilobytes.
constexpr std::size_t kMaxRequestText = 4 * 1024 * 1024;
constexpr std::size_t kReadSize = 16 * 1024;

void refuse(Json::Value& reply, const char* message) {
  reply["error_msg"] = message;
  reply["error_code"] = -1;
}

// Fills the parameters, or the reply with the reason why not.
bool parse_request(const std::string& text, const char* log_name, const Params& params, Json::Value& reply) {
  Json::Value root;
  if (!json_parse(text, &root)) {
    LOG_AT(log_name, "ks_io input fail.");
    refuse(reply, "input error");
    return false;
  }
  bool error = false;
  for (const Param& param : params)
    parser_param_from_json_str(root, param.key, param.value, param.type, &error);
  if (error) refuse(reply, "paser fail");
  return !error;
}

// Adds to `reply` what the outcome says and sends it, unless there is nothing to send.
void conclude(const char* log_name, Outcome outcome, Layout layout, Json::Value& reply, ks_io* io) {
  switch (outcome) {
    case Outcome::success:
      reply["result"] = 0;
      break;
    case Outcome::failure:
      reply["error_msg"] = std::string(log_name) + " fail";
      reply["result"] = -1;
      break;
    case Outcome::own:
      break;
    case Outcome::silent:
      return;
  }
  reply_json_string(layout == Layout::compact ? json_write(reply) : json_write_indented(reply), io);
}

}  // namespace

std::string read_request_text(ks_io* io) {
  std::string text;
  char chunk[kReadSize];
  while (text.size() < kMaxRequestText) {
    const ssize_t got = pread(io->memfd, chunk, sizeof(chunk), static_cast<off_t>(text.size()));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    const auto size = static_cast<std::size_t>(got);
    const std::size_t length = strnlen(chunk, size);
    text.append(chunk, length);
    if (length < size) return text;
  }
  if (text.empty()) throw std::logic_error("basic_string: construction from null is not valid");
  return text;
}

void handle_request(ks_io* io, const char* log_name, const Params& params, const Action& action) {
  Json::Value reply;
  const bool complete = parse_request(read_request_text(io), log_name, params, reply);
  conclude(log_name, complete ? action(reply) : Outcome::own, Layout::compact, reply, io);
}

void handle_bare_request(ks_io* io, const char* log_name, const Action& action) {
  Json::Value reply;
  const Outcome outcome = action(reply);
  conclude(log_name, outcome, Layout::compact, reply, io);
}

void handle_object_request(ks_io* io, const char* log_name, Layout layout, const ObjectAction& action) {
  const std::string text = read_request_text(io);
  Json::Value request;
  Json::Value reply;
  Outcome outcome = Outcome::own;
  std::string errors;
  if (json_parse_builder(text, &request, &errors)) {
    outcome = action(request, reply);
  } else {
    LOG_AT(log_name, "parse strInputArg failed, error=[%s]", errors.c_str());
    refuse(reply, "input error");
  }
  conclude(log_name, outcome, layout, reply, io);
}

std::chrono::steady_clock::duration ReplyClock::elapsed() const {
  const auto started = started_.load();
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return started.count() != 0 ? now - started : started;
}

void reply_json_string(const std::string& text, ks_io* io) {
  if (!ks_io_alive(io)) return;
  auto* const clock = reinterpret_cast<ReplyClock*>(ks_io_get(io));
  if (clock != nullptr) clock->start();
  ks_io_realloc(io, 0);
  ks_io_printf(io, "%s", text.c_str());
  ks_reply(io);
  if (clock != nullptr) clock->stop();
}

void reply_json(const Json::Value& reply, ks_io* io) {
  reply_json_string(json_write(reply), io);
}
