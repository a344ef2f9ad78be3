// The client's side, against services that a test plays by hand.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include "harness.h"
#include "service/ks_internal.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// A listening socket and nothing behind it.
class ByHand {
 public:
  explicit ByHand(const std::string& path) : listening_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    const sockaddr_un address = ks_socket_address(path.c_str());
    EXPECT_EQ(bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listening_, 8), 0);
  }
  Peer next_client() const { return Peer(accept(listening_, nullptr, nullptr)); }

 private:
  Fd listening_;
};

class Client : public ServiceTest {
 protected:
  std::string name() const { return "@" + path(); }
};

TEST_F(Client, TellsHowARequestFailed) {
  struct Row {
    const char* service;
    std::function<void(Peer&)> does;
    int status;
  };
  const Row rows[] = {
      {"is busy", [](Peer& p) { p.send_record(KS_DIR_BUSY); }, KS_STATUS_BUSY},
      {"is paused", [](Peer& p) { p.send_record(KS_DIR_PAUSED); }, KS_STATUS_PAUSED},
      {"refuses", [](Peer& p) { p.send_record(KS_DIR_REFUSED); }, KS_STATUS_REFUSED},
      {"hangs up", [](Peer& p) { p.leave(); }, KS_STATUS_BROKEN},
      {"half-closes", [](Peer& p) { p.say_no_more(); }, KS_STATUS_BROKEN},
      {"sends half a record", [](Peer& p) { p.send_bytes("\x09..."); }, KS_STATUS_BROKEN},
      {"says what clients skip, and no more", [](Peer& p) { p.send_record(KS_DIR_QUIT); }, KS_STATUS_OK},
  };
  const ByHand service(path());
  ks_epoll* epoll = ks_epoll_create();
  ks_io* io = ks_io_create();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.service);
    int status = -1;
    ASSERT_EQ(ks_epoll_call(epoll, name().c_str(), "request", io, -1), KS_STATUS_OK);
    Peer peer = service.next_client();
    EXPECT_EQ(ks_epoll_perform(epoll, 0, &status), nullptr);
    EXPECT_EQ(status, KS_STATUS_TIMEOUT);
    row.does(peer);
    EXPECT_EQ(ks_epoll_perform(epoll, 50, &status), io);
    EXPECT_EQ(status, row.status);
    EXPECT_EQ(io->memfd, -1);
    EXPECT_EQ(io->sockfd, -1);
    EXPECT_EQ(io->extra_fd, -1);
    EXPECT_EQ(io->shared_data, nullptr);
  }
  // The record is as good as new, and what is skipped does not end a request that goes on.
  ks_io_printf(io, "body");
  ASSERT_EQ(ks_epoll_call(epoll, name().c_str(), "request", io, -1), KS_STATUS_OK);
  const Peer peer = service.next_client();
  peer.send_record(KS_DIR_READY);
  peer.send_record(KS_DIR_DONE);
  int status = -1;
  EXPECT_EQ(ks_epoll_perform(epoll, 1000, &status), io);
  EXPECT_EQ(status, KS_STATUS_OK);
  EXPECT_EQ(io->shared_size, 4u);
  ks_io_free(io);
  ks_epoll_free(epoll);
}

TEST_F(Client, SendsItsNameItsFileAndItsDescriptor) {
  const ByHand service(path());
  const Fd extra = memory_file("extra");
  ks_epoll* epoll = ks_epoll_create();
  for (const int extra_fd : {-1, 100'000, static_cast<int>(extra)}) {
    ks_io* io = ks_io_create();
    ks_io_printf(io, "body");
    ASSERT_EQ(ks_epoll_call(epoll, name().c_str(), std::string(256, 'r').c_str(), io, extra_fd),
              KS_STATUS_OK);
    const Peer peer = service.next_client();
    peer.send_record(KS_DIR_ASK);
    int status = -1;
    EXPECT_EQ(ks_epoll_perform(epoll, 1000, &status), nullptr);
    EXPECT_EQ(status, KS_STATUS_OK);
    directive record;
    ASSERT_TRUE(read_directive(peer.fd(), &record));
    EXPECT_EQ(record.type, KS_DIR_REQUEST);
    EXPECT_EQ(record.flag, extra_fd == extra ? 1 : 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.data), sizeof(record.data)),
              std::string(256, 'r') + '\0');
    EXPECT_EQ(content_of(Fd(receive_descriptor(peer.fd(), 1000))), "body");
    EXPECT_EQ(content_of(Fd(receive_descriptor(peer.fd(), 0))), extra_fd == extra ? "extra" : "");
    ks_epoll_cancel(epoll, io);
    ks_epoll_cancel(epoll, io);
    EXPECT_TRUE(peer.ends());
    ks_io_free(io);
  }
  ks_epoll_free(epoll);
}

