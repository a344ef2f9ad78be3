#include "handlers/handler.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>

#include "common/base64.h"
#include "common/captured_run.h"
#include "common/json_cost.h"
#include "common/json_param.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/package_config.h"

namespace {

constexpr std::size_t kFirstReadSize = 16 * 1024;  // most bodies are smaller
constexpr std::size_t kReadSize = 256 * 1024;

// The most that is read of a body: a longer one exceeds the memory limit, whatever its content.
constexpr std::size_t kMostText = kJsonBudget / 3;

// Adds the outcome's members to the reply and sends it, unless the outcome is silent.
void conclude(Request& request, Outcome outcome) {
  if (outcome == Outcome::silent) return;
  if (outcome == Outcome::success) request.reply["result"] = 0;
  if (outcome == Outcome::failure) {
    request.reply["error_msg"] = request.log_name + " fail";
    request.reply["result"] = -1;
  }
  const bool indented = request.command.indented;
  reply_json_string(indented ? json_write_indented(request.reply) : json_write(request.reply), request.io);
}

// Whether the body is accepted, so that the action can run.
bool read_body(Request& request) {
  const Reads reads = request.command.action.reads;
  if (reads == Reads::itself || (reads == Reads::params && request.command.parameters().empty())) return true;
  return reads == Reads::params ? request.read_params() : request.parse_body();
}

}  // namespace

std::string log_name_of(const CommandRow& row) {
  if (row.command->log_name != nullptr) return row.command->log_name;
  return "nos_" + std::string(row.name) + "_handler";
}

Request::Request(const CommandRow& row, ks_io* request_io)
    : command(*row.command), log_name(log_name_of(row)), io(request_io) {}

bool Request::refuse(const char* message) {
  reply["error_msg"] = message;
  reply["error_code"] = -1;
  return false;
}

bool Request::parse_body() {
  const std::string text = read_request_text(io);
  std::string errors;
  const bool members = command.action.reads == Reads::members;
  if (members ? json_parse_builder(text, &body, &errors) : json_parse(text, &body, &errors)) return true;
  if (errors.empty()) {
    // The body would need too much memory, which json_parse has logged.
  } else if (members) {
    LOG_AT(log_name.c_str(), "parse strInputArg failed, error=[%s]", errors.c_str());
  } else if (command.logs_bad_body) {
    LOG_AT(log_name.c_str(), "ks_io input fail. [%s]", text.c_str());
  } else {
    LOG_AT(log_name.c_str(), "ks_io input fail.");
  }
  return refuse("input error");
}

bool Request::read_params() {
  if (!parse_body()) return false;
  bool error = false;
  for (std::size_t i = 0; i < command.parameters().size(); ++i) {
    const Param& param = command.params[i];
    if (param.type == Type::integer) values[i] = 0;
    std::visit(
        [&](auto& value) { parser_param_from_json_str(body, param.name, &value, type_name(param.type), &error); },
        values[i]);
  }
  body = Json::Value();  // parsed values need many times the memory of their text
  return !error || refuse("paser fail");
}

std::string Request::program() const {
  return command.program == kControlScript ? package_control_script() : std::string(command.program);
}

std::vector<std::string> Request::arguments() const {
  std::vector<std::string> filled;
  for (const Argument& argument : command.args) {
    if (argument.text == nullptr) break;
    if (!argument.is_param) {
      filled.emplace_back(argument.text);
      continue;
    }
    const Value& value = values[command.place_of(argument.text)];
    const auto* const number = std::get_if<std::int32_t>(&value);
    filled.push_back(number != nullptr ? std::to_string(*number) : std::get<std::string>(value));
  }
  return filled;
}

void carry_out(const CommandRow& row, ks_io* io) {
  Request request(row, io);
  const Outcome outcome = read_body(request) ? request.command.action.run(request) : Outcome::own;
  // Return the memory before the client gets its reply.
  request.body = Json::Value();
  decltype(request.values)().swap(request.values);  // assignment would keep the texts' memory
  memory_give_back();
  conclude(request, outcome);
  if (request.afterwards) request.afterwards();
}

Outcome success_if(bool done) {
  return done ? Outcome::success : Outcome::failure;
}

Outcome success_if_had(Request& request, MemberValue member) {
  if (!member) return Outcome::failure;
  request.reply[request.command.member] = std::move(*member);
  return Outcome::success;
}

Outcome run_program(Request& request) {
  const std::string program = request.program();
  if (program.empty()) return Outcome::failure;
  return success_if(run_quietly(program, argument_vector(base_name(program), request.arguments())) == 0);
}

Outcome relay_logged(Request& request, LoggedRun run, bool removal_tells) {
  const std::optional<LoggedOutput> output = run_logged(request.log_name.c_str(), std::move(run));
  if (!output) return Outcome::silent;
  request.reply["result_out"] = base64_text(output->text);
  request.reply["cli_ret"] = removal_tells && !output->removed ? -1 : 0;
  return Outcome::success;
}

const Json::Value& member_or(const Json::Value& object, std::string_view name, const Json::Value& otherwise) {
  const Json::Value* const found = object.find(name.data(), name.data() + name.size());
  return found != nullptr ? *found : otherwise;
}

std::string read_request_text(ks_io* io) {
  std::string text;
  char first[kFirstReadSize];
  std::span<char> chunk(first);
  std::unique_ptr<char[]> larger;
  bool any = false;
  while (text.size() <= kMostText) {
    const ssize_t got = pread(io->memfd, chunk.data(), chunk.size(), static_cast<off_t>(text.size()));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    any = true;
    const std::size_t length = strnlen(chunk.data(), static_cast<std::size_t>(got));
    text.append(chunk.data(), length);
    if (length < chunk.size()) break;  // a NUL, or the end of the file
    if (!larger) larger = std::make_unique_for_overwrite<char[]>(kReadSize);
    chunk = {larger.get(), kReadSize};
  }
  if (!any) throw std::logic_error("basic_string: construction from null is not valid");
  return text;
}

std::chrono::steady_clock::duration ReplyClock::elapsed() const {
  const auto started = started_.load();
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return started.count() != 0 && started != kStopped ? now - started : decltype(now)::zero();
}

void reply_json_string(const std::string& text, ks_io* io) {
  if (!ks_io_alive(io)) return;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the dispatcher stores a pointer or 0
  auto* const clock = reinterpret_cast<ReplyClock*>(ks_io_get(io));
  if (clock != nullptr) clock->start();
  ks_io_realloc(io, 0);
  ks_io_printf(io, "%s", text.c_str());
  ks_reply(io);
  if (clock != nullptr) clock->stop();
}
