// What a call of the framework costs, beside the least that it could cost.
//
// Times of a call say more about the machine than about the framework, and change from minute to minute.
// Every figure here is therefore a ratio: each iteration makes one call of either kind, right after one
// another, and the counters compare the medians and the totals of the two. Servers are processes of their
// own, forked before this one has threads.
//
//   call/BODY       an echo through the framework against the floor (bench/floor.h): in both the client fills
//                   the file and the server reads and rewrites it
//   untouched/BODY  a callback that looks at nothing, with a body prepared beforehand, against the same with
//   a
//                   body of one page: 1.0 when the framework itself touches no byte
//   waiting/COUNT   what clients in the queue of a busy service cost its process
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/floor.h"
#include "bench/ratio.h"
#include "bench/server_process.h"
#include "service/ks.h"

namespace {

constexpr std::size_t kPage = 4 << 10;
constexpr std::size_t kLargestBody = 64 << 20;
constexpr std::uint64_t kWorkers = 2;  // as many as the daemon's main service has
constexpr std::uint32_t kTimeoutSeconds = 30;
constexpr int kRepetitions = 5;
constexpr auto kQueueDeadline = std::chrono::seconds(10);
// A client holds a socket and a memory file for each call.
constexpr rlim_t kWantedDescriptors = 4096;

// The socket files; made before the servers fork, so that they all know them.
struct Places {
  Places() {
    char path[] = "/tmp/ks_benchXXXXXX";
    if (mkdtemp(path) == nullptr) give_up("mkdtemp");
    directory = path;
  }
  std::string floor() const { return directory + "/floor"; }
  std::string service(const char* name) const { return "@" + directory + "/" + name; }

  std::string directory;
};
const Places* places = nullptr;

// ---- Servers

// One for all workers, as the floor has one: the only client calls once at a time.
std::vector<char> buffer;

void echo(const char*, ks_io* io, int) {
  const ssize_t got = pread(ks_io_fd(io), buffer.data(), buffer.size(), 0);
  if (got < 0) give_up("echo reads");
  ks_io_realloc(io, 0);
  if (ks_io_write(io, buffer.data(), static_cast<std::uint64_t>(got)) != got) give_up("echo writes");
  ks_reply(io);
  ks_io_free(io);
}

void touch_nothing(const char*, ks_io* io, int) {
  ks_reply(io);
  ks_io_free(io);
}

// Keeps its worker until the client hangs up.
void hold(const char*, ks_io* io, int) {
  pollfd watched{.fd = io->sockfd, .events = POLLIN, .revents = 0};
  poll(&watched, 1, -1);
  ks_io_free(io);
}

void start(const char* name, std::uint64_t workers, ks_exec_fn exec) {
  ks_start(ks_create(places->service(name).c_str(), KS_STANDALONE | KS_PTHREAD_MODE, workers, exec));
}

void serve_calls(int control) {
  buffer.resize(kLargestBody);
  start("echo", kWorkers, echo);
  start("untouched", kWorkers, touch_nothing);
  if (write(control, "", 1) != 1) give_up("serve_calls");
  while (true) pause();
}

// Answers each byte on `control` with the number of bytes that are allocated in this process.
void serve_waiting(int control) {
  start("waiting", 1, hold);
  char byte = 0;
  if (write(control, &byte, 1) != 1) give_up("serve_waiting");
  while (read(control, &byte, 1) == 1) {
    const struct mallinfo2 info = mallinfo2();
    const std::size_t allocated = info.uordblks + info.hblkhd;
    if (write(control, &allocated, sizeof(allocated)) != sizeof(allocated)) break;
  }
}

struct Servers {
  ServerProcess floor{[](int control) { serve_floor(places->floor().c_str(), kLargestBody, control); }};
  ServerProcess calls{serve_calls};
  ServerProcess waiting{serve_waiting};
};
const Servers* servers = nullptr;

// ---- Clients

struct FreeRecord {
  void operator()(ks_io* io) const { ks_io_free(io); }
};
using Record = std::unique_ptr<ks_io, FreeRecord>;

struct FreePollSet {
  void operator()(ks_epoll* epoll) const { ks_epoll_free(epoll); }
};
using PollSet = std::unique_ptr<ks_epoll, FreePollSet>;

void call(const std::string& service, ks_io* io, std::size_t expected) {
  const int status = ks_call(service.c_str(), "echo", io, kTimeoutSeconds, -1);
  if (status == KS_STATUS_OK && io->shared_size == expected) return;
  std::fprintf(stderr, "%s: status %d, a reply of %zu bytes instead of %zu\n", service.c_str(), status,
               static_cast<std::size_t>(io->shared_size), expected);
  std::exit(1);
}

template <typename Action>
double seconds_for(Action&& action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Times `base` and `subject` in turns, as long as the benchmark runs, and sets its counters.
template <typename Base, typename Subject>
void compare(benchmark::State& state, Base&& base, Subject&& subject) {
  std::vector<double> bases;
  std::vector<double> subjects;
  for (auto _ : state) {
    bases.push_back(seconds_for(base));
    subjects.push_back(seconds_for(subject));
    state.SetIterationTime(subjects.back());
  }
  report_ratio(state, bases, subjects);
}

void full_call(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::vector<char> body(size, 'x');
  const std::string floor = places->floor();
  const std::string service = places->service("echo");
  compare(
      state,
      [&] {
        if (call_floor(floor.c_str(), body.data(), size) != size) give_up("floor replies");
      },
      [&] {
        const Record io(ks_io_create());
        if (size > 0) ks_io_write(io.get(), body.data(), size);
        call(service, io.get(), size);
      });
}
BENCHMARK(full_call)
    ->Name("call")
    ->Arg(0)
    ->Arg(kPage)
    ->Arg(1 << 20)
    ->Arg(kLargestBody)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(kRepetitions);

Record prepared(std::size_t size) {
  Record io(ks_io_create());
  const std::vector<char> body(size, 'x');
  if (ks_io_fwrite(body.data(), size, io.get()) != 0) give_up("prepare a body");
  return io;
}

void untouched_body(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::string service = places->service("untouched");
  const Record page = prepared(kPage);
  const Record whole = prepared(size);
  // A record that has its reply can be used for the next call; nobody changes the file.
  compare(
      state, [&] { call(service, page.get(), kPage); }, [&] { call(service, whole.get(), size); });
}
BENCHMARK(untouched_body)
    ->Name("untouched")
    ->Arg(1 << 20)
    ->Arg(kLargestBody)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(kRepetitions);

// ---- Waiting clients

// What a server process holds.
struct Holdings {
  double descriptors;
  double heap_bytes;
  double anonymous_kib;  // resident
};

double resident_anonymous_kib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  const std::string label = "RssAnon:";
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, label.size(), label) == 0) return std::stod(line.substr(label.size()));
  }
  give_up("RssAnon");
}

