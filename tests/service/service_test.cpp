// Services and their clients.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>

#include "harness.h"
#include "service/ks_internal.h"

namespace {

using std::chrono::milliseconds, std::chrono::steady_clock;

TEST_P(EveryMode, ARequestCarriesItsNameBodyDescriptorAndSender) {
  Service service(path(), GetParam(), 2);
  service.start();
  const std::string longest(256, 'n'), large(1 << 20, 'm'), binary("a\0b\0", 4);
  const UniqueFd extra = memory_file(" and more");
  const struct {
    std::string request, body;
    int extra_fd;
    Reply reply;
  } rows[] = {
      {"echo", binary, -1, {0, binary}},
      {"echo", large, -1, {0, large}},
      {"echo", "body", extra.get(), {0, "body and more"}},
      {"echo", "a number that is no descriptor", 100'000, {0, "a number that is no descriptor"}},
      {longest, "longer than its reply" + large, -1, {0, longest}},
      {longest + "n", "", -1, {KS_STATUS_ARGS, ""}},
      {"mapped", "body", -1, {0, "4b"}},
      {"who", "", -1, {0, sender(getpid(), getuid(), getgid())}},
      {"leave", "body", -1, {KS_STATUS_BROKEN, ""}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(call(service.name(), row.request, row.body, row.extra_fd), row.reply);
  }
}

TEST_P(EveryMode, RequestsOfWorkersThatLeaveThemUnmappedAreUnmapped) {
  Service service(path(), GetParam(), 1);
  ks_worker_init(
      service.handle(), [](void*) { ks_leave_unmapped(); }, nullptr);
  service.start();
  EXPECT_EQ(call(service.name(), "mapped", "body"), Reply(0, "0b"));
}

// The first descriptor that is left to a closer makes a process map the list of them.
TEST_F(ServiceTest, ManyConformingClientsNeedNoCloser) {
  const auto shared_mappings = [] {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) count += line.find(" rw-s ") != std::string::npos ? 1 : 0;
    return count;
  };
  const int before = shared_mappings();
  Service service(path(), kThreads, 2);
  service.start();
  std::vector<std::jthread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&] {
      for (int n = 0; n < 200; ++n) call(service.name(), "echo", "body");
    });
  }
  clients.clear();
  EXPECT_EQ(shared_mappings(), before);
}

TEST_F(ServiceTest, APausedOrFullServiceRefusesNewClientsAndServesTheWaitingInOrder) {
  Service service(path(), kThreads, 1);
  ks_pause(service.handle());
  ks_resume(service.handle());
  service.start();
  Peer working(path());
  EXPECT_EQ(working.next(), KS_DIR_ASK);
  limit_descriptors(4096);
  std::vector<Peer> waiting;
  for (int i = 0; i < 1000; ++i) waiting.emplace_back(path());
  EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_BUSY);
  waiting[500].leave();
  ASSERT_TRUE(service.comes_to_hold(1000));
  waiting.emplace_back(path());  // the one place is free again, and only that
  EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_BUSY);
  ks_pause(service.handle());
  EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_PAUSED);
  // In order, without the clients that have left.
  Peer* served = &working;
  for (Peer& next : waiting) {
    if (next.fd() < 0) continue;
    EXPECT_FALSE(readable(next.fd(), 0));
    served->leave();
    ASSERT_EQ(next.next(), KS_DIR_ASK);
    served = &next;
  }
}

// A worker process has its own descriptors, so the test passes it a path.
template <char what>
void append_to(void* path) {
  std::ofstream(*static_cast<const std::string*>(path), std::ios::app) << what;
}

TEST_P(EveryMode, EachWorkerRunsItsHooksBeforeItsFirstAndAfterItsLastRequest) {
  Service service(path(), GetParam(), 2);
  std::string file = in_dir("called");
  ks_worker_init(service.handle(), append_to<'i'>, &file);
  ks_worker_fini(service.handle(), append_to<'f'>, &file);
  service.start();
  EXPECT_TRUE(eventually([&] { return read_file(file) == "ii"; }));
  const std::string worker = call(service.name(), "worker").text;
  ASSERT_TRUE(eventually([&] { return std::atomic_ref(service.handle()->worker[0].ready).load() != 0; }));
  EXPECT_NE(call(service.name(), "worker").text, worker) << "the two do not take turns";
  // As if the producer were stopped between its record and the descriptor.
  Peer(dup(service.handle()->worker[0].sockfd[1])).record(KS_DIR_TRANSFER);
  service.stop();
  EXPECT_EQ(read_file(file), "iiff");
}