TEST_F(Client, HasSeveralRequestsOnOnePollSet) {
  Service service(path(), KS_STANDALONE | KS_PTHREAD_MODE, 2);
  service.start();
  ks_epoll* epoll = ks_epoll_create();
  std::map<ks_io*, std::string> pending;
  for (const char* body : {"one", "two", "three", "four"}) {
    ks_io* io = ks_io_create();
    ks_io_printf(io, "%s", body);
    ASSERT_EQ(ks_epoll_call(epoll, name().c_str(), "echo", io, -1), KS_STATUS_OK);
    pending[io] = body;
  }
  while (!pending.empty()) {
    int status = -1;
    ks_io* io = ks_epoll_perform(epoll, 5000, &status);
    ASSERT_EQ(status, KS_STATUS_OK);
    if (io == nullptr) continue;
    ASSERT_EQ(pending.count(io), 1u);
    EXPECT_EQ(std::string(static_cast<const char*>(io->shared_data), io->shared_size), pending[io]);
    pending.erase(io);
    ks_io_free(io);
  }
  ks_epoll_free(epoll);
}

TEST_F(Client, CallsWithAndWithoutBuffers) {
  EXPECT_EQ(call(name(), "echo").status, KS_STATUS_CONNECT);
  EXPECT_EQ(call("@" + std::string(64, 'n'), "echo").status, KS_STATUS_ARGS);
  EXPECT_EQ(ks_ez_call(nullptr, "echo", nullptr, 0, nullptr, nullptr, 5, -1), KS_STATUS_ARGS);
  EXPECT_EQ(ks_ez_call("x", nullptr, nullptr, 0, nullptr, nullptr, 5, -1), KS_STATUS_ARGS);
  Service service(path(), KS_STANDALONE | KS_PTHREAD_MODE, 1);
  service.start();
  EXPECT_EQ(ks_ez_call(name().c_str(), "echo", "abc", 3, nullptr, nullptr, 5, -1), KS_STATUS_OK);
  void* reply = nullptr;
  EXPECT_EQ(ks_ez_call(name().c_str(), "echo", "abc", 3, &reply, nullptr, 5, -1), KS_STATUS_OK);
  EXPECT_EQ(std::string(static_cast<char*>(reply), 3), "abc");
  free(reply);
  reply = nullptr;
  std::uint64_t size = 99;
  EXPECT_EQ(ks_ez_call(name().c_str(), "leave", "abc", 3, &reply, &size, 5, -1), KS_STATUS_BROKEN);
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(size, 99u);
}

// Each call runs on a thread of its own, so that together they take as long as the longest.
TEST_F(Client, TimeLimitsFollowTheirArithmetic) {
  struct Row {
    const char* service;
    std::uint32_t timeout_s;
    bool asks;  // at once, and twice after three seconds
    int status;
    seconds expected;
  };
  const Row rows[] = {
      {"silent, no time given", 0, false, KS_STATUS_TIMEOUT, seconds(5)},
      {"silent, less time than the least", 4, false, KS_STATUS_TIMEOUT, seconds(5)},
      {"silent, more time", 6, false, KS_STATUS_TIMEOUT, seconds(6)},
      // 5 s less 3 leaves 2, and that is less than the 3 gone: over, with the request still pending.
      {"asks again and again", 5, true, KS_STATUS_OK, seconds(3)},
  };
  std::vector<std::thread> calls;
  for (const Row& row : rows) {
    calls.emplace_back([&row, path = in_dir(std::to_string(calls.size()))] {
      const ByHand service(path);
      std::thread asking([&] {
        const Peer peer = service.next_client();
        pollfd nothing{.fd = -1, .events = 0, .revents = 0};
        if (!row.asks) return (void)peer.ends();
        peer.send_record(KS_DIR_ASK);
        poll(&nothing, 0, 3000);
        for (int i = 0; i < 2; ++i) peer.send_record(KS_DIR_ASK);
        peer.ends();
      });
      const auto start = steady_clock::now();
      ks_io* io = ks_io_create();
      ks_io_realloc(io, 10);
      EXPECT_EQ(ks_call(("@" + path).c_str(), "request", io, row.timeout_s, -1), row.status) << row.service;
      const auto taken = steady_clock::now() - start;
      EXPECT_GE(taken, row.expected - milliseconds(20)) << row.service;
      EXPECT_LT(taken, row.expected + milliseconds(900)) << row.service;
      EXPECT_EQ(io->shared_data, nullptr) << row.service;
      ks_io_free(io);
      asking.join();
    });
  }
  for (std::thread& each : calls) each.join();
}

}  // namespace
