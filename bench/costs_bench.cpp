// What the daemon costs around a call: starting programs, logging, relaying events, starting up, holding memory,
// keeping clients waiting. Prints a Markdown table of one figure a row; where there is something to hold a figure
// against, the two were taken in turns.
//
// It starts the daemon, serves the notification service's name and replaces a platform program, so it belongs into the
// simulated appliance; bench/run brings it there. The argument is the program to put in that place: one that exits at
// once.
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/child_process.h"
#include "bench/samples.h"
#include "common/log.h"
#include "common/process.h"
#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "handlers/service_names.h"
#include "service/ks.h"

namespace {

constexpr char kShareGuard[] = "/sbin/share_guard";
constexpr char kShareRequest[] = R"({"share_name":"recordings"})";
constexpr char kRow[] = "| %s | %.2f | %s | %s |\n";

void print_row(const char* what, double figure, const char* unit, const std::string& against = "") {
  std::printf(kRow, what, figure, unit, against.c_str());
  std::fflush(stdout);
}

std::string ratio_text(const char* base, double base_us, double ratio) {
  char text[128];
  std::snprintf(text, sizeof(text), "%s %.1f µs: ratio %.2f", base, base_us, ratio);
  return text;
}

// ---- Starting programs

void plain_fork_and_exec() {
  const pid_t pid = fork();
  if (pid < 0) give_up("fork");
  if (pid == 0) {
    char* const arguments[] = {const_cast<char*>(kShareGuard), nullptr};
    execve(kShareGuard, arguments, nullptr);
    _exit(127);
  }
  int status = -1;
  if (waitpid(pid, &status, 0) != pid || status != 0) give_up("plain fork and exec");
}

void by_process_runner() {
  if (exec_cmd_args(nullptr, nullptr, nullptr, kShareGuard, nullptr) != 0) give_up("exec_cmd");
}

void share_guard_command() {
  call_service(kMainServiceName, "system_call_share_guard_add", kShareRequest, sizeof(kShareRequest) - 1);
}

// `subject` against a plain fork and exec. They take turns at being first: on a busy machine the second one has less
// left of the time slice.
void compare_start(const char* what, void (*subject)(), int rounds) {
  std::vector<double> base;
  std::vector<double> own;
  for (int i = 0; i < rounds; ++i) {
    if (i % 2 == 0) base.push_back(seconds_for(plain_fork_and_exec));
    own.push_back(seconds_for(subject));
    if (i % 2 != 0) base.push_back(seconds_for(plain_fork_and_exec));
  }
  print_row(what, median(own) / kMicro, "µs",
            ratio_text("plain fork and exec", median(base) / kMicro, median(own) / median(base)));
}

// In a child: this process stays small.
void start_from_a_large_process() {
  const ChildProcess large([](int control) {
    constexpr std::size_t kLarge = 400 << 20;
    const std::vector<char> memory(kLarge, 'x');
    if (write(control, "", 1) != 1) return;
    compare_start("program start (`exec_cmd`), from a process of 400 MiB", by_process_runner, 30);
    if (write(control, "", 1) != 1) return;
    pause();
  });
  char done;
  if (read(large.control(), &done, 1) != 1) give_up("the large process");
}

void measure_starts() {
  compare_start("command `system_call_share_guard_add`, whole call", share_guard_command, 500);
  compare_start("program start (`exec_cmd`)", by_process_runner, 500);
  start_from_a_large_process();
}

// ---- Log

void measure_log(const std::string& directory) {
  constexpr int kThreads = 8;
  constexpr int kLines = 4000;
  const ChildProcess logger([&directory](int control) {
    log_set_dir(directory.c_str());
    if (write(control, "", 1) != 1) return;
    const double seconds = seconds_for([] {
      std::vector<std::jthread> threads;
      for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
          for (int line = 0; line < kLines; ++line)
            LOG_AT("measure_log", "a line of the usual length: %d", line);
        });
      }
    });
    print_row("log lines from 8 threads (rotation included)", kThreads * kLines / seconds, "per second");
    if (write(control, "", 1) != 1) return;
    pause();
  });
  char done;
  if (read(logger.control(), &done, 1) != 1) give_up("the logging process");
}

// ---- Relay

// Shared with the notification service's process.
struct Notifications {
  std::atomic<std::uint64_t> count;
  std::atomic<std::uint64_t> last_size;
};
Notifications* notifications = nullptr;

void take_notification(const char*, ks_io* io, int) {
  char body[4096];
  const ssize_t got = pread(ks_io_fd(io), body, sizeof(body), 0);
  notifications->last_size = static_cast<std::uint64_t>(std::max<ssize_t>(got, 0));
  ks_reply(io);
  ks_io_free(io);
  ++notifications->count;
}

