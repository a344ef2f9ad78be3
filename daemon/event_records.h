// The records that other processes of the package post into the daemon's message queues. The message type comes first,
// numbers are in host byte order, and texts are NUL-terminated within their field.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t kEventQueueKey = 65521;  // 0xFFF1: message-bus events
inline constexpr std::uint32_t kLogQueueKey = 65522;    // 0xFFF2: event-log and connection-log records

struct NotifyMessage {
  std::int64_t type;  // any
  std::int32_t bus_type;
  std::int32_t bus_action;
  std::int32_t return_flag;  // 1: true
  char extra_info[132];
};

// Both kinds of log record begin with these fields.
struct LogRecord {
  std::int32_t unused;
  std::int32_t level;
  std::int64_t time;  // seconds
  char user[65];
  char source_ip[65];
  char source_name[65];
  char content[1024];
};

struct ConnectionRecord {
  std::int32_t unused;
  std::int32_t level;
  std::int64_t time;
  char user[65];
  char source_ip[65];
  char source_name[65];
  char content[1024];
  std::int32_t service;
  std::int32_t action;
};

// Message types of the log queue: which of the two records is valid.
inline constexpr std::int64_t kEventLogType = 1;
inline constexpr std::int64_t kConnectionLogType = 2;

struct LogMessage {
  std::int64_t type;
  LogRecord event;
  ConnectionRecord connection;
};

// The sizes for msgsnd and msgrcv, without the message type.
inline constexpr std::size_t kNotifyMessageSize = sizeof(NotifyMessage) - sizeof(std::int64_t);
inline constexpr std::size_t kLogMessageSize = sizeof(LogMessage) - sizeof(std::int64_t);

static_assert(sizeof(long) == sizeof(std::int64_t), "a message begins with a long");
static_assert(kNotifyMessageSize == 144 && offsetof(NotifyMessage, extra_info) == 20);
static_assert(kLogMessageSize == 2488 && offsetof(LogMessage, connection) == 1248);
static_assert(offsetof(LogMessage, event.content) == 219 && offsetof(LogMessage, connection.user) == 1264);
static_assert(offsetof(LogMessage, connection.service) == 2484 && offsetof(LogMessage, connection.action) == 2488);
