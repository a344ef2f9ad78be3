// What needs no running service: request records, names, signals, and errors that end the process.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstring>

#include "harness.h"
#include "service/ks_internal.h"

namespace {

constexpr ks_exec_fn kExec = [](const char*, ks_io*, int) {};

std::string mapped(ks_io* io) {
  std::uint64_t size = 99;
  const void* data = ks_io_read(io, &size);
  return {static_cast<const char*>(data), size};
}

UniqueFd pipe_holding(const std::string& text) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const UniqueFd writing(ends[1]);
  EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  return UniqueFd(ends[0]);
}

TEST_F(GuardedTest, EveryWriteToAMemoryFileAppends) {
  ks_io* io = ks_io_create();
  EXPECT_EQ(mapped(io), "");
  EXPECT_EQ(io->memfd, -1);  // reading alone makes no file
  const auto append = [](int fd) { return write(fd, "x", 1) == 1; };
  const UniqueFd spare(dup(STDERR_FILENO));
  const struct {
    const char* operation;
    std::function<bool()> perform;
    const char* appended;
  } rows[] = {
      {"ks_io_printf",
       [&] {
         ks_io_printf(io, "%s %d", "printed", 7);
         return true;
       },
       "printed 7"},
      {"ks_io_fwrite", [&] { return ks_io_fwrite("!", 1, io) == 0; }, "!"},
      {"ks_io_write", [&] { return ks_io_write(io, "a\nb", 3) == 3; }, "a\nb"},
      {"ks_io_splice", [&] { return ks_io_splice(io, pipe_holding("spliced").get(), 6) == 6; }, "splice"},
      {"ks_io_dup", [&] { return append(UniqueFd(ks_io_dup(io)).get()); }, "x"},
      {"ks_io_dup2", [&] { return ks_io_dup2(io, spare.get()) == spare.get() && append(spare.get()); }, "x"},
      {"ks_io_dup3", [&] { return ks_io_dup3(io, spare.get(), O_CLOEXEC) == spare.get() && append(spare.get()); }, "x"},
      {"ks_io_fopen", [&] { return std::fputc('f', UniqueStream(ks_io_fopen(io, "a")).get()) == 'f'; }, "f"},
      {"ks_io_freopen",
       [&] {
         FILE* const stream = std::fopen("/dev/null", "r");
         return std::fputc('r', UniqueStream(ks_io_freopen(io, "a", stream)).get()) == 'r';
       },
       "r"},
      {"ks_io_get",
       [&] {
         ks_io_set(io, ~0ull);
         return ks_io_get(io) == ~0ull;
       },
       ""},
  };
  std::string expected;
  for (const auto& row : rows) {
    EXPECT_TRUE(row.perform()) << row.operation;
    EXPECT_EQ(mapped(io), expected += row.appended) << row.operation;
  }
  std::memcpy(ks_io_realloc(io, 7), "PRINTED", 7);
  ks_io_write(io, "|", 1);
  EXPECT_EQ(mapped(io), "PRINTED|");
  ks_io_free(io);
}

volatile sig_atomic_t interruptions = 0;

