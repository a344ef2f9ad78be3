// What a running service does with its clients.
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "harness.h"
#include "service/ks_internal.h"
#include "service/sha1.h"

namespace {

class Requests : public EveryMode {};
INSTANTIATE_TEST_SUITE_P(Service, Requests, ::testing::Values(2u, 3u, 4u, 5u), mode_name);

TEST_P(Requests, CarryBodiesNamesDescriptorsAndCredentials) {
  Service service(path(), GetParam(), 2);
  service.start();
  const std::string longest(256, 'n');
  const Fd extra = memory_file("from outside");
  struct Row {
    const char* what;
    std::string request, body;
    int extra_fd;
    Reply reply;
  };
  const Row rows[] = {
      {"no body", "echo", "", -1, {0, ""}},
      {"one byte", "echo", "x", -1, {0, "x"}},
      {"with NULs", "echo", std::string("a\0b\0", 4), -1, {0, std::string("a\0b\0", 4)}},
      {"a page", "echo", std::string(4096, 'p'), -1, {0, std::string(4096, 'p')}},
      {"1 MiB", "echo", std::string(1 << 20, 'm'), -1, {0, std::string(1 << 20, 'm')}},
      {"longest name", longest, "body", -1, {0, longest}},
      {"name too long", longest + "n", "body", -1, {KS_STATUS_ARGS, ""}},
      {"empty name", "", "body", -1, {0, ""}},
      {"a descriptor", "extra", "body", extra, {0, "from outside"}},
      {"no descriptor", "extra", "body", -1, {0, "none"}},
      {"a number that is none", "extra", "body", 100'000, {0, "none"}},
      {"credentials",
       "who",
       "",
       -1,
       {0, std::to_string(getpid()) + " " + std::to_string(getuid()) + " " + std::to_string(getgid())}},
      {"no reply", "leave", "body", -1, {KS_STATUS_BROKEN, ""}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(call(service.name(), row.request, row.body, row.extra_fd), row.reply);
  }
}

TEST_P(Requests, OfManyClientsAtOnceAreAllServed) {
  Service service(path(), GetParam(), 3);
  service.start();
  std::vector<std::thread> clients;
  for (int client = 0; client < 8; ++client) {
    clients.emplace_back([&, client] {
      for (int i = 0; i < 25; ++i) {
        const std::string body = std::to_string(client) + "." + std::to_string(i);
        EXPECT_EQ(call(service.name(), "echo", body), (Reply{KS_STATUS_OK, body}));
      }
    });
  }
  for (std::thread& client : clients) client.join();
}

TEST_F(ServiceTest, WaitingClientsAreTakenInOrderAndMayLeave) {
  Service service(path(), KS_STANDALONE | KS_PTHREAD_MODE, 1);
  service.start();
  std::vector<Peer> peers;
  for (int i = 0; i < 6; ++i) peers.emplace_back(path());
  EXPECT_EQ(peers[0].next(), KS_DIR_ASK);
  ASSERT_TRUE(service.comes_to_hold(6));
  peers[1].leave();
  peers[4].leave();
  ASSERT_TRUE(service.comes_to_hold(4));
  constexpr struct { std::size_t served, next; } kTurns[] = {{0, 2}, {2, 3}, {3, 5}};
  for (const auto& turn : kTurns) {
    for (const Peer& peer : peers) EXPECT_TRUE(peer.fd() < 0 || peer.quiet());
    peers[turn.served].leave();
    EXPECT_EQ(peers[turn.next].next(), KS_DIR_ASK);
  }
}

TEST_F(ServiceTest, APausedServiceServesWhoWaitsAlready) {
  Service service(path(), KS_STANDALONE | KS_PTHREAD_MODE, 1);
  ks_pause(service.handle());
  service.start();
  EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_PAUSED);
  ks_resume(service.handle());
  Peer busy(path());
  const Peer queued(path());
  EXPECT_EQ(busy.next(), KS_DIR_ASK);
  ASSERT_TRUE(service.comes_to_hold(2));
  ks_pause(service.handle());
  const Peer refused(path());
  EXPECT_EQ(refused.next(), KS_DIR_PAUSED);
  EXPECT_TRUE(refused.ends());
  busy.leave();
  EXPECT_EQ(queued.next(), KS_DIR_ASK);
  queued.send_record(KS_DIR_REQUEST, 0, "echo");
  queued.send_fds({memory_file("body")});
  EXPECT_EQ(queued.next(), KS_DIR_DONE);
  ks_resume(service.handle());
  EXPECT_EQ(call(service.name(), "echo", "x"), (Reply{KS_STATUS_OK, "x"}));
}

TEST_F(ServiceTest, TheThousandthWaitsAndTheNextIsToldBusy) {
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit enough{.rlim_cur = 4096, .rlim_max = before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
  {
    Service service(path(), KS_STANDALONE | KS_PTHREAD_MODE, 1);
    service.start();
    Peer working(path());
    EXPECT_EQ(working.next(), KS_DIR_ASK);
    std::vector<Peer> waiting;
    for (int i = 0; i < 1000; ++i) waiting.emplace_back(path());
    EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_BUSY);
    EXPECT_TRUE(waiting.back().quiet());
    waiting[500].leave();
    ASSERT_TRUE(service.comes_to_hold(1000));
    waiting.emplace_back(path());  // the one place is free again, and only that
    EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_BUSY);
    EXPECT_TRUE(waiting.back().quiet());
    // The last one is still served, by the worker whose descriptors are above 1024 by now.
    working.leave();
    for (std::size_t i = 0; i + 1 < waiting.size(); ++i) waiting[i].leave();
    EXPECT_EQ(waiting.back().next(), KS_DIR_ASK);
    waiting.back().send_record(KS_DIR_REQUEST, 0, "echo");
    waiting.back().send_fds({memory_file("body")});
    EXPECT_EQ(waiting.back().next(), KS_DIR_DONE);
  }
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(ServiceTest, OutOfDescriptorsNewClientsAreToldBusy) {
  const ChildOutcome outcome = in_child([&] {
    Service service(path(), KS_STANDALONE | KS_PTHREAD_MODE, 1);
    service.start();
    const Peer working(path());
    if (working.next() != KS_DIR_ASK || !service.comes_to_hold(1)) _exit(1);
    const Peer next(socket(AF_UNIX, SOCK_STREAM, 0));
    const sockaddr_un address = ks_socket_address(path().c_str());
    std::vector<Fd> all;
    do {
      all.emplace_back(dup(STDERR_FILENO));
    } while (all.back() >= 0);
    if (connect(next.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) _exit(2);
    if (next.next() != KS_DIR_BUSY) _exit(3);
  });
  EXPECT_EQ(outcome.status, 0) << outcome.error;
}

// ---- Names

TEST(Sha1, KnownAnswers) {
  const struct {
    std::size_t length;
    std::uint32_t first, last;
  } rows[] = {
      {0, 0xda39a3ee, 0xafd80709},   {1, 0x86f7e437, 0x377667b8},   {55, 0xc1c8bbdc, 0x5621d65a},
      {56, 0xc2db330f, 0x201be699},  {63, 0x03f09f5b, 0x18a551f5},  {64, 0x0098ba82, 0x25ec644d},
      {119, 0xee971065, 0x8b1dfc56}, {120, 0xf34c1488, 0x0dd4c6d6}, {1000, 0x291e9a6c, 0xfc36b1ba},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    const std::string text(row.length, 'a');
    for (const std::size_t step : {std::size_t{1}, std::size_t{63}, row.length + 1}) {
      SHA1Context context;
      SHA1Reset(&context);
      for (std::size_t at = 0; at < text.size(); at += step) {
        SHA1Input(&context, reinterpret_cast<const std::uint8_t*>(text.data() + at),
                  std::min(step, text.size() - at));
      }
      EXPECT_NE(SHA1Result(&context), 0);
      EXPECT_EQ(context.state[0], row.first);
      EXPECT_EQ(context.state[4], row.last);
    }
  }
}

TEST(Names, BecomeSocketFiles) {
  const std::string longest = "@/" + std::string(62, 'p');
  const struct {
    std::string name, sockfile;
  } rows[] = {
      {"abc", "/var/run/ks/A9993E36.sock"},
      {"", "/var/run/ks/DA39A3EE.sock"},
      {"svc31", "/var/run/ks/1615947.sock"},  // no leading zeros
      {std::string(64, 'n'), "/var/run/ks/49F71CC1.sock"},
      {"VistalServer-vistalprod", "/var/run/ks/494AC97B.sock"},
      {"@/tmp/x", "/tmp/x"},
      {longest, longest.substr(1)},
  };
  for (const auto& row : rows) {
    ks_handle* handle = ks_create(row.name.c_str(), KS_PTHREAD_MODE, 1, answer);
    EXPECT_EQ(handle->sockfile, row.sockfile);
    EXPECT_EQ(handle->name, row.name.substr(0, 63));
    ks_stop(handle);
    ks_free(handle);
  }
}

}  // namespace
