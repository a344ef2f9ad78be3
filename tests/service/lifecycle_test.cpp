// How services begin and end.
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "harness.h"
#include "service/ks_internal.h"

namespace {

class Lifecycle : public EveryMode {};
INSTANTIATE_TEST_SUITE_P(Service, Lifecycle, ::testing::Values(2u, 3u, 4u, 5u), mode_name);

void count_up(void* counter) {
  std::atomic_ref(*static_cast<int*>(counter)).fetch_add(1);
}

TEST_P(Lifecycle, HooksRunOncePerWorkerInEachRun) {
  auto* counters = static_cast<int*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));  // processes count too
  {
    Service service(path(), GetParam(), 3);
    ks_worker_init(service.handle(), count_up, &counters[0]);
    ks_worker_fini(service.handle(), count_up, &counters[1]);
    for (int run = 1; run <= 2; ++run) {
      EXPECT_FALSE(service.published());
      service.start();
      EXPECT_EQ(call(service.name(), "echo", "x"), (Reply{KS_STATUS_OK, "x"}));
      service.stop();
      service.stop();
      EXPECT_EQ(counters[0], 3 * run);
      EXPECT_EQ(counters[1], 3 * run);
      EXPECT_EQ(call(service.name(), "echo").status, KS_STATUS_CONNECT);
    }
  }
  munmap(counters, 4096);
}