void serve_notifications(int control) {
  ks_start(ks_create(kNotifyServiceName, KS_STANDALONE | KS_PTHREAD_MODE, 2, take_notification));
  if (write(control, "", 1) != 1) give_up("serve_notifications");
  while (true) pause();
}

void post(const NotifyMessage& message) {
  constexpr int kQueueFull = 102;
  int result;
  while ((result = msg_queue_send(kEventQueueKey, &message, kNotifyMessageSize)) == kQueueFull) usleep(200);
  if (result != 0) give_up("msg_queue_send");
}

void measure_relay() {
  constexpr int kRounds = 20;
  constexpr std::uint64_t kEvents = 250;  // of a round
  notifications = static_cast<Notifications*>(shared_memory(sizeof(Notifications)));
  const ChildProcess service(serve_notifications);
  NotifyMessage message{.type = 1, .bus_type = 3, .bus_action = 4, .return_flag = 1, .extra_info = {}};
  std::memset(message.extra_info, 'x', 40);
  std::vector<double> relayed;
  std::vector<double> called;
  for (int round = 0; round < kRounds; ++round) {
    const std::uint64_t before = notifications->count;
    relayed.push_back(seconds_for([&] {
      for (std::uint64_t i = 0; i < kEvents; ++i) post(message);
      while (notifications->count < before + kEvents) usleep(200);
    }));
    const std::string body(notifications->last_size, 'x');
    called.push_back(seconds_for([&] {
      for (std::uint64_t i = 0; i < kEvents; ++i) {
        call_service(kNotifyServiceName, "notify_event", body.data(), body.size());
      }
    }));
  }
  print_row("relayed events, from posting to the answer", kEvents / median(relayed), "per second",
            ratio_text("bare call of the same body", median(called) / kEvents / kMicro,
                       median(relayed) / median(called)));
}

// ---- The daemon's life

bool answers() {
  return call_service(kMainServiceName, "test", nullptr, 0) > 0;
}

void measure_start_up() {
  std::vector<double> seconds;
  for (int i = 0; i < 20; ++i) {
    std::unique_ptr<Program> daemon;
    seconds.push_back(seconds_for([&daemon] {
      daemon = std::make_unique<Program>(std::vector<std::string>{"vistalprod"});
      while (!answers()) usleep(100);
    }));
  }
  print_row("start of the daemon to its first answer", median(seconds) * 1e3, "ms");
}

void measure_memory(const Program& daemon) {
  constexpr int kRequests = 100000;
  constexpr int kClients = 4;
  const double idle = status_kib(daemon.pid(), "VmRSS:");
  print_row("resident size, idle", idle, "KiB",
            "anonymous: " + std::to_string(std::lround(status_kib(daemon.pid(), "RssAnon:"))) + " KiB");
  std::vector<std::unique_ptr<ChildProcess>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<ChildProcess>([](int control) {
      if (write(control, "", 1) != 1) return;
      const std::string body(200, 'x');
      for (int call = 0; call < kRequests / kClients; ++call) {
        call_service(kMainServiceName, "test", body.data(), body.size());
      }
      if (write(control, "", 1) != 1) return;
      pause();
    }));
  }
  char done;
  for (const auto& client : clients) {
    if (read(client->control(), &done, 1) != 1) give_up("a client");
  }
  const double after = status_kib(daemon.pid(), "VmRSS:");
  char growth[64];
  std::snprintf(growth, sizeof(growth), "grown by %.0f KiB", after - idle);
  print_row("resident size, after 100,000 requests", after, "KiB", growth);
}

// ---- Waiting clients

// Answers at once, except for "hold": that keeps the only worker until its client hangs up.
void answer_or_hold(const char* name, ks_io* io, int) {
  if (std::strcmp(name, "hold") == 0) {
    pollfd watched{.fd = io->sockfd, .events = POLLIN, .revents = 0};
    poll(&watched, 1, -1);
  } else {
    ks_reply(io);
  }
  ks_io_free(io);
}

struct FreeRecord {
  void operator()(ks_io* io) const { ks_io_free(io); }
};
using Record = std::unique_ptr<ks_io, FreeRecord>;

struct FreePollSet {
  void operator()(ks_epoll* epoll) const { ks_epoll_free(epoll); }
};

Record start_call(ks_epoll* epoll, const std::string& service, const char* request) {
  Record io(ks_io_create());
  if (ks_epoll_call(epoll, service.c_str(), request, io.get(), -1) != KS_STATUS_OK) give_up("ks_epoll_call");
  return io;
}