Holdings holdings(const ServerProcess& server) {
  std::size_t heap = 0;
  if (write(server.control(), "", 1) != 1 || read(server.control(), &heap, sizeof(heap)) != sizeof(heap)) {
    give_up("server does not say what it holds");
  }
  return {static_cast<double>(count_descriptors(server.pid())), static_cast<double>(heap),
          resident_anonymous_kib(server.pid())};
}

bool comes_to(const ServerProcess& server, long descriptors) {
  const auto deadline = std::chrono::steady_clock::now() + kQueueDeadline;
  while (count_descriptors(server.pid()) != descriptors) {
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

// Workers open their poll sets after their service accepts already: counts until nothing changes any more.
long settled_descriptors(pid_t pid) {
  constexpr auto kPause = std::chrono::milliseconds(20);
  long seen = -1;
  long now;
  while ((now = count_descriptors(pid)) != seen) {
    seen = now;
    std::this_thread::sleep_for(kPause);
  }
  return seen;
}

// Starts a call that is not going to be answered.
Record wait_in_queue(ks_epoll* epoll) {
  Record io(ks_io_create());
  if (ks_epoll_call(epoll, places->service("waiting").c_str(), "wait", io.get(), -1) != KS_STATUS_OK) {
    give_up("ks_epoll_call");
  }
  return io;
}

void waiting_clients(benchmark::State& state) {
  const ServerProcess& server = servers->waiting;
  const long count = state.range(0);
  for (auto _ : state) {
    const long idle = settled_descriptors(server.pid());
    const PollSet epoll(ks_epoll_create());
    const Record served(wait_in_queue(epoll.get()));
    // The only worker asks for the request, gets it and is busy: it holds the socket and the memory file.
    ks_epoll_perform(epoll.get(), kTimeoutSeconds * 1000, nullptr);
    if (!comes_to(server, idle + 2)) return state.SkipWithError("the worker did not take its client");
    const Holdings before = holdings(server);
    std::vector<Record> clients;
    for (long i = 0; i < count; ++i) clients.push_back(wait_in_queue(epoll.get()));
    if (!comes_to(server, idle + 2 + count)) return state.SkipWithError("not every client is in the queue");
    const Holdings after = holdings(server);
    for (const Record& client : clients) ks_epoll_cancel(epoll.get(), client.get());
    ks_epoll_cancel(epoll.get(), served.get());
    if (!comes_to(server, idle)) return state.SkipWithError("clients have gone, their descriptors have not");
    const auto each = [&](double Holdings::*what) { return (after.*what - before.*what) / double(count); };
    state.counters["descriptors_each"] = each(&Holdings::descriptors);
    state.counters["heap_bytes_each"] = each(&Holdings::heap_bytes);
    state.counters["anonymous_bytes_each"] = each(&Holdings::anonymous_kib) * 1024;
  }
}
BENCHMARK(waiting_clients)->Name("waiting")->Arg(900)->Iterations(1)->Unit(benchmark::kMillisecond);

void raise_descriptor_limit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(limit.rlim_max, kWantedDescriptors));
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  raise_descriptor_limit();
  const Places here;
  places = &here;
  {
    const Servers running;
    servers = &running;
    benchmark::Initialize(&argc, argv);
    if (!benchmark::ReportUnrecognizedArguments(argc, argv)) benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
  }
  std::filesystem::remove_all(here.directory);
}
