// What one call costs, beside the least that it could cost and beside the peer that one would otherwise pick.
// Prints a Markdown table, with a row for each of
//
//   floor        a bare connection that passes a memory file (bench/floor.h)
//   ks_call      ks_call of an echo service with two workers
//   test         ks_call of the daemon's `test`, which answers a fixed text of 63 bytes and reads no body: what
//                a request costs in the daemon before its command does anything
//   D-Bus new    an echo by sd-bus through a dbus-daemon, with a connection made for each call
//   D-Bus kept   the same over one connection of each client
//
// and each size of body and number of clients. The clients are processes, forked before there are threads.
// Times change with the machine from minute to minute: the rows of one size and number take turns in short
// slices, so that whatever disturbs one of them disturbs them all, and what is worth reading is the ratios.
//
// It calls a running daemon, so it belongs into the simulated appliance; bench/run brings it there.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/child_process.h"
#include "bench/dbus_peer.h"
#include "bench/floor.h"
#include "bench/samples.h"
#include "handlers/service_names.h"
#include "service/ks.h"

namespace {

constexpr std::size_t kKiB = 1 << 10;
constexpr std::size_t kMiB = 1 << 20;
constexpr std::size_t kBodies[] = {0, 200, 4 * kKiB, 64 * kKiB, kMiB, 16 * kMiB, 64 * kMiB};
constexpr std::size_t kLargestBody = 64 * kMiB;
constexpr std::size_t kClientCounts[] = {1, 8};
constexpr std::size_t kMostClients = 8;
constexpr std::uint64_t kWorkers = 2;  // as many as the daemon's main service has

constexpr double kSliceSeconds = 0.1;
constexpr int kSlices = 6;
constexpr double kMostSeconds = 1.5;  // of one row: what makes a call of a second does not get every slice
constexpr std::size_t kMostCalls = 1 << 16;  // of one slice

// Where the sockets are; made before anything forks.
std::string directory;
// What every client sends; shared by all of them, as nobody writes to it.
std::vector<char> body;

std::string floor_path() {
  return directory + "/floor";
}
std::string echo_service() {
  return "@" + directory + "/echo";
}

// ---- What is compared. Each makes one call with a body of `size` bytes and checks the reply's length.

void expect(bool as_expected, const char* contender) {
  if (as_expected) return;
  std::fprintf(stderr, "%s: wrong reply\n", contender);
  std::exit(1);
}

void floor_call(std::size_t size) {
  static const std::string path = floor_path();
  expect(call_floor(path.c_str(), body.data(), size) == size, "floor");
}

void framework_call(std::size_t size) {
  static const std::string service = echo_service();
  expect(call_service(service, "echo", body.data(), size) == static_cast<std::int64_t>(size), "ks_call");
}

void test_command(std::size_t size) {
  expect(call_service(kMainServiceName, "test", body.data(), size) > 0, "test");
}

void dbus_new(std::size_t size) {
  static const std::string address = dbus_address(directory);
  expect(DbusConnection(address).call(body.data(), size) == size, "D-Bus new");
}

void dbus_kept(std::size_t size) {
  static DbusConnection connection(dbus_address(directory));
  expect(connection.call(body.data(), size) == size, "D-Bus kept");
}

struct Contender {
  const char* name;
  void (*call)(std::size_t size);
};
constexpr std::array kContenders = {
    Contender{"floor", floor_call},   Contender{"ks_call", framework_call}, Contender{"test", test_command},
    Contender{"D-Bus new", dbus_new}, Contender{"D-Bus kept", dbus_kept},
};
constexpr std::size_t kFloor = 0;
constexpr std::size_t kFramework = 1;
constexpr std::size_t kDbusNew = 3;
constexpr std::size_t kDbusKept = 4;

// ---- Servers

void echo(const char*, ks_io* io, int) {
  thread_local std::vector<char> buffer(kLargestBody);
  const ssize_t got = pread(ks_io_fd(io), buffer.data(), buffer.size(), 0);
  if (got < 0) give_up("echo reads");
  ks_io_realloc(io, 0);
  if (ks_io_write(io, buffer.data(), static_cast<std::uint64_t>(got)) != got) give_up("echo writes");
  ks_reply(io);
  ks_io_free(io);
}

void serve_echo(int control) {
  ks_start(ks_create(echo_service().c_str(), KS_STANDALONE | KS_PTHREAD_MODE, kWorkers, echo));
  if (write(control, "", 1) != 1) give_up("serve_echo");
  while (true) pause();
}

struct Servers {
  Program bus{{"dbus-daemon", "--nofork", "--config-file=" + dbus_configuration(directory)}};
  Program daemon{{"vistalprod"}};
  ChildProcess floor{[](int control) { serve_floor(floor_path().c_str(), kLargestBody, control); }};
  ChildProcess calls{serve_echo};
  ChildProcess dbus{[](int control) { serve_dbus(dbus_address(directory), control); }};
};

// ---- Clients

// What a client is told to do, and what it has seen of it; the latter in memory shared with the parent.
struct Order {
  std::size_t contender;
  std::size_t size;
};
struct Account {
  std::size_t calls;
  double seconds;  // of the whole slice
  float each[kMostCalls];
};

void obey(const Order& order, Account& account) {
  const Contender& contender = kContenders[order.contender];
  // The first call after a pause finds cold caches and sleeping servers. A large body drowns that.
  if (order.size < kMiB) contender.call(order.size);
  account.calls = 0;
  account.seconds = 0;
  const auto begin = std::chrono::steady_clock::now();
  do {
    account.each[account.calls++] = static_cast<float>(seconds_for([&] { contender.call(order.size); }));
    account.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  } while (account.seconds < kSliceSeconds && account.calls < kMostCalls);
}

void run_client(int control, Account& account) {
  if (write(control, "", 1) != 1) give_up("run_client");
  Order order;
  while (read(control, &order, sizeof(order)) == sizeof(order)) {
    obey(order, account);
    if (write(control, "", 1) != 1) give_up("client reports");
  }
}

class Clients {
 public:
  Clients() : accounts_(static_cast<Account*>(shared_memory(kMostClients * sizeof(Account)))) {
    for (std::size_t i = 0; i < kMostClients; ++i) {
      Account& account = accounts_[i];
      processes_.emplace_back([&account](int control) { run_client(control, account); });
    }
  }