// Until the request of some record has finished.
void await_reply(ks_epoll* epoll) {
  constexpr std::uint32_t kTimeoutMs = 30000;
  int status = KS_STATUS_OK;
  const ks_io* finished;
  while ((finished = ks_epoll_perform(epoll, kTimeoutMs, &status)) == nullptr && status == KS_STATUS_OK) {
  }
  if (finished == nullptr || status != KS_STATUS_OK) give_up("a waiting client");
}

// What this process and the server have computed so far. Other than the time that has passed, it is not changed by
// what else the machine does, and the longer a measurement takes, the more that is.
double cpu_seconds(const ChildProcess& server) {
  double sum = 0;
  clockid_t servers_clock;
  if (clock_getcpuclockid(server.pid(), &servers_clock) != 0) give_up("clock_getcpuclockid");
  for (const clockid_t clock : {CLOCK_PROCESS_CPUTIME_ID, servers_clock}) {
    timespec used{};
    clock_gettime(clock, &used);
    sum += static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
  }
  return sum;
}

// Processor seconds, of both sides, for each of `count` clients that come while the only worker is busy and are
// served when it is free.
double cost_with_waiting(const ChildProcess& server, const std::string& service, long count,
                         double* held_kib) {
  const std::unique_ptr<ks_epoll, FreePollSet> epoll(ks_epoll_create());
  const Record holder = start_call(epoll.get(), service, "hold");
  if (ks_epoll_perform(epoll.get(), 10000, nullptr) != nullptr) give_up("the holder");
  const double before = status_kib(server.pid(), "VmRSS:");
  std::vector<Record> clients;
  const double begin = cpu_seconds(server);
  for (long i = 0; i < count; ++i) clients.push_back(start_call(epoll.get(), service, "answer"));
  const double queued = cpu_seconds(server);
  *held_kib = status_kib(server.pid(), "VmRSS:") - before;
  const double serving = cpu_seconds(server);
  ks_epoll_cancel(epoll.get(), holder.get());
  for (long i = 0; i < count; ++i) await_reply(epoll.get());
  return (queued - begin + cpu_seconds(server) - serving) / static_cast<double>(count);
}

// On one core the work shows alone. Free to choose, the scheduler keeps both sides on one core in a short round and
// parts them in a long one, and a wake-up that crosses to another core costs as much as the call.
void stay_on_this_core() {
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(sched_getcpu(), &here);
  sched_setaffinity(0, sizeof(here), &here);
}

// The last measurement: what follows would stay on this core, too.
void measure_waiting(const std::string& directory) {
  stay_on_this_core();
  const std::string service = "@" + directory + "/waiting";
  const ChildProcess server([&service](int control) {
    ks_start(ks_create(service.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, answer_or_hold));
    if (write(control, "", 1) != 1) give_up("serve_waiting");
    while (true) pause();
  });
  double most_held = 0;
  for (const long count : {1L, 10L, 100L, 1000L}) {
    std::vector<double> each;
    for (long round = 0; round < std::clamp(3000 / count, 9L, 300L); ++round) {
      double held = 0;
      each.push_back(cost_with_waiting(server, service, count, &held));
      most_held = std::max(most_held, held);
    }
    char what[80];
    std::snprintf(what, sizeof(what), "a call, %ld in the queue, both sides on one core", count);
    print_row(what, median(each) / kMicro, "µs of processor");
  }
  print_row("1000 waiting clients add to the service's resident size", most_held, "KiB",
            "and a descriptor each");
}

void raise_descriptor_limit_for_clients() {
  constexpr rlim_t kWanted = 4096;  // a waiting client holds a socket and a memory file
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(limit.rlim_max, kWanted));
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: costs_bench PROGRAM (which exits at once)\n");
    return 2;
  }
  raise_descriptor_limit_for_clients();
  namespace fs = std::filesystem;
  fs::copy_file(argv[1], kShareGuard, fs::copy_options::overwrite_existing);
  char directory[] = "/tmp/costs_benchXXXXXX";
  if (mkdtemp(directory) == nullptr) give_up("mkdtemp");
  std::printf("| what | figure | unit | against |\n|---|--:|---|---|\n");
  std::fflush(stdout);
  measure_start_up();
  {
    const Program daemon({"vistalprod"});
    while (!answers()) usleep(100);
    measure_memory(daemon);
    measure_starts();
    measure_relay();
  }
  measure_log(directory);
  measure_waiting(directory);
  fs::remove_all(directory);
}
