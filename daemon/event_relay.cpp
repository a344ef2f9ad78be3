#include "daemon/event_relay.h"

#include <json/value.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "common/json_param.h"
#include "common/log.h"
#include "common/service_names.h"
#include "common/text.h"
#include "daemon/event_records.h"
#include "service/ks.h"
#include "service/unique_io.h"

namespace {

constexpr std::uint32_t kCallSeconds = 5;
constexpr std::size_t kTimeTextSize = 32;
constexpr unsigned kSequenceRange = 1000;

// Log readers tell the three failures apart by these line numbers, so they are fixed.
constexpr int kEventFailLine = 222;
constexpr int kLogFailLine = 286;
constexpr int kConnectionFailLine = 321;

// Reads a field by its offset in the block. A text ends at the next NUL, even in a later field: senders may fill a
// field to its last byte.
template <typename Field>
Field field_at(const void* message, std::size_t offset) {
  Field value;
  std::memcpy(&value, static_cast<const char*>(message) + offset, sizeof(value));
  return value;
}

std::string text_at(const void* message, std::size_t offset) {
  return static_cast<const char*>(message) + offset;
}

// Sends `text` as one request; failures are logged under `label` and `line`.
void forward(const char* request, const std::string& text, const char* label, int line) {
  const UniqueIo io(ks_io_create());
  ks_io_fwrite(text.data(), text.size(), io.get());
  if (ks_call(kNotifyServiceName, request, io.get(), kCallSeconds, -1) != KS_STATUS_OK) {
    log_write("[%s][%d] eventlog_handler fail", label, line);
  }
}

// "year/month/day hour:minute:second:microseconds", local time.
std::string bus_time() {
  const std::time_t seconds = std::time(nullptr);
  std::tm local{};
  tzset();  // localtime_r does not re-read the time zone
  localtime_r(&seconds, &local);
  timeval now{};
  gettimeofday(&now, nullptr);
  return format_bounded(kTimeTextSize, "%02d/%02d/%02d %02d:%02d:%02d:%06d", local.tm_year % 100, local.tm_mon + 1,
                        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec));
}

// The time of a log record followed by a sequence number, so that records of one second keep their order. Both kinds of
// record share the sequence; one thread relays both.
std::string sequenced_time(std::int64_t time) {
  static std::optional<std::int64_t> last_time;
  static unsigned sequence = 0;
  sequence = time == last_time ? (sequence + 1) % kSequenceRange : 0;
  last_time = time;
  return format_bounded(kTimeTextSize, "%ld%03u", static_cast<long>(time), sequence);
}

// The members common to both kinds of log record; `base` is the offset of the record.
Json::Value log_members(const void* message, std::size_t base) {
  Json::Value members;
  members["level"] = field_at<std::int32_t>(message, base + offsetof(LogRecord, level));
  members["time"] = sequenced_time(field_at<std::int64_t>(message, base + offsetof(LogRecord, time)));
  members["user"] = text_at(message, base + offsetof(LogRecord, user));
  members["source_ip"] = text_at(message, base + offsetof(LogRecord, source_ip));
  members["source_name"] = text_at(message, base + offsetof(LogRecord, source_name));
  members["nas_ip"] = "---";
  members["nas_name"] = "---";
  members["content"] = text_at(message, base + offsetof(LogRecord, content));
  members["method"] = "notify";
  return members;
}

}  // namespace

int notify_handler(void* message) {
  Json::Value event;
  event["kbus_time"] = bus_time();
  event["kbus_type"] = field_at<std::int32_t>(message, offsetof(NotifyMessage, bus_type));
  event["kbus_action"] = field_at<std::int32_t>(message, offsetof(NotifyMessage, bus_action));
  event["ret_flag"] = field_at<std::int32_t>(message, offsetof(NotifyMessage, return_flag)) == 1;
  event["kbus_extra_info"] = text_at(message, offsetof(NotifyMessage, extra_info));
  event["method"] = "notify";
  const std::string text = json_write(event);
  // The number is the text's address, as it always was. Readers of the line ignore it.
  std::fprintf(stderr, "str_publish_buf=[%d]  \n", static_cast<int>(reinterpret_cast<std::intptr_t>(text.c_str())));
  forward("notify_event", text, "notify_handler", kEventFailLine);
  return 0;
}

int eventlog_handler(void* message) {
  const auto type = field_at<std::int64_t>(message, offsetof(LogMessage, type));
  if (type == kEventLogType) {
    const Json::Value record = log_members(message, offsetof(LogMessage, event));
    forward("notify_log", json_write(record), "eventlog_handler", kLogFailLine);
  } else if (type == kConnectionLogType) {
    Json::Value record = log_members(message, offsetof(LogMessage, connection));
    record["serv"] = field_at<std::int32_t>(message, offsetof(LogMessage, connection.service));
    record["action"] = field_at<std::int32_t>(message, offsetof(LogMessage, connection.action));
    forward("notify_conn", json_write(record), "eventlog_handler", kConnectionFailLine);
  }
  return 0;
}