TEST_P(EveryMode, StopAndFreeHangUpOnEveryClient) {
  const UniqueFd stale = listen_at(path());
  for (int run = 0; run < 100; ++run) {
    Service service(path(), GetParam(), 2);
    for (int again = 0; again < 2; ++again) {
      service.start();
      EXPECT_EQ(std::filesystem::status(path()).permissions(), std::filesystem::perms(0777));
      std::vector<std::jthread> clients;
      for (const char* body : {"one", "two", "three"}) {
        clients.emplace_back([&, body] {
          Reply reply;
          while ((reply = call(service.name(), "echo", body)).status == KS_STATUS_OK) {
            EXPECT_EQ(reply.text, body);
          }
          EXPECT_THAT(reply.status, ::testing::AnyOf(KS_STATUS_CONNECT, KS_STATUS_BROKEN, KS_STATUS_PAUSED));
        });
      }
      EXPECT_TRUE(run % 2 == 0 || call(service.name(), "echo").status == KS_STATUS_OK);
      std::jthread other(ks_stop, service.handle());
      service.stop();
      EXPECT_EQ(std::atomic_ref(service.handle()->worker).load(), nullptr);  // in either order
    }
    // Stopped while it starts, and released while a blocking ks_start returns in its thread.
    if (run % 2 == 0) service.begin();
  }
}

TEST_P(EveryMode, AKilledWorkerIsReplacedAndStopWaitsForRunningRequests) {
  const StderrCapture error;
  Service service(path(), GetParam(), 3);
  service.start();
  std::string warning;
  if ((GetParam() & KS_PROCESS_MODE) != 0) {
    EXPECT_EQ(call(service.name(), "die").status, KS_STATUS_BROKEN);
    siginfo_t dead;
    ASSERT_EQ(waitid(P_ALL, 0, &dead, WEXITED | WNOWAIT), 0);
    warning = "[KService] [WARN] [" + service.name() + "] consumer-worker[0].pid=" + std::to_string(dead.si_pid) +
              " WIFSIGNALED=9, restart it.\n";
    EXPECT_EQ(call(service.name(), "forge").text, "forge");
  }
  const Line lines[] = {make_line(), make_line()};
  Peer peers[] = {Peer(path()), Peer(path())};
  for (int i : {0, 1}) {
    peers[i].request("hold", 1).fds({memory_file("").get()}).fds({lines[i].theirs.get()});
    EXPECT_TRUE(readable(peers[i].fd()) && readable(lines[i].ours.get()));
  }
  EXPECT_EQ(error.text(), warning);
  // A connection of a worker that was killed may be there until now.
  ASSERT_TRUE(service.comes_to_hold(2));
  const Peer asked(path()), queued(path());
  EXPECT_EQ(asked.next(), KS_DIR_ASK);
  ASSERT_TRUE(service.comes_to_hold(4));
  // A program that is started meanwhile keeps a copy of each connection.
  const pid_t program = fork();
  if (program == 0) _exit(static_cast<int>(sleep(60)));
  auto stopped = std::async(std::launch::async, [&] { service.stop(); });
  EXPECT_EQ(queued.next(), 0);
  EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_CONNECT);
  for (int i : {0, 1}) {
    EXPECT_EQ(peers[i].next(), KS_DIR_ASK);
    // A replacement must outlive the producer's thread as well, which has forked it.
    EXPECT_FALSE(readable(peers[i].fd(), 50)) << "ended in the middle of its request";
    EXPECT_EQ(stopped.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    char byte;
    EXPECT_EQ(read(lines[i].ours.get(), &byte, 1) + write(lines[i].ours.get(), "r", 1), 2);
    EXPECT_EQ(peers[i].rest(), (std::vector<int>{KS_DIR_DONE, 0}));
  }
  EXPECT_EQ(asked.next(), 0);
  kill(program, SIGKILL);
  EXPECT_EQ(waitpid(program, nullptr, 0), program);
}

// A connection that is closed with something unread is reset; one that is hung up on is read empty and ends.
bool is_hung_up_on(const Peer& peer) {
  char byte;
  return readable(peer.fd()) && read(peer.fd(), &byte, 1) == 0;
}

TEST_F(ServiceTest, AClientWhoseDescriptorCannotBeReceivedIsHungUpOn) {
  const ChildOutcome outcome = in_child([&] {
    Service service(path(), kThreads, 1);
    service.start();
    Peer working(path());
    EXPECT_EQ(working.next(), KS_DIR_ASK);
    Peer waiting(path());
    waiting.bytes("unread");
    const Peer behind(path());  // once this one is accepted, the one before it waits
    EXPECT_TRUE(service.comes_to_hold(3));
    limit_descriptors(3);
    working.leave();
    if (!is_hung_up_on(waiting)) _exit(1);
  });
  EXPECT_EQ(outcome.status, 0) << outcome.error;
}

int held = -1;

