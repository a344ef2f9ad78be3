// peers ROLE DIRECTORY: a server with its socket in DIRECTORY, or a client that reads orders from standard input.
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

#include "common/service_names.h"
#include "service/ks.h"
#include "service/unique_io.h"

namespace {

constexpr std::uint64_t kWorkers = 2;  // as many as the daemon's main service has
constexpr std::uint32_t kTimeoutSeconds = 60;
constexpr char kProgram[] = "/sbin/share_guard";            // here, a program that exits at once
constexpr char kCommand[] = "system_call_share_guard_add";  // runs this program
constexpr char kCommandBody[] = R"({"share_name":"recordings"})";

struct FreeBuffer {
  void operator()(void* buffer) const { std::free(buffer); }
};

// ---- The echo by the framework

// One for each worker. They are made before the first call, because filling them takes 50 ms.
std::unique_ptr<char[]> g_buffers[kWorkers];
std::atomic<std::size_t> g_buffers_taken{0};

void echo(const char*, ks_io* io, int) {
  thread_local char* const buffer = g_buffers[g_buffers_taken++].get();
  const ssize_t got = pread(ks_io_fd(io), buffer, kLargestBody, 0);
  check(got >= 0, "echo reads");
  ks_io_realloc(io, 0);
  check(ks_io_write(io, buffer, static_cast<std::uint64_t>(got)) == got, "echo writes");
  ks_reply(io);
  ks_io_free(io);
}

void serve_echo(const std::string& directory) {
  for (auto& buffer : g_buffers) buffer = std::make_unique<char[]>(kLargestBody);
  ks_handle* const handle =
      ks_create(("@" + directory + "/echo").c_str(), KS_STANDALONE | KS_PTHREAD_MODE, kWorkers, echo);
  ks_worker_init(
      handle, [](void*) { ks_leave_unmapped(); }, nullptr);  // as the daemon does
  ks_start(handle);
  report_ready();
  while (true) pause();
}

// ---- The client

// If the service does not exist yet, waits for it.
std::size_t call_service(const std::string& service, const char* request, const std::string& body) {
  int status;
  UniqueIo io;
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
  const int status = ks_ez_call(service.c_str(), "echo", body.data(), body.size(), &reply, &size, kTimeoutSeconds, -1);
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

using Text = const std::string&;

struct Contender {
  const char* name;
  bool (*call)(Text dir, Text body);  // whether the reply was as expected
};
constexpr Contender kContenders[] = {
    {"floor", [](Text dir, Text body) { return call_floor(dir + "/floor", body) == body.size(); }},
    {"conversation", [](Text dir, Text body) { return call_conversation(dir + "/conversation", body) == body.size(); }},
    {"ks_call", [](Text dir, Text body) { return call_service("@" + dir + "/echo", "echo", body) == body.size(); }},
    {"ks_ez_call", [](Text dir, Text body) { return ez_call_service("@" + dir + "/echo", body) == body.size(); }},
    {"broker", [](Text dir, Text body) { return call_bus(connect_bus(dir + "/broker"), body) == body.size(); }},
    {"daemon", [](Text dir, Text body) { return call_bus(connect_bus(dir + "/daemon"), body) == body.size(); }},
    {"kept",
     [](Text dir, Text body) {
       static const Bus kept = connect_bus(dir + "/broker");
       return call_bus(kept, body) == body.size();
     }},
    {"test", [](Text, Text body) { return call_service(kMainServiceName, "test", body) > 0; }},
    {"command", [](Text, Text) { return call_service(kMainServiceName, kCommand, kCommandBody) > 0; }},
    {"fork", [](Text, Text) { return fork_and_exec(kProgram); }},
};

// Reads orders: a contender, the size of the body and the minimum duration in seconds. Answers each order with a line
// that contains the number of calls, followed by the seconds of each call as a double.
void run_client(const std::string& directory) {
  std::string body;
  std::vector<double> each;
  char name[32];
  std::size_t size;
  double seconds;
  report_ready();
  while (std::scanf("%31s %zu %lf", name, &size, &seconds) == 3) {
    const auto contender = std::find_if(std::begin(kContenders), std::end(kContenders),
                                        [&name](const Contender& one) { return std::strcmp(one.name, name) == 0; });
    check(contender != std::end(kContenders), name);
    body.resize(size, 'x');
    each.clear();
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    Clock::time_point begin;
    do {
      begin = Clock::now();
      check(contender->call(directory, body), name);
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
