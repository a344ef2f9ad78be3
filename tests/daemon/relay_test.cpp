// From a record in a message queue to a request at the notification service.
#include <gmock/gmock.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "harness.h"
#include "service/ks.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kNotify[] = "VistalServer_notify-vistalprod";

using Request = std::pair<std::string, std::string>;  // name and body

// Stands in for the notification service and keeps what it is sent.
class NotifyService {
 public:
  NotifyService() {
    received_.clear();
    ks_start(service_);
  }
  NotifyService(const NotifyService&) = delete;
  NotifyService& operator=(const NotifyService&) = delete;
  ~NotifyService() { ks_free(service_); }

  // Waits until `count` requests have come and takes them.
  std::vector<Request> take(std::size_t count) {
    EXPECT_TRUE(eventually([&] {
      const std::lock_guard lock(mutex_);
      return received_.size() >= count;
    })) << "wanted "
        << count;
    const std::lock_guard lock(mutex_);
    return std::exchange(received_, {});
  }

 private:
  static void receive(const char* name, ks_io* io, int) {
    uint64_t size = 0;
    const void* body = ks_io_read(io, &size);
    {
      const std::lock_guard lock(mutex_);
      received_.emplace_back(name, std::string(static_cast<const char*>(body), size));
    }
    ks_reply(io);
    ks_io_free(io);
  }

  static inline std::mutex mutex_;
  static inline std::vector<Request> received_;
  ks_handle* service_ = ks_create(kNotify, KS_PTHREAD_MODE | KS_STANDALONE, 1, receive);
};

void post(std::uint32_t key, const void* message, std::size_t size) {
  EXPECT_TRUE(eventually([&] { return msg_queue_send(key, message, size) == 0; }));
}

LogMessage log_message(std::int64_t type, std::int64_t time) {
  LogMessage message{};
  message.type = type;
  message.event.time = message.connection.time = time;
  return message;
}

template <std::size_t kSize>
void fill(char (&field)[kSize], const std::string& text) {
  std::memcpy(field, text.data(), std::min(text.size(), kSize));
}

std::string time_of(const Request& request) {
  return Reply{0, request.second}.json()["time"].asString();
}

class Relay : public DaemonTest {};

TEST_F(Relay, BusEventsBecomeNotifyEvents) {
  NotifyService service;
  NotifyMessage message{
      .type = 77, .bus_type = 3, .bus_action = -4, .return_flag = 1, .extra_info = "a \"b\"\n"};
  post(kEventQueueKey, &message, kNotifyMessageSize);
  message = {.type = 1, .bus_type = 0, .bus_action = 0, .return_flag = 2, .extra_info = {}};
  std::memset(message.extra_info, 'z', sizeof(message.extra_info));
  post(kEventQueueKey, &message, kNotifyMessageSize);
  post(kEventQueueKey, &message, 4);  // all that a short message lacks is zero, not the message before it
  const std::string time = R"(","kbus_time":"[0-9/]{8} [0-9:]{15}","kbus_type":)";
  const std::vector<Request> got = service.take(3);
  ASSERT_THAT(got, SizeIs(3));
  for (const Request& request : got) EXPECT_EQ(request.first, "notify_event");
  EXPECT_THAT(got[0].second, MatchesRegex(R"(\{"kbus_action":-4,"kbus_extra_info":"a \\"b\\"\\n)" + time +
                                          R"(3,"method":"notify","ret_flag":true\}.)"));
  EXPECT_THAT(got[1].second, MatchesRegex(R"(\{"kbus_action":0,"kbus_extra_info":"z{132})" + time +
                                          R"(0,"method":"notify","ret_flag":false\}.)"));
  EXPECT_THAT(got[2].second, MatchesRegex(R"(\{"kbus_action":0,"kbus_extra_info":")" + time +
                                          R"(0,"method":"notify","ret_flag":false\}.)"));
}

