// What needs no running service: request records, names, signals, and errors that end the process.
#include <fcntl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>
#include <ctime>

#include "harness.h"

namespace {

constexpr ks_exec_fn kExec = [](const char*, ks_io*, int) {};

// A signal, which is caught, every 100 microseconds.
class Interruptions {
 public:
  Interruptions() {
    signal(SIGUSR2, [](int) {});
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR2;
    EXPECT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer_), 0);
    const itimerspec again{.it_interval = {0, 100'000}, .it_value = {0, 100'000}};
    EXPECT_EQ(timer_settime(timer_, 0, &again, nullptr), 0);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;
  ~Interruptions() { timer_delete(timer_); }

 private:
  timer_t timer_{};
};

TEST_F(GuardedTest, RequestsAreAppendedToAndKnowTheirClient) {
  ks_io* io = ks_io_create();
  const auto mapped = [io] {
    std::uint64_t size = 99;
    const void* data = ks_io_read(io, &size);
    return std::string(static_cast<const char*>(data), size);
  };
  EXPECT_EQ(mapped(), "");
  EXPECT_EQ(io->memfd, -1);  // reading alone makes no file
  ks_io_printf(io, "%s %d", "printed", 7);
  EXPECT_EQ(mapped(), "printed 7");
  EXPECT_EQ(ks_io_fwrite("!", 1, io), 0);  // behind what has been mapped
  EXPECT_EQ(mapped(), "printed 7!");
  std::memcpy(ks_io_realloc(io, 7), "PRINTED", 7);
  ks_io_write(io, "|", 1);
  EXPECT_EQ(mapped(), "PRINTED|");
  const Line line = make_line();
  limit_descriptors(4096);
  io->sockfd = fcntl(line.theirs, F_DUPFD, 2500);  // more than fits into a select set
  io->peer_pid = 1;
  const Interruptions often;
  for (int i = 0; i < 100'000; ++i) ASSERT_TRUE(ks_io_alive(io)) << i;
  EXPECT_EQ(write(line.ours, "?", 1), 1);
  EXPECT_FALSE(ks_io_alive(io)) << "it has more to say, so it does not wait";
  ks_io_free(io);
}

// By the first word of their SHA-1, without leading zeros.
TEST(Names, BecomeSocketFiles) {
  const std::pair<std::size_t, const char*> rows[] = {
      {0, "DA39A3EE"}, {1, "86F7E437"}, {55, "C1C8BBDC"}, {56, "C2DB330F"}, {63, "3F09F5B"}, {64, "98BA82"},
  };
  for (const auto& [length, word] : rows) {
    ks_handle* handle = ks_create(std::string(length, 'a').c_str(), kThreads, 1, kExec);
    EXPECT_EQ(handle->sockfile, "/var/run/ks/" + std::string(word) + ".sock");
    ks_free(handle);
  }
}

volatile sig_atomic_t last_signal = 0;

TEST_F(GuardedTest, SignalsReachTheirHandlersAndCrashesEndTheProcess) {
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

TEST_F(ServiceTest, ErrorsThatEndTheProcessSayWhatWasWrong) {
  const auto start = [&](const std::string& where) {
    ks_handle* service = ks_create(("@" + in_dir(where)).c_str(), kThreads, 1, kExec);
    ks_start(service);
    ks_start(service);
  };
  const Fd file(open(in_dir("file").c_str(), O_CREAT, 0600));
  const struct {
    std::string line;  // without "[ABORT] @" in front
    std::function<void()> call;
  } rows[] = {
      {"ks_io_free() cannot free incorrect ks_io (nil): `io && (*(u_int32_t*) io == KS_IO_MAGIC)'",
       [] { ks_io_free(nullptr); }},
      {"ks_stop() cannot stop incorrect ks_handle (nil): "
       "`service_handle && (*(u_int32_t*) service_handle == KS_HANDLE_MAGIC)'",
       [] { ks_free(nullptr); }},
      {"ks_create() name cannot be NULL and maximum characters is 64: "
       "`name && strlen(name) <= MAXIMUM_NAME_SIZE'",
       [] { ks_create(std::string(65, 'n').c_str(), kThreads, 1, kExec); }},
      {"ks_start() cannot start service twice: `service_handle->worker == NULL'", [&] { start("s"); }},
      {"ks_stop() a worker cannot stop its own service: `!ks_is_consumer_of(service_handle)'",
       [&] {
         static ks_handle* service = nullptr;
         const std::string name = "@" + in_dir("own");
         service = ks_create(name.c_str(), kThreads, 1, [](const char*, ks_io*, int) { ks_stop(service); });
         ks_start(service);
         ks_ez_call(name.c_str(), "stop", nullptr, 0, nullptr, nullptr, 5, -1);
       }},
      {"ks_producer_worker_init() " + in_dir("file") + " is not a sock file: `S_ISSOCK(st.st_mode)'",
       [&] { start("file"); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    const ChildOutcome outcome = in_child(row.call);
    EXPECT_TRUE(WIFSIGNALED(outcome.status) && WTERMSIG(outcome.status) == SIGABRT) << outcome.status;
    EXPECT_EQ(outcome.error, "[ABORT] @" + row.line + "\n");
  }
}

}  // namespace
