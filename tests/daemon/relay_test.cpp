// From a record in a message queue to a request at the notification service.
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>

#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "harness.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr char kReceived[] = "/tmp/received";

// A line for each request: its name and its body.
void receive(const char* name, ks_io* io, int) {
  uint64_t size = 0;
  const char* const body = static_cast<const char*>(ks_io_read(io, &size));
  std::ofstream(kReceived, std::ios::app) << name << ' ' << std::string(body, size);
  ks_reply(io);
  ks_io_free(io);
}

// Stands in for the notification service.
std::unique_ptr<ks_handle, decltype(&ks_free)> notification_service() {
  std::filesystem::remove(kReceived);
  ks_handle* const service = ks_create(kNotifyServiceName, KS_PTHREAD_MODE | KS_STANDALONE, 1, receive);
  ks_start(service);
  return {service, ks_free};
}

// Waits until there are `count` lines in a file.
std::vector<std::string> lines_of(const std::string& path, std::size_t count) {
  std::vector<std::string> lines;
  EXPECT_TRUE(eventually([&] {
    lines.clear();
    std::istringstream text(read_file(path));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines.size() >= count;
  }));
  return lines;
}

void post(std::uint32_t key, const void* message, std::size_t size) {
  EXPECT_TRUE(eventually([&] { return msg_queue_send(key, message, size) == 0; }));
}

void post_log(std::int64_t type, std::int64_t time) {
  LogMessage message{};
  message.type = type;
  message.event.time = message.connection.time = time;
  post(kLogQueueKey, &message, kLogMessageSize);
}

TEST(Listener, ACallbackThatThrowsLosesOnlyItsRecord) {
  constexpr std::uint32_t kKey = 0x7e57;
  static std::atomic<int> calls{0};
  MsgQueueListener listener(
      kKey, [](void*) { return calls++ == 0 ? throw std::bad_alloc() : 0; }, 8);
  listener.Start();
  const long message[2] = {1, 0};
  for (int i = 0; i < 2; ++i) post(kKey, message, 8);
  EXPECT_TRUE(eventually([] { return calls == 2; }));
  listener.Stop();
}

class Relay : public DaemonTest {};

TEST_F(Relay, ABusEventBecomesANotifyEvent) {
  const auto service = notification_service();
  NotifyMessage message{.type = 77, .bus_type = 3, .bus_action = -4, .return_flag = 1, .extra_info = "a \"b\"\n"};
  post(kEventQueueKey, &message, kNotifyMessageSize);
  message = {.type = 1, .bus_type = 0, .bus_action = 0, .return_flag = 2, .extra_info = {}};
  std::memset(message.extra_info, 'z', 132);  // no NUL
  post(kEventQueueKey, &message, kNotifyMessageSize);
  post(kEventQueueKey, &message, 4);  // all that a short message lacks is zero, not the message before it
  const auto event = [](const std::string& action, const std::string& info, const std::string& rest) {
    return MatchesRegex(R"(notify_event \{"kbus_action":)" + action + R"(,"kbus_extra_info":")" + info +
                        R"(","kbus_time":"[0-9/]{8} [0-9:]{15}","kbus_type":)" + rest + "\\}");
  };
  EXPECT_THAT(lines_of(kReceived, 3),
              ElementsAre(event("-4", R"(a \\"b\\"\\n)", R"(3,"method":"notify","ret_flag":true)"),
                          event("0", "z{132}", R"(0,"method":"notify","ret_flag":false)"),
                          event("0", "", R"(0,"method":"notify","ret_flag":false)")));
}

TEST_F(Relay, ALogRecordBecomesANotifyLogOrNotifyConn) {
  const auto service = notification_service();
  LogMessage message{};
  message.type = kEventLogType;
  message.event.level = -1;
  message.event.time = message.connection.time = 1700000000;
  std::strcpy(message.event.user, "admin");
  std::memset(message.event.source_ip, 'i', 65);  // no NUL: read on into the next field
  std::strcpy(message.event.source_name, "host");
  std::memset(message.connection.content, 'c', 1024);  // padding behind it is zero
  message.connection.service = 5;
  message.connection.action = 6;
  for (const std::int64_t type : {std::int64_t{3}, kEventLogType, kConnectionLogType}) {
    message.type = type;  // the first is of no kind: dropped in silence
    post(kLogQueueKey, &message, kLogMessageSize);
  }
  const std::string nas = R"(,"method":"notify","nas_ip":"---","nas_name":"---",)";
  EXPECT_THAT(lines_of(kReceived, 2),
              ElementsAre(R"(notify_log {"content":"","level":-1)" + nas + R"("source_ip":")" + std::string(65, 'i') +
                              R"(host","source_name":"host","time":"1700000000000","user":"admin"})",
                          R"(notify_conn {"action":6,"content":")" + std::string(1024, 'c') + R"(","level":0)" + nas +
                              R"("serv":5,"source_ip":"","source_name":"","time":"1700000000001","user":""})"));
  EXPECT_EQ(new_log(), "");
}

TEST_F(Relay, RecordsOfOneSecondAreNumberedUpToAThousand) {
  const auto service = notification_service();
  for (int i = 0; i <= 1000; ++i) post_log(i % 2 == 0 ? kEventLogType : kConnectionLogType, 1800000000);
  post_log(kEventLogType, -5);
  const std::vector<std::string> lines = lines_of(kReceived, 1002);
  EXPECT_THAT(lines.at(999), testing::HasSubstr("\"1800000000999\""));
  EXPECT_THAT(lines.at(1000), testing::HasSubstr("\"1800000000000\""));
  EXPECT_THAT(lines.at(1001), testing::HasSubstr("\"-5000\""));
}

TEST_F(Relay, WithoutTheServiceEachMessageIsOneLogLine) {
  const long event = 1;  // the type alone
  post(kEventQueueKey, &event, 0);
  EXPECT_TRUE(eventually([&] { return new_log().ends_with('\n'); }));
  post_log(kEventLogType, 1);
  post_log(kConnectionLogType, 1);
  const std::string lines =
      ".*notify_handler\\]\\[222\\] eventlog_handler fail\n.* \\[eventlog_handler\\]\\[286\\] "
      "eventlog_handler fail\n.* \\[eventlog_handler\\]\\[321\\] eventlog_handler fail\n";
  EXPECT_TRUE(eventually([&] { return testing::Matches(MatchesRegex(lines))(new_log()); })) << new_log();
}

}  // namespace
