// Stopping the daemon while it has its hands full.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "harness.h"
#include "service/ks.h"

namespace {

constexpr char kMainSocket[] = "/var/run/ks/494AC97B.sock";
constexpr char kMailSocket[] = "/var/run/ks/850CD619.sock";
constexpr std::size_t kRecordSize = 259;

// A client by hand, which says as much as it is told to.
class RawClient {
 public:
  explicit RawClient(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;
  ~RawClient() { close(fd_); }
  // Waits for the service's question.
  void be_asked() const {
    char record[kRecordSize];
    EXPECT_EQ(recv(fd_, record, sizeof(record), MSG_WAITALL), static_cast<ssize_t>(sizeof(record)));
  }
  void send_record_alone() const {
    char record[kRecordSize] = {8};
    std::snprintf(record + 2, sizeof(record) - 2, "test");
    EXPECT_EQ(send(fd_, record, sizeof(record), MSG_NOSIGNAL), static_cast<ssize_t>(sizeof(record)));
  }
  // Whether the service has hung up, within the time that tests wait.
  bool hung_up() const {
    return eventually([this] {
      char byte;
      return recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    });
  }

 private:
  int fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

void expect_nothing_left() {
  EXPECT_NE(access(kMainSocket, F_OK), 0);
  EXPECT_EQ(msgget(static_cast<key_t>(kEventQueueKey), 0), -1);
  EXPECT_EQ(msgget(static_cast<key_t>(kLogQueueKey), 0), -1);
}

// Keeps both queues full until it is destroyed.
class Feeder {
 public:
  Feeder() = default;
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;
  ~Feeder() {
    done_ = true;
    thread_.join();
  }

 private:
  void feed() const {
    NotifyMessage event{};
    LogMessage log{};
    event.type = log.type = 1;
    while (!done_) {
      msg_queue_send(kEventQueueKey, &event, kNotifyMessageSize);
      msg_queue_send(kLogQueueKey, &log, kLogMessageSize);
      std::this_thread::yield();
    }
  }
  std::atomic<bool> done_{false};
  std::thread thread_{[this] { feed(); }};
};

TEST(Stop, UnderLoadItEndsAsSoonAsTheRunningHandlersDo) {
  Daemon daemon;
  const StandIn tool("/etc/init.d/vistalserver.sh");
  tool.forget();
  tool.plays("delay 500\n");
  std::vector<std::thread> callers;
  std::atomic<int> answered{0};
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back(
        [&] { answered += call(kMain, "system_call_share_folder_renew").text == "{\"result\":0}\n"; });
  }
  EXPECT_TRUE(eventually([&] { return tool.calls().size() == 2; }));
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 5; ++i) {
    clients.push_back(std::make_unique<RawClient>(kMailSocket));
    clients.back()->be_asked();  // a silent client holds its worker
  }
  for (int i = 0; i < 200; ++i) clients.push_back(std::make_unique<RawClient>(kMainSocket));
  const Feeder feeder;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(answered, 2);
  EXPECT_TRUE(clients.back()->hung_up());
  expect_nothing_left();
  tool.forget();
}

TEST(Stop, AnUnfinishedRequestDoesNotHoldItUp) {
  Daemon daemon;
  const RawClient silent(kMainSocket);
  const RawClient unfinished(kMainSocket);
  silent.be_asked();
  unfinished.be_asked();
  unfinished.send_record_alone();
  EXPECT_EQ(daemon.stop(), 0);
  EXPECT_TRUE(silent.hung_up());
  EXPECT_TRUE(unfinished.hung_up());
  expect_nothing_left();
}

TEST(Stop, AHundredTimesInARow) {
  for (int i = 0; i < 100; ++i) {
    Daemon daemon;
    const RawClient waiting(kMainSocket);
    const Feeder feeder;
    EXPECT_EQ(call(kMail, "test").status, KS_STATUS_OK);
    ASSERT_EQ(daemon.stop(), 0) << "round " << i;
    expect_nothing_left();
  }
}

}  // namespace