void hold_this_thread(int) {
  char byte = 'h';
  EXPECT_EQ(write(held, &byte, 1) + read(held, &byte, 1), 2);
}

TEST_F(ServiceTest, AClientWhoseWorkerProcessEndsBeforeItsEchoIsReadIsHungUpOn) {
  Service service(path(), KS_STANDALONE | KS_PROCESS_MODE, 1);
  service.start();
  ks_worker* const workers = service.handle()->worker;
  const pid_t consumer = workers[0].id.pid;
  // Three standard streams, its control socket and its poll set: nothing that the service had open.
  ASSERT_TRUE(eventually([&] { return open_descriptors(consumer).size() == 5; }));
  for (const int signal : {SIGINT, SIGTERM, SIGSTOP}) kill(consumer, signal);
  Peer client(path());
  ASSERT_TRUE(eventually([&] { return std::atomic_ref(workers[0].ready).load() == 0; }));
  const Line line = make_line();
  held = line.theirs.get();
  std::signal(SIGUSR1, hold_this_thread);
  const auto hold_producer = [&] {
    char byte;
    pthread_kill(workers[1].id.tid, SIGUSR1);
    EXPECT_EQ(read(line.ours.get(), &byte, 1), 1);
  };
  hold_producer();
  kill(consumer, SIGCONT);
  EXPECT_EQ(client.next(), KS_DIR_ASK);
  kill(consumer, SIGKILL);
  siginfo_t dead;
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(consumer), &dead, WEXITED | WNOWAIT), 0);
  client.bytes("unread");
  EXPECT_EQ(write(line.ours.get(), "r", 1), 1);
  EXPECT_TRUE(service.comes_to_hold(0) && is_hung_up_on(client));
  // The same for a client that a stop finds before it is accepted.
  hold_producer();
  const Peer late(path());
  const std::jthread stopper([&] { service.stop(); });
  EXPECT_TRUE(eventually([&] { return std::atomic_ref(service.handle()->stopping).load() != 0; }));
  EXPECT_EQ(write(line.ours.get(), "r", 1), 1);
  EXPECT_TRUE(is_hung_up_on(late));
}

TEST_F(ServiceTest, AWorkerProcessDoesNotOutliveItsService) {
  Line line = make_line();
  in_child([&] {
    Service service(path(), KS_STANDALONE | KS_PROCESS_MODE, 1);
    service.start();
    Peer peer(path());
    peer.request("hold", 1).fds({memory_file("").get()}).fds({line.theirs.get()});
    EXPECT_TRUE(readable(line.ours.get()));
    _exit(0);
  });
  line.theirs.reset();
  char byte;
  EXPECT_EQ(read(line.ours.get(), &byte, 1), 1);
  EXPECT_TRUE(is_hung_up_on(Peer(line.ours.release())));
}

TEST_F(ServiceTest, AWorkerProcessRunsWithTheEnvironmentOfItsClient) {
  Service service(path(), KS_PROCESS_MODE, 1);
  service.start();
  const Line line = make_line();
  Peer peer(socket(AF_UNIX, SOCK_STREAM, 0));
  // The kernel notes who connects: a child, which then becomes a program with an environment of its own.
  const pid_t client = fork();
  if (client == 0) {
    const char* const environment[] = {"A=x=y", "EMPTY=", "B=1", "nothing", "C=2\n3", "LATER=4", nullptr};
    dup2(line.theirs.get(), STDIN_FILENO);
    dup2(line.theirs.get(), STDOUT_FILENO);
    peer.connect_to(path());
    execle("/bin/sh", "sh", "-c", "echo; read end", nullptr, environment);
    _exit(1);
  }
  ASSERT_TRUE(readable(line.ours.get()));
  const UniqueFd file = memory_file("");
  peer.request("environ").fds({file.get()});
  EXPECT_EQ(peer.rest(), (std::vector<int>{KS_DIR_ASK, KS_DIR_DONE, 0}));
  EXPECT_EQ(content_of(file.get()), "A=x=y\nEMPTY=\nB=1\nnothing=2\n\n");
  EXPECT_EQ(write(line.ours.get(), "\n", 1), 1);
  EXPECT_EQ(waitpid(client, nullptr, 0), client);
}