  // One slice of the first `count` clients at once.
  void run(const Order& order, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      if (write(processes_[i].control(), &order, sizeof(order)) != sizeof(order)) give_up("order a client");
    }
    char done;
    for (std::size_t i = 0; i < count; ++i) {
      if (read(processes_[i].control(), &done, 1) != 1) give_up("a client");
    }
  }
  const Account& account(std::size_t client) const { return accounts_[client]; }

 private:
  Account* accounts_;
  std::deque<ChildProcess> processes_;
};

// ---- The table

// One row.
struct Result {
  std::vector<double> each;
  double rate = 0;     // calls a second of all clients together, summed over the slices
  double seconds = 0;  // that its slices have taken
  int slices = 0;
};

void take_slice(Clients& clients, const Order& order, std::size_t count, Result* result) {
  if (result->seconds > kMostSeconds) return;
  clients.run(order, count);
  double longest = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const Account& account = clients.account(i);
    result->each.insert(result->each.end(), account.each, account.each + account.calls);
    result->rate += static_cast<double>(account.calls) / account.seconds;
    longest = std::max(longest, account.seconds);
  }
  result->seconds += longest;
  ++result->slices;
}

std::string size_text(std::size_t size) {
  if (size >= kMiB) return std::to_string(size / kMiB) + " MiB";
  if (size >= kKiB) return std::to_string(size / kKiB) + " KiB";
  return std::to_string(size) + " B";
}