TEST_F(Relay, LogRecordsBecomeNotifyLogAndNotifyConn) {
  NotifyService service;
  LogMessage message = log_message(kEventLogType, 1700000000);
  message.event.level = -1;
  fill(message.event.user, "admin");
  fill(message.event.source_ip, std::string(65, 'i'));  // no NUL: read on into the next field
  fill(message.event.source_name, "host");
  fill(message.event.content, "text");
  fill(message.connection.user, "not this one");
  post(kLogQueueKey, &message, kLogMessageSize);
  message = log_message(kConnectionLogType, 1700000000);
  fill(message.event.user, "nor this one");
  fill(message.connection.content, std::string(1024, 'c'));  // padding behind it is zero
  message.connection.service = 5;
  message.connection.action = 6;
  post(kLogQueueKey, &message, kLogMessageSize);
  message.type = 3;  // of no kind: dropped in silence
  post(kLogQueueKey, &message, kLogMessageSize);
  const LogMessage full = log_message(kEventLogType, 1700000001);
  post(kLogQueueKey, &full, 16);  // level and time only
  EXPECT_THAT(
      service.take(3),
      ElementsAre(Request("notify_log",
                          R"({"content":"text","level":-1,"method":"notify","nas_ip":"---","nas_name":"---",)"
                          R"("source_ip":")" +
                              std::string(65, 'i') +
                              R"(host","source_name":"host",)"
                              R"("time":"1700000000000","user":"admin"})"
                              "\n"),
                  Request("notify_conn",
                          R"({"action":6,"content":")" + std::string(1024, 'c') +
                              R"(","level":0,"method":"notify","nas_ip":"---","nas_name":"---","serv":5,)"
                              R"("source_ip":"","source_name":"","time":"1700000000001","user":""})"
                              "\n"),
                  Request("notify_log",
                          R"({"content":"","level":0,"method":"notify","nas_ip":"---","nas_name":"---",)"
                          R"("source_ip":"","source_name":"","time":"1700000001000","user":""})"
                          "\n")));
  EXPECT_THAT(new_log_lines(), IsEmpty());
}

TEST_F(Relay, TheSequenceCountsWithinASecondAndWraps) {
  NotifyService service;
  const std::size_t count = 1002;
  for (std::size_t i = 0; i < count; ++i) {
    const LogMessage message = log_message(i % 2 == 0 ? kEventLogType : kConnectionLogType, 1800000000);
    post(kLogQueueKey, &message, kLogMessageSize);
  }
  const LogMessage other = log_message(kEventLogType, -5);
  post(kLogQueueKey, &other, kLogMessageSize);
  const std::vector<Request> got = service.take(count + 1);
  ASSERT_THAT(got, SizeIs(count + 1));
  EXPECT_EQ(time_of(got[0]), "1800000000000");
  EXPECT_EQ(time_of(got[999]), "1800000000999");
  EXPECT_EQ(time_of(got[1001]), "1800000000001");
  EXPECT_EQ(time_of(got[1002]), "-5000");
}

TEST_F(Relay, WithoutTheServiceEachMessageIsOneLogLineAtOnce) {
  const auto start = std::chrono::steady_clock::now();
  NotifyMessage event{};
  event.type = 1;
  LogMessage log = log_message(kEventLogType, 1);
  post(kEventQueueKey, &event, kNotifyMessageSize);
  EXPECT_TRUE(eventually([&] { return new_log_lines().size() == 1; }));
  for (const std::int64_t type : {kEventLogType, kConnectionLogType}) {
    log.type = type;
    post(kLogQueueKey, &log, kLogMessageSize);
  }
  EXPECT_TRUE(eventually([&] { return new_log_lines().size() == 3; }));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4)) << "waited for nobody";
  EXPECT_THAT(new_log_lines(), ElementsAre(EndsWith(" [notify_handler][222] eventlog_handler fail"),
                                           EndsWith(" [eventlog_handler][286] eventlog_handler fail"),
                                           EndsWith(" [eventlog_handler][321] eventlog_handler fail")));
}

// What listeners do that the daemon's records do not show. The callback needs no object: it counts.
std::atomic<int> messages_seen{0};
int count_message(void*) {
  return ++messages_seen;
}

TEST(MsgQueueListener, ARemovedQueueEndsTheThreadInSilence) {
  constexpr std::uint32_t kKey = 4711;
  testing::internal::CaptureStderr();
  for (const bool busy : {false, true}) {
    MsgQueueListener listener(kKey, count_message, 8);
    listener.Start();
    const long message[2] = {1, 2};
    if (busy) post(kKey, message, 8);
    msgctl(msgget(static_cast<key_t>(kKey), 0), IPC_RMID, nullptr);
    EXPECT_EQ(listener.Stop(), 0);
    EXPECT_EQ(msg_queue_send(kKey, message, 8), 101);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(MsgQueueListener, ATooLongMessageStaysAndIsComplainedAbout) {
  constexpr std::uint32_t kKey = 4712;
  const long message[3] = {1, 2, 3};
  testing::internal::CaptureStderr();
  MsgQueueListener listener(kKey, count_message, 8);
  post(kKey, message, 16);
  const int seen = messages_seen;
  const int id = msgget(static_cast<key_t>(kKey), 0);
  listener.Start();
  msqid_ds queue{};
  EXPECT_TRUE(eventually([&] { return msgctl(id, IPC_STAT, &queue) == 0 && queue.msg_qnum == 1; }));
  listener.Stop();
  EXPECT_EQ(messages_seen, seen);
  // The thread may have been stopped before its first try.
  const std::string line = "msgrcv Error：Argument list too long(7), msgid:" + std::to_string(id) + "\n";
  const std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(errors.substr(0, line.size()), errors.empty() ? "" : line);
}

}  // namespace