TEST_P(EveryMode, AFileThatIsSealedDuringItsRequestAffectsOnlyItsClient) {
  Service service(path(), GetParam(), 1);
  service.start();
  const Line line = make_line();
  const UniqueFd file = memory_file("body", MFD_ALLOW_SEALING);
  Peer peer(path());
  peer.request("hold", 1).fds({file.get()}).fds({line.theirs.get()});
  ASSERT_TRUE(readable(line.ours.get()));
  EXPECT_EQ(fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
  EXPECT_EQ(write(line.ours.get(), "r", 1), 1);
  EXPECT_EQ(peer.rest(), (std::vector<int>{KS_DIR_ASK, 0}));
  EXPECT_EQ(call(service.name(), "echo", "on"), (Reply{0, "on"}));
}

TEST_F(ServiceTest, AnAskedClientThatStaysSilentIsHungUpOnAfterAMinute) {
  Service service(path(), kThreads, 1);
  service.start();
  const Peer silent(path());
  EXPECT_EQ(silent.next(), KS_DIR_ASK);
  EXPECT_FALSE(readable(silent.fd(), 58'000));
  EXPECT_EQ(silent.next(), 0);
  EXPECT_EQ(call(service.name(), "echo", "on"), (Reply{0, "on"}));
}

// The test acts as a producer that is interrupted between its record and the descriptor, or cannot send the descriptor.
TEST_F(ServiceTest, AWorkerWaitsForTheDescriptorThatFollowsATransfer) {
  Line client = make_line();
  Line line = make_line();
  Peer producer(line.ours.release());
  ks_worker worker{};
  worker.sockfd[0] = line.theirs.release();
  worker.client_fd = -1;
  worker.type = KS_PTHREAD_MODE;
  const std::jthread consumer(ks_consumer_worker, &worker);
  producer.record(KS_DIR_TRANSFER);
  EXPECT_FALSE(readable(producer.fd(), 5500)) << "it takes the byte that comes late for a record";
  producer.fds({client.theirs.get()});
  EXPECT_EQ(producer.next(), KS_DIR_TRANSFER);
  Peer asked(client.ours.release());
  EXPECT_EQ(asked.next(), KS_DIR_ASK);
  EXPECT_FALSE(readable(producer.fd(), 50)) << "it is ready for another one";
  asked.bytes("no request");
  EXPECT_EQ(producer.next(), KS_DIR_READY);
  producer.record(KS_DIR_TRANSFER).bytes("x");
  EXPECT_TRUE(producer.next() == KS_DIR_TRANSFER && producer.next() == KS_DIR_READY);
  producer.leave();
}

// The test acts as the service. Each step without a reply subtracts the whole time since the start from the time limit,
// so that many asks use it up at once.
TEST_F(ServiceTest, AFailedCallReturnsItsStatusAndAnEmptyRecord) {
  const UniqueFd service = listen_at(path());
  const auto replies_too_much = [](Peer& p) {
    EXPECT_EQ(p.record(KS_DIR_ASK).next(), KS_DIR_REQUEST);
    const UniqueFd file(receive_descriptor(p.fd(), steady_clock::now() + std::chrono::seconds(1)));
    EXPECT_EQ(ftruncate(file.get(), off_t{1} << 50), 0);
    p.record(KS_DIR_DONE);
  };
  const struct {
    std::function<void(Peer&)> does;
    int status;
    bool takes_all_the_time;
  } rows[] = {
      {[](Peer& p) { p.bytes("\x09..."); }, KS_STATUS_BROKEN, false},
      {[](Peer& p) { p.record(KS_DIR_REFUSED); }, KS_STATUS_REFUSED, false},
      {replies_too_much, KS_STATUS_BROKEN, false},
      {[](Peer& p) {
         while (p.record(KS_DIR_ASK).next() > 0)
           UniqueFd(receive_descriptor(p.fd(), steady_clock::now() + std::chrono::seconds(1)));
       },
       KS_STATUS_OK, false},
      {[](Peer& p) {
         while (!readable(p.fd(), 500)) p.record(99);  // a type that no client knows
       },
       KS_STATUS_OK, true},
      {[](Peer&) {}, KS_STATUS_TIMEOUT, true},
  };
  ks_io* io = ks_io_create();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.status);
    std::jthread hand([&] {
      Peer peer(accept(service.get(), nullptr, nullptr));
      row.does(peer);
      peer.rest();
    });
    const auto start = steady_clock::now();
    ks_io_realloc(io, 10);
    EXPECT_EQ(ks_call(("@" + path()).c_str(), "request", io, 0, -1), row.status);
    EXPECT_EQ(steady_clock::now() - start > milliseconds(4900), row.takes_all_the_time);
    EXPECT_TRUE(io->shared_data == nullptr && io->memfd == -1 && io->sockfd == -1);
  }
  std::jthread hand([&] {
    Peer peer(accept(service.get(), nullptr, nullptr));
    replies_too_much(peer);
  });
  EXPECT_EQ(call("@" + path(), "request").status, KS_STATUS_BROKEN);
  hand.join();
  std::vector<Peer> backlog;
  while (backlog.size() < 10) backlog.emplace_back(path());
  EXPECT_EQ(ks_call(("@" + path()).c_str(), "request", io, 0, -1), KS_STATUS_CONNECT);
  ks_io_free(io);
}

}  // namespace
