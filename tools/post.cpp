// `ksctl post-notify` and `ksctl post-log`: put one record into a message queue of the daemon, in place of the programs
// that usually post there.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "tools/cli.h"

namespace {

constexpr char kStatuses[] =
    "  0   the record is in the queue\n"
    "  1   it is not: there is no such queue, it is full, or it may not be written to\n"
    "  2   wrong usage\n";

Option number_option(const char* name, std::int32_t* number, const char* help) {
  return {.name = name, .value = "N", .help = help, .store = [=](const char* value) {
            std::int64_t wide = 0;
            if (!parse_signed(value, INT32_MIN, INT32_MAX, &wide)) return false;
            *number = static_cast<std::int32_t>(wide);
            return true;
          }};
}

// A text may fill its field to the last byte and then has no NUL.
Option text_option(const char* name, std::span<char> field, const char* help) {
  return {.name = name, .value = "TEXT", .help = help, .store = [=](const char* value) {
            const std::size_t length = std::strlen(value);
            if (length > field.size()) return false;
            std::fill(std::copy_n(value, length, field.begin()), field.end(), '\0');
            return true;
          }};
}

int post(const Subcommand& command, std::uint32_t key, const void* message, std::size_t size) {
  const int result = msg_queue_send(key, message, size);
  if (result == 0) return 0;
  const char* why = result == kQueueMissing    ? "no such queue: is the daemon running?"
                    : result == kQueueUnusable ? "the queue cannot be used"
                                               : "the queue is full or may not be written to";
  complain(std::string(command.name) + ": queue " + std::to_string(key) + ": " + why);
  return kExitLocal;
}

int run_post_notify(int argc, char** argv) {
  NotifyMessage message{.type = 1, .bus_type = 0, .bus_action = 0, .return_flag = 0, .extra_info = {}};
  const Option options[] = {
      number_option("type", &message.bus_type, "type of the event, 0 unless given"),
      number_option("action", &message.bus_action, "its action, 0 unless given"),
      number_option("flag", &message.return_flag, "1: \"ret_flag\" is true"),
      text_option("info", message.extra_info, "at most 132 bytes"),
  };
  std::span<char*> operands;
  if (const auto over = read_arguments(kPostNotifyCommand, options, 0, argc, argv, &operands)) return *over;
  return post(kPostNotifyCommand, kEventQueueKey, &message, kNotifyMessageSize);
}

int run_post_log(int argc, char** argv) {
  // The options fill a connection record, which begins with the fields of an event record.
  ConnectionRecord record{};
  record.time = std::time(nullptr);
  bool connection_only = false;
  Option options[] = {
      number_option("level", &record.level, "0 unless given"),
      {.name = "time",
       .value = "SECONDS",
       .help = "since 1970, now unless given",
       .store = [&](const char* value) { return parse_signed(value, INT64_MIN, INT64_MAX, &record.time); }},
      text_option("user", record.user, "at most 65 bytes"),
      text_option("ip", record.source_ip, "at most 65 bytes"),
      text_option("name", record.source_name, "at most 65 bytes"),
      text_option("content", record.content, "at most 1024 bytes"),
      number_option("service", &record.service, "of a connection, 0 unless given"),
      number_option("action", &record.action, "of a connection, 0 unless given"),
  };
  for (Option& option : std::span(options).last(2))
    option.store = [&connection_only, store = option.store](const char* value) {
      return connection_only = true, store(value);
    };
  std::span<char*> operands;
  if (const auto over = read_arguments(kPostLogCommand, options, 1, argc, argv, &operands)) return *over;

  const std::string_view kind = operands.empty() ? "" : operands[0];
  LogMessage message{};
  if (kind == "connection") {
    message.type = kConnectionLogType;
    message.connection = record;
  } else if (kind != "event") {
    return wrong_usage(kPostLogCommand, "event or connection is needed");
  } else if (connection_only) {
    return wrong_usage(kPostLogCommand, "--service and --action belong to a connection");
  } else {
    static_assert(offsetof(ConnectionRecord, content) == offsetof(LogRecord, content));
    message.type = kEventLogType;
    std::memcpy(&message.event, &record, offsetof(LogRecord, content) + sizeof record.content);
  }
  return post(kPostLogCommand, kLogQueueKey, &message, kLogMessageSize);
}

}  // namespace

const Subcommand kPostNotifyCommand = {
    .name = "post-notify",
    .operands = "",
    .summary = "Puts a message-bus event into the daemon's queue 65521, without waiting.",
    .statuses = kStatuses,
    .example = "ksctl post-notify --type 3 --info 'disk 2'",
    .run = run_post_notify,
};
const Subcommand kPostLogCommand = {
    .name = "post-log",
    .operands = "event|connection",
    .summary = "Puts a record of the event or the connection log into the daemon's queue 65522, without waiting.",
    .statuses = kStatuses,
    .example = "ksctl post-log connection --level 1 --user alice --content login --action 4",
    .run = run_post_log,
};