TEST_F(GuardedTest, AClientIsAliveUntilItSendsMore) {
  ks_io* io = ks_io_create();
  const Line line = make_line();
  limit_descriptors(4096);
  io->sockfd = fcntl(line.theirs.get(), F_DUPFD, 2500);  // more than fits into a select set
  io->peer_pid = 1;
  std::signal(SIGUSR2, [](int) { interruptions = interruptions + 1; });
  std::jthread interrupter([self = pthread_self()](const std::stop_token& done) {
    while (!done.stop_requested()) pthread_kill(self, SIGUSR2);
  });
  while (interruptions < 20'000) ASSERT_TRUE(ks_io_alive(io)) << interruptions;
  interrupter = {};
  EXPECT_EQ(write(line.ours.get(), "?", 1), 1);
  EXPECT_FALSE(ks_io_alive(io));
  ks_io_free(io);
}

TEST_F(GuardedTest, AReplyEndsTheConversationEvenForCopiesOfTheConnection) {
  ks_io* io = ks_io_create();
  Line line = make_line();
  io->sockfd = dup(line.theirs.get());
  ks_reply(io);
  EXPECT_EQ(Peer(line.ours.release()).rest(), (std::vector<int>{KS_DIR_DONE, 0}));
  ks_io_free(io);
}

// Otherwise the command would be carried out, and only its reply would fail.
TEST_F(GuardedTest, AFileThatCannotHoldAReplyIsRejected) {
  const UniqueFd file = memory_file("");
  const UniqueFd reading(open(("/proc/self/fd/" + std::to_string(file.get())).c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(ks_io_accept(reading.get(), -1, false), nullptr);
}

TEST_F(GuardedTest, OfDescriptorsThatDoNotAllFitNoneIsTaken) {
  const ChildOutcome outcome = in_child([] {
    const Line line = make_line();
    const int room = dup(STDIN_FILENO);
    Peer(dup(line.ours.get())).fds({STDERR_FILENO, STDERR_FILENO});
    close(room);
    limit_descriptors(room + 1);
    const int taken = receive_descriptor(line.theirs.get(), std::chrono::steady_clock::now() + std::chrono::seconds(1));
    if (taken >= 0) _exit(1);
  });
  EXPECT_EQ(outcome.status, 0) << outcome.error;
}

TEST_F(GuardedTest, DescriptorsThatManyThreadsDiscardAreAllClosed) {
  constexpr std::uint32_t kUser = 1000;
  const std::size_t before = open_descriptors().size();
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([] {
        for (int n = 0; n < 3; ++n) ks_discard(open("/dev/null", O_RDWR | O_CLOEXEC), kUser);
      });
    }
    threads.clear();
    EXPECT_TRUE(eventually([&] { return open_descriptors().size() == before; })) << "round " << round;
  }
}

// By the first word of their SHA-1, without leading zeros.
TEST(ServiceNames, AreHashedIntoSocketPaths) {
  const std::pair<std::size_t, const char*> rows[] = {
      {0, "DA39A3EE"}, {1, "86F7E437"}, {55, "C1C8BBDC"}, {56, "C2DB330F"}, {63, "3F09F5B"}, {64, "98BA82"},
  };
  for (const auto& [length, word] : rows) {
    ks_handle* handle = ks_create(std::string(length, 'a').c_str(), kThreads, 1, kExec);
    EXPECT_EQ(handle->sockfile, "/var/run/ks/" + std::string(word) + ".sock");
    ks_free(handle);
  }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(DropMemory, AProcessKeepsOnlyTheDataThatItNames) {
  constexpr std::size_t kSize = 1 << 20;
  const auto map = [](int flags) { return mmap(nullptr, kSize, PROT_READ | PROT_WRITE, flags | MAP_ANONYMOUS, -1, 0); };
  void* const kept = map(MAP_SHARED);
  void* const dropped[] = {map(MAP_SHARED), map(MAP_PRIVATE)};
  const auto is_mapped = [](void* at) { return syscall(SYS_msync, at, kSize, MS_ASYNC) == 0; };
  const auto drop = [&] {
    ks_drop_memory({&kept, kept, &errno});
    syscall(SYS_exit_group, is_mapped(kept) && !is_mapped(dropped[0]) && !is_mapped(dropped[1]) ? 0 : 1);
  };
  EXPECT_EXIT(drop(), testing::ExitedWithCode(0), "");
  for (void* mapping : {kept, dropped[0], dropped[1]}) munmap(mapping, kSize);
}
#endif

volatile sig_atomic_t last_signal = 0;

TEST_F(GuardedTest, SignalsReachTheirHandlersAndACrashEndsTheProcess) {
  const ChildOutcome outcome = in_child([] {
    for (const int signum : {SIGUSR1, SIGHUP}) ks_signal(signum, [](int got) { last_signal = got; });
    ks_signal(SIGHUP, nullptr);
    ks_sig_dispatch(SIGHUP);  // as if it had been on its way
    if (last_signal == 0 && raise(SIGUSR1) == 0 && last_signal == SIGUSR1) ks_crash_install();
    limit_descriptors(0);  // and so no entry in the real kernel log
    raise(SIGSEGV);
  });
  EXPECT_EQ(outcome.status, 1 << 8);
  EXPECT_EQ(outcome.error, "Segmentation fault\n");
}

TEST_F(ServiceTest, AWrongCallAbortsWithOneLine) {
  write_file(in_dir("file"), "");
  const struct {
    std::string line;  // without "[ABORT] @" in front
    std::function<void()> call;
  } rows[] = {
      {"ks_io_free() cannot free incorrect ks_io (nil): `io && (*(u_int32_t*) io == KS_IO_MAGIC)'",
       [] { ks_io_free(nullptr); }},
      {"ks_stop() a worker cannot stop its own service: `!ks_is_consumer_of(service_handle)'",
       [&] {
         static ks_handle* service = nullptr;
         const std::string name = "@" + in_dir("own");
         service = ks_create(name.c_str(), kThreads, 1, [](const char*, ks_io*, int) { ks_stop(service); });
         ks_start(service);
         ks_ez_call(name.c_str(), "stop", nullptr, 0, nullptr, nullptr, 5, -1);
       }},
      {"ks_producer_worker_init() " + in_dir("file") + " is not a sock file: `S_ISSOCK(st.st_mode)'",
       [&] { ks_start(ks_create(("@" + in_dir("file")).c_str(), kThreads, 1, kExec)); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    const ChildOutcome outcome = in_child(row.call);
    EXPECT_TRUE(WIFSIGNALED(outcome.status) && WTERMSIG(outcome.status) == SIGABRT) << outcome.status;
    EXPECT_EQ(outcome.error, "[ABORT] @" + row.line + "\n");
  }
}

}  // namespace