void print_row(std::size_t size, std::size_t count, std::size_t contender,
               const std::array<Result, kContenders.size()>& results) {
  const Result& result = results[contender];
  const double own = median(result.each);
  const double rate = result.rate / result.slices;
  std::printf("| %s | %zu | %s | %zu | %.1f | %.1f | ", size_text(size).c_str(), count,
              kContenders[contender].name, result.each.size(), own / kMicro,
              quantile(result.each, 0.99) / kMicro);
  if (size >= kMiB) {
    std::printf("%.0f MB |", rate * static_cast<double>(size) / 1e6);
  } else {
    std::printf("%.0f |", rate);
  }
  for (const std::size_t other : {kFloor, kDbusNew, kDbusKept}) {
    if (other == contender) {
      std::printf(" |");
    } else {
      std::printf(" %.2f |", own / median(results[other].each));
    }
  }
  std::printf("\n");
}

// ---- What `ks_call` is to keep to, and the row that comes nearest to it or misses it most

using Results = std::array<Result, kContenders.size()>;

struct Target {
  const char* text;
  double limit;
  std::size_t least, most;  // body sizes
  std::size_t clients;      // 0: any number
  double (*value)(const Results& results);
  double worst = 0;
  std::string where;
};

template <std::size_t kOther>
double against(const Results& results) {
  return median(results[kFramework].each) / median(results[kOther].each);
}

double spread(const Results& results) {
  return quantile(results[kFramework].each, 0.99) / median(results[kFramework].each);
}

std::vector<Target> targets = {
    {"÷ floor, up to 64 KiB", 2.0, 0, 64 * kKiB, 0, against<kFloor>, 0, {}},
    {"÷ floor, from 1 MiB", 1.2, kMiB, kLargestBody, 0, against<kFloor>, 0, {}},
    {"÷ D-Bus new", 1.0, 0, kLargestBody, 0, against<kDbusNew>, 0, {}},
    {"÷ D-Bus kept, from 64 KiB", 1.0, 64 * kKiB, kLargestBody, 0, against<kDbusKept>, 0, {}},
    {"99 % ÷ median, 8 clients", 5.0, 0, kLargestBody, 8, spread, 0, {}},
};

void hold_against_targets(std::size_t size, std::size_t count, const Results& results) {
  for (Target& target : targets) {
    if (size < target.least || size > target.most || (target.clients != 0 && target.clients != count))
      continue;
    const double value = target.value(results);
    if (value <= target.worst) continue;
    target.worst = value;
    target.where = size_text(size) + ", " + std::to_string(count) + (count == 1 ? " client" : " clients");
  }
}

void print_targets() {
  std::printf("\n| target for `ks_call` | at most | worst | in the row | |\n|---|--:|--:|---|---|\n");
  for (const Target& target : targets) {
    std::printf("| %s | %.1f | %.2f | %s | %s |\n", target.text, target.limit, target.worst,
                target.where.c_str(), target.worst <= target.limit ? "met" : "missed");
  }
}

void compare(Clients& clients, std::size_t size, std::size_t count) {
  Results results;
  for (int slice = 0; slice < kSlices; ++slice) {
    for (std::size_t i = 0; i < results.size(); ++i) take_slice(clients, {i, size}, count, &results[i]);
  }
  for (std::size_t i = 0; i < results.size(); ++i) print_row(size, count, i, results);
  hold_against_targets(size, count, results);
  std::fflush(stdout);
}

void await_daemon() {
  while (call_service(kMainServiceName, "test", nullptr, 0) < 0) {
  }
}

}  // namespace

int main() {
  char path[] = "/tmp/calls_benchXXXXXX";
  if (mkdtemp(path) == nullptr) give_up("mkdtemp");
  directory = path;
  body.assign(kLargestBody, 'x');
  {
    const Servers servers;
    await_daemon();
    Clients clients;
    std::printf(
        "| body | clients | call | calls timed | median µs | 99 %% µs | per second | ÷ floor | ÷ D-Bus new | "
        "÷ D-Bus kept |\n|--:|--:|---|--:|--:|--:|--:|--:|--:|--:|\n");
    for (const std::size_t size : kBodies) {
      for (const std::size_t count : kClientCounts) compare(clients, size, count);
    }
    print_targets();
  }
  std::filesystem::remove_all(directory);
}
