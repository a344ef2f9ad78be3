// `ksctl post-notify` and `ksctl post-log`: put one record into a message queue of the daemon, as the
// package's other programs do.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <span>
#include <string>
#include <vector>

#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "tools/cli.h"

namespace {

// One named option: where its value goes. A text fills its field up to the last byte; one that fits exactly
// has no NUL.
struct Field {
  const char* name;
  std::int32_t* number;
  std::int64_t* time;
  std::span<char> text;
};

Field number_field(const char* name, std::int32_t* number) {
  return {name, number, nullptr, {}};
}
Field text_field(const char* name, std::span<char> text) {
  return {name, nullptr, nullptr, text};
}

bool store(const Field& field, const char* value) {
  std::int64_t number = 0;
  if (field.number != nullptr) {
    if (!parse_signed(value, INT32_MIN, INT32_MAX, &number)) return false;
    *field.number = static_cast<std::int32_t>(number);
  } else if (field.time != nullptr) {
    return parse_signed(value, INT64_MIN, INT64_MAX, field.time);
  } else {
    const std::size_t length = std::strlen(value);
    if (length > field.text.size()) return false;
    std::copy_n(value, length, field.text.begin());
  }
  return true;
}

// Reads `--NAME VALUE` pairs into the fields; 0, or kExitUsage after a complaint.
int read_fields(const Subcommand& command, std::span<const Field> fields, int argc, char** argv) {
  for (int i = 1; i < argc; i += 2) {
    const auto field = std::find_if(fields.begin(), fields.end(), [&](const Field& candidate) {
      return std::string("--") + candidate.name == argv[i];
    });
    if (field == fields.end()) return wrong_usage(command, std::string("unknown option: ") + argv[i]);
    if (i + 1 == argc) return wrong_usage(command, std::string("a value is needed: ") + argv[i]);
    if (!store(*field, argv[i + 1])) return wrong_usage(command, std::string("does not fit ") + argv[i]);
  }
  return 0;
}

int post(const char* command, std::uint32_t key, const void* message, std::size_t size) {
  const int result = msg_queue_send(key, message, size);
  if (result == 0) return 0;
  const char* why = result == 101   ? "no such queue: is the daemon running?"
                    : result == 100 ? "the queue cannot be used"
                                    : "the queue is full or may not be written to";
  complain(std::string(command) + ": queue " + std::to_string(key) + ": " + why);
  return kExitLocal;
}

int run_post_notify(int argc, char** argv) {
  NotifyMessage message{.type = 1, .bus_type = 0, .bus_action = 0, .return_flag = 0, .extra_info = {}};
  const Field fields[] = {
      number_field("type", &message.bus_type),
      number_field("action", &message.bus_action),
      number_field("flag", &message.return_flag),
      text_field("info", message.extra_info),
  };
  if (const int refused = read_fields(kPostNotifyCommand, fields, argc, argv)) return refused;
  return post("post-notify", kEventQueueKey, &message, kNotifyMessageSize);
}

template <typename Record>
int post_log(std::int64_t type, LogMessage& message, Record& record, std::span<const Field> more, int argc,
             char** argv) {
  message.type = type;
  record.time = std::time(nullptr);
  std::vector<Field> fields = {
      number_field("level", &record.level),   {"time", nullptr, &record.time, {}},
      text_field("user", record.user),        text_field("ip", record.source_ip),
      text_field("name", record.source_name), text_field("content", record.content),
  };
  fields.insert(fields.end(), more.begin(), more.end());
  if (const int refused = read_fields(kPostLogCommand, fields, argc, argv)) return refused;
  return post("post-log", kLogQueueKey, &message, kLogMessageSize);
}

int run_post_log(int argc, char** argv) {
  LogMessage message{};
  if (argc > 1 && std::strcmp(argv[1], "event") == 0) {
    return post_log(kEventLogType, message, message.event, {}, argc - 1, argv + 1);
  }
  if (argc > 1 && std::strcmp(argv[1], "connection") == 0) {
    const Field more[] = {number_field("service", &message.connection.service),
                          number_field("action", &message.connection.action)};
    return post_log(kConnectionLogType, message, message.connection, more, argc - 1, argv + 1);
  }
  return wrong_usage(kPostLogCommand, "the first argument is event or connection");
}

}  // namespace

const Subcommand kPostNotifyCommand = {
    .name = "post-notify",
    .usage = "post-notify [--type N] [--action N] [--flag N] [--info TEXT]",
    .run = run_post_notify};
const Subcommand kPostLogCommand = {
    .name = "post-log",
    .usage =
        "post-log event|connection [--level N] [--time SECONDS] [--user TEXT] [--ip TEXT] [--name TEXT] "
        "[--content TEXT] [--service N] [--action N]",
    .run = run_post_log};
