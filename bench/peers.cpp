// peers ROLE DIRECTORY: a server whose socket is in DIRECTORY, or a client that is told by standard input what to call.
#include "bench/peers.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include "daemon/event_records.h"
#include "daemon/msg_queue_listener.h"
#include "handlers/service_names.h"
#include "service/ks.h"

namespace {

constexpr std::uint64_t kWorkers = 2;  // as many as the daemon's main service has
constexpr std::uint32_t kTimeoutSeconds = 60;
constexpr char kProgram[] = "/sbin/share_guard";            // bench.py has put one there that exits at once
constexpr char kCommand[] = "system_call_share_guard_add";  // which runs that program
constexpr char kCommandBody[] = R"({"share_name":"recordings"})";

struct FreeIo {
  void operator()(ks_io* io) const { ks_io_free(io); }
};
struct FreeBuffer {
  void operator()(void* buffer) const { std::free(buffer); }
};

// ---- The echo by the framework

void echo(const char*, ks_io* io, int) {
  thread_local const auto buffer = std::make_unique<char[]>(kLargestBody);
  const ssize_t got = pread(ks_io_fd(io), buffer.get(), kLargestBody, 0);
  check(got >= 0, "echo reads");
  ks_io_realloc(io, 0);
  check(ks_io_write(io, buffer.get(), static_cast<std::uint64_t>(got)) == got, "echo writes");
  ks_reply(io);
  ks_io_free(io);
}

void serve_echo(const std::string& directory) {
  ks_start(ks_create(("@" + directory + "/echo").c_str(), KS_STANDALONE | KS_PTHREAD_MODE, kWorkers, echo));
  report_ready();
  while (true) pause();
}

// ---- The client

struct Client {
  std::string directory;
  std::string body;
  Bus kept;

  std::string path(const char* name) const { return directory + "/" + name; }
  const Bus& kept_bus() {
    if (!kept) kept = connect_bus(path("broker"));
    return kept;
  }
};

// Waits for a service that is not there yet.
std::size_t call_service(const std::string& service, const char* request, const std::string& body) {
  int status;
  std::unique_ptr<ks_io, FreeIo> io;
  do {
    io.reset(ks_io_create());
    if (!body.empty()) check(ks_io_fwrite(body.data(), body.size(), io.get()) == 0, "write a body");
    status = ks_call(service.c_str(), request, io.get(), kTimeoutSeconds, -1);
  } while (status == KS_STATUS_CONNECT && usleep(100) == 0);
  check(status == KS_STATUS_OK, request);
  return io->shared_size;
}

std::size_t ez_call_service(const std::string& service, const std::string& body) {
  void* reply = nullptr;
  std::uint64_t size = 0;
  const int status =
      ks_ez_call(service.c_str(), "echo", body.data(), body.size(), &reply, &size, kTimeoutSeconds, -1);
  const std::unique_ptr<void, FreeBuffer> owner(reply);
  check(status == KS_STATUS_OK, "ks_ez_call");
  return size;
}

bool fork_and_exec(const char* program) {
  const pid_t pid = fork();
  check(pid >= 0, "fork");
  if (pid == 0) {
    execl(program, program, nullptr);
    _exit(127);
  }
  int status = -1;
  return waitpid(pid, &status, 0) == pid && status == 0;
}

std::atomic<std::uint32_t> notified = 0;

void take_notification(const char*, ks_io* io, int) {
  ks_reply(io);
  ks_io_free(io);
  ++notified;
  notified.notify_all();
}

// Posts an event and waits until the daemon has relayed it to this process, which serves the notifications.
bool relay_event() {
  static ks_handle* service = nullptr;
  if (service == nullptr) {
    service = ks_create(kNotifyServiceName, KS_STANDALONE | KS_PTHREAD_MODE, kWorkers, take_notification);
    ks_start(service);
  }
  NotifyMessage message{.type = 1, .bus_type = 3, .bus_action = 4, .return_flag = 1, .extra_info = {}};
  const std::uint32_t before = notified;
  if (msg_queue_send(kEventQueueKey, &message, kNotifyMessageSize) != 0) return false;
  notified.wait(before);
  return true;
}

struct Contender {
  const char* name;
  bool (*call)(Client& client);  // whether the reply was as expected
};
constexpr Contender kContenders[] = {
    {"floor", [](Client& c) { return call_floor(c.path("floor"), c.body) == c.body.size(); }},
    {"conversation",
     [](Client& c) { return call_conversation(c.path("conversation"), c.body) == c.body.size(); }},
    {"ks_call",
     [](Client& c) { return call_service("@" + c.path("echo"), "echo", c.body) == c.body.size(); }},
    {"ks_ez_call", [](Client& c) { return ez_call_service("@" + c.path("echo"), c.body) == c.body.size(); }},
    {"broker", [](Client& c) { return call_bus(connect_bus(c.path("broker")), c.body) == c.body.size(); }},
    {"daemon", [](Client& c) { return call_bus(connect_bus(c.path("daemon")), c.body) == c.body.size(); }},
    {"kept", [](Client& c) { return call_bus(c.kept_bus(), c.body) == c.body.size(); }},
    {"test", [](Client& c) { return call_service(kMainServiceName, "test", c.body) > 0; }},
    {"command", [](Client&) { return call_service(kMainServiceName, kCommand, kCommandBody) > 0; }},
    {"fork", [](Client&) { return fork_and_exec(kProgram); }},
    {"relay", [](Client&) { return relay_event(); }},
};

// Takes orders of a contender, a body's size and the least number of seconds to go on, and answers with a line that has
// the number of calls and the seconds of each as so many doubles.
void run_client(const std::string& directory) {
  Client client{.directory = directory, .body = {}, .kept = {}};
  std::vector<double> each;
  char name[32];
  std::size_t size;
  double seconds;
  report_ready();
  while (std::scanf("%31s %zu %lf", name, &size, &seconds) == 3) {
    const auto contender =
        std::find_if(std::begin(kContenders), std::end(kContenders),
                     [&name](const Contender& one) { return std::strcmp(one.name, name) == 0; });
    check(contender != std::end(kContenders), name);
    client.body.resize(size, 'x');
    each.clear();
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    Clock::time_point begin;
    do {
      begin = Clock::now();
      check(contender->call(client), name);
      each.push_back(std::chrono::duration<double>(Clock::now() - begin).count());
    } while (Clock::now() < end);
    std::printf("%zu\n", each.size());
    std::fwrite(each.data(), sizeof(double), each.size(), stdout);
    std::fflush(stdout);
  }
}

struct Role {
  const char* name;
  void (*run)(const std::string& directory);
};
constexpr Role kRoles[] = {
    {"floor", [](const std::string& directory) { serve_floor(directory + "/floor"); }},
    {"conversation", [](const std::string& directory) { serve_conversation(directory + "/conversation"); }},
    {"echo", serve_echo},
    {"broker", [](const std::string& directory) { run_broker(directory + "/broker"); }},
    {"on_broker", [](const std::string& directory) { serve_bus(directory + "/broker"); }},
    {"on_daemon", [](const std::string& directory) { serve_bus(directory + "/daemon"); }},
    {"client", run_client},
};

}  // namespace

void check(bool succeeded, const char* operation) {
  if (succeeded) return;
  std::perror(operation);
  std::exit(1);
}

void report_ready() {
  std::puts("ready");
  std::fflush(stdout);
}

int main(int argc, char** argv) {
  for (const Role& role : kRoles) {
    if (argc == 3 && std::strcmp(argv[1], role.name) == 0) role.run(argv[2]);
  }
  return 2;
}