TEST_P(Lifecycle, StopWaitsForTheRequestInWorkAndDropsWhoWaits) {
  Service service(path(), GetParam(), 2);
  service.start();
  Held held(service.name());
  const Peer silent(path());
  ASSERT_EQ(silent.next(), KS_DIR_ASK);  // both workers are taken
  const Peer queued(path());
  ASSERT_TRUE(service.comes_to_hold(3));
  auto first = std::async(std::launch::async, [&] { service.stop(); });
  EXPECT_TRUE(queued.ends());
  EXPECT_FALSE(service.published());
  auto second = std::async(std::launch::async, [&] { ks_stop(service.handle()); });
  // The producer is gone; a worker must outlive it as long as it has work.
  pollfd line{.fd = held.line(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(poll(&line, 1, 50), 0) << "the worker has ended in the middle of its request";
  EXPECT_EQ(first.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(held.release(), (Reply{KS_STATUS_OK, "held"}));
  EXPECT_TRUE(silent.ends());
  first.get();
  second.get();
}

TEST_F(ServiceTest, StopIsHeldUpByAWithheldDescriptorForABoundedTimeOnly) {
  Service threads(in_dir("t"), KS_STANDALONE | KS_PTHREAD_MODE, 1);
  Service processes(in_dir("p"), KS_PROCESS_MODE, 1);
  processes.start();
  threads.start();
  const Peer peers[] = {Peer(in_dir("t")), Peer(in_dir("p"))};
  for (const Peer& peer : peers) {
    ASSERT_EQ(peer.next(), KS_DIR_ASK);
    peer.send_record(KS_DIR_REQUEST, 0, "echo");
  }
  const auto start = std::chrono::steady_clock::now();
  auto other = std::async(std::launch::async, [&] { processes.stop(); });
  threads.stop();
  other.get();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
  for (const Peer& peer : peers) EXPECT_TRUE(peer.ends());
}

TEST_P(Lifecycle, ManyRunsEndedFromAnotherThread) {
  for (int run = 0; run < 100; ++run) {
    Service service(path(), GetParam(), 2);
    service.start();
    if (run % 2 == 0) {
      EXPECT_EQ(call(service.name(), "echo", "x").status, KS_STATUS_OK);
    }
  }  // stopped and released here, while a blocking ks_start returns in its thread
}

TEST_P(Lifecycle, EndsByItselfWhenItsListeningSocketIsGone) {
  Service service(path(), GetParam(), 2);
  service.start();
  const ks_worker* workers = std::atomic_ref(service.handle()->worker).load();
  ASSERT_EQ(shutdown(workers[2].sockfd[1], SHUT_RDWR), 0);
  if ((GetParam() & KS_STANDALONE) == 0) {
    EXPECT_TRUE(eventually([&] { return std::atomic_ref(service.handle()->worker).load() == nullptr; }));
    EXPECT_FALSE(service.published());
  }
  service.stop();
  service.start();
  EXPECT_EQ(call(service.name(), "echo", "again"), (Reply{KS_STATUS_OK, "again"}));
}

TEST_F(ServiceTest, AStaleSocketFileIsReplacedByOneThatAnybodyMayUse) {
  const std::string deep = in_dir("made") + "/s";  // one level of directory is created
  for (int run = 0; run < 2; ++run) {
    Service service(deep, KS_STANDALONE | KS_PTHREAD_MODE, 1);
    service.start();
    EXPECT_EQ(call(service.name(), "echo", "x"), (Reply{KS_STATUS_OK, "x"}));
    struct stat status {};
    ASSERT_EQ(stat(deep.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0777));
    if (run == 0) std::filesystem::rename(deep, deep + ".kept");
    service.stop();
    if (run == 0) std::filesystem::rename(deep + ".kept", deep);
  }
}

// ---- Consumer processes

class Processes : public EveryMode {};
INSTANTIATE_TEST_SUITE_P(Service, Processes, ::testing::Values(2u, 3u), mode_name);

TEST_P(Processes, AKilledOneIsReportedAndReplaced) {
  const StderrCapture error;
  Service service(path(), GetParam(), 2);
  service.start();
  const std::string first = call(service.name(), "worker").text;
  const std::string second = call(service.name(), "worker").text;
  ASSERT_NE(first, second);
  EXPECT_EQ(call(service.name(), "die").status, KS_STATUS_BROKEN);
  siginfo_t dead;
  ASSERT_EQ(waitid(P_ALL, 0, &dead, WEXITED | WNOWAIT), 0);  // whichever was ready first
  const std::string gone = std::to_string(dead.si_pid);
  ASSERT_TRUE(gone == first || gone == second);
  // It is missed when its turn comes.
  EXPECT_TRUE(eventually([&] {
    EXPECT_NE(call(service.name(), "worker").text, gone);
    return !error.text().empty();
  }));
  EXPECT_EQ(error.text(), "[KService] [WARN] [" + service.name() + "] consumer-worker[" +
                              (gone == first ? "0" : "1") + "].pid=" + gone +
                              " WIFSIGNALED=9, restart it.\n");
  // The replacement was forked by the producer's thread, and must outlive that as well when it is stopped.
  Held other(service.name()), replaced(service.name());
  const Peer queued(path());
  ASSERT_TRUE(service.comes_to_hold(3));
  auto stop = std::async(std::launch::async, [&] { service.stop(); });
  EXPECT_TRUE(queued.ends());
  pollfd line{.fd = replaced.line(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(poll(&line, 1, 100), 0) << "the replacement has ended in the middle of its request";
  EXPECT_EQ(other.release(), (Reply{KS_STATUS_OK, "held"}));
  EXPECT_EQ(replaced.release(), (Reply{KS_STATUS_OK, "held"}));
}

TEST_F(ServiceTest, AProcessRunsWithTheEnvironmentOfItsClient) {
  Service service(path(), KS_PROCESS_MODE, 1);
  service.start();
  const Line line = make_line();
  const Peer peer(socket(AF_UNIX, SOCK_STREAM, 0));
  const sockaddr_un address = ks_socket_address(path().c_str());
  // The kernel notes who connects: a child, which then becomes a program with an environment of its own.
  const pid_t client = fork();
  if (client == 0) {
    dup2(line.theirs, STDIN_FILENO);
    char* const args[] = {const_cast<char*>("cat"), nullptr};
    char* const environment[] = {const_cast<char*>("A=x=y"),
                                 const_cast<char*>("EMPTY="),
                                 const_cast<char*>("B=1"),
                                 const_cast<char*>("nothing"),
                                 const_cast<char*>("C=2\n3"),
                                 const_cast<char*>("LATER=4"),
                                 nullptr};
    if (connect(peer.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      execve("/bin/cat", args, environment);
    }
    _exit(1);
  }
  ASSERT_TRUE(eventually([&] {
    std::ifstream file("/proc/" + std::to_string(client) + "/environ");
    return std::string(std::istreambuf_iterator<char>(file), {}).rfind("A=x=y", 0) == 0;
  }));
  ASSERT_EQ(peer.next(), KS_DIR_ASK);
  const Fd file = memory_file("");
  peer.send_record(KS_DIR_REQUEST, 0, "environ");
  peer.send_fds({file});
  EXPECT_EQ(peer.next(), KS_DIR_DONE);
  EXPECT_EQ(content_of(file), "A=x=y\nEMPTY=\nB=1\nnothing=2\n\n");
  kill(client, SIGKILL);
  waitpid(client, nullptr, 0);
}

TEST_F(ServiceTest, AProcessAtWorkDoesNotOutliveItsParent) {
  const Line work = make_line();
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Fd ours(ends[0]), theirs(ends[1]);
  const ChildOutcome parent = in_child([&] {
    Service service(path(), KS_STANDALONE | KS_PROCESS_MODE, 1);
    service.start();
    const pid_t worker = std::stoi(call(service.name(), "worker").text);
    std::thread([&] { call(service.name(), "hold", "", work.theirs); }).detach();
    char started;
    if (read(work.ours, &started, 1) != 1) return;
    if (write(theirs, &worker, sizeof(worker)) > 0) kill(getpid(), SIGKILL);
  });
  EXPECT_EQ(parent.status, SIGKILL);
  pid_t worker = -1;
  ASSERT_EQ(read(ours, &worker, sizeof(worker)), static_cast<ssize_t>(sizeof(worker)));
  int status = 0;
  EXPECT_EQ(waitpid(worker, &status, 0), worker);
  EXPECT_EQ(status, SIGKILL);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
