// What a record in a message queue costs until the notification service has answered, beside the bare
// request.
//
// The stand-in for the notification service is a process of its own, forked before this one has threads; it
// reads what it is sent and answers. The relay is the daemon's: its listener, its callback, its queue.
// Everything that is timed happens on the listener's thread, whose callback here goes on with a bare request
// of the same body:
//
//     ... | receive, relay | bare request | post the next record | receive, relay | bare request | ...
//            this                base           not timed
//
// So the queue is never found empty, no thread is woken for its sake, and the two take turns.
//
//   relay/event, relay/log, relay/connection    one row for each kind of record, its texts filled to
//   `kTextLength`
//
// It uses the service name and the queues of a real daemon, so it belongs into the simulated appliance.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "bench/server_process.h"
#include "common/log.h"
#include "daemon/event_records.h"
#include "daemon/event_relay.h"
#include "daemon/msg_queue_listener.h"
#include "handlers/service_names.h"
#include "service/ks.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kTextLength = 40;
constexpr int kChain = 100;  // events of one iteration
constexpr int kRepetitions = 5;
constexpr std::uint32_t kTimeoutSeconds = 5;
constexpr std::uint64_t kServiceWorkers = 2;
constexpr char kShow[] = "show";

// ---- The notification service

std::atomic<std::size_t> last_size{0};
char last_body[4096];  // written by one worker at a time: there is one client, and it calls once at a time

void take_notification(const char* name, ks_io* io, int) {
  if (std::strcmp(name, kShow) == 0) {
    ks_io_write(io, last_body, last_size);
  } else {
    const ssize_t got = pread(ks_io_fd(io), last_body, sizeof(last_body), 0);
    last_size = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
  }
  ks_reply(io);
  ks_io_free(io);
}

void serve_notifications(int control) {
  ks_start(
      ks_create(kNotifyServiceName, KS_STANDALONE | KS_PTHREAD_MODE, kServiceWorkers, take_notification));
  if (write(control, "", 1) != 1) give_up("serve_notifications");
  while (true) pause();
}

// ---- What is relayed

template <std::size_t kSize>
void fill(char (&field)[kSize]) {
  std::memset(field, 'x', std::min(kTextLength, kSize - 1));
}

NotifyMessage event_message() {
  NotifyMessage message{.type = 1, .bus_type = 3, .bus_action = 4, .return_flag = 1, .extra_info = {}};
  fill(message.extra_info);
  return message;
}

LogMessage log_message(std::int64_t type) {
  LogMessage message{};
  message.type = type;
  const auto fill_record = [](auto& record) {
    record.time = 1700000000;
    fill(record.user);
    fill(record.source_ip);
    fill(record.source_name);
    fill(record.content);
  };
  fill_record(message.event);
  fill_record(message.connection);
  return message;
}

const NotifyMessage kEvent = event_message();
const LogMessage kLog = log_message(kEventLogType);
const LogMessage kConnection = log_message(kConnectionLogType);

struct Relay {
  std::uint32_t key;
  MsgQueueListener::Callback relay;
  const char* request;
  const void* message;
  std::size_t size;
};
constexpr Relay kEventRelay = {.key = kEventQueueKey,
                               .relay = notify_handler,
                               .request = "notify_event",
                               .message = &kEvent,
                               .size = kNotifyMessageSize};
constexpr Relay kLogRelay = {.key = kLogQueueKey,
                             .relay = eventlog_handler,
                             .request = "notify_log",
                             .message = &kLog,
                             .size = kLogMessageSize};
constexpr Relay kConnectionRelay = {.key = kLogQueueKey,
                                    .relay = eventlog_handler,
                                    .request = "notify_conn",
                                    .message = &kConnection,
                                    .size = kLogMessageSize};

// ---- The chain of events on the listener's thread

struct FreeIo {
  void operator()(ks_io* io) const { ks_io_free(io); }
};

void post(const Relay& relay) {
  if (msg_queue_send(relay.key, relay.message, relay.size) != 0) give_up("msg_queue_send");
}

void bare_request(const Relay& relay, const std::string& body) {
  const std::unique_ptr<ks_io, FreeIo> io(ks_io_create());
  ks_io_fwrite(body.data(), body.size(), io.get());
  if (ks_call(kNotifyServiceName, relay.request, io.get(), kTimeoutSeconds, -1) != KS_STATUS_OK) {
    give_up("bare request");
  }
}

// One benchmark's; the callback gets no argument of ours. The main thread touches it while no record is under
// way.
struct Chain {
  const Relay& relay;
  std::string body;
  int left;
  std::vector<double> base;
  std::vector<double> subject;
  Clock::time_point begin;  // of the receive that is under way; the first one of a chain has waited: no time
  std::atomic<bool> running;
};
Chain* chain = nullptr;

int relay_and_call(void* message) {
  chain->relay.relay(message);
  const Clock::time_point relayed = Clock::now();
  bare_request(chain->relay, chain->body);
  const Clock::time_point called = Clock::now();
  if (chain->begin != Clock::time_point{}) {
    chain->subject.push_back(std::chrono::duration<double>(relayed - chain->begin).count());
    chain->base.push_back(std::chrono::duration<double>(called - relayed).count());
  }
  if (chain->left-- > 0) {
    post(chain->relay);
    chain->begin = Clock::now();
  } else {
    chain->begin = {};
    chain->running = false;
    chain->running.notify_one();
  }
  return 0;
}

void run_chain(int events) {
  chain->left = events;
  chain->running = true;
  post(chain->relay);
  chain->running.wait(true);
}

// What the relay sends for its record, as the service saw it.
std::string relayed_body(const Relay& relay) {
  std::vector<char> block(sizeof(long) + relay.size + 1);
  std::memcpy(block.data(), relay.message, sizeof(long) + relay.size);
  relay.relay(block.data());
  void* body = nullptr;
  std::uint64_t size = 0;
  if (ks_ez_call(kNotifyServiceName, kShow, nullptr, 0, &body, &size, kTimeoutSeconds, -1) != KS_STATUS_OK) {
    give_up("show");
  }
  const std::string text(static_cast<const char*>(body), size);
  std::free(body);
  return text;
}

// The event relay writes a line for each record: the write is part of its cost, the sight of it is not.
class SilentStderr {
 public:
  SilentStderr() {
    const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null.get(), STDERR_FILENO);
  }
  SilentStderr(const SilentStderr&) = delete;
  SilentStderr& operator=(const SilentStderr&) = delete;
  ~SilentStderr() { dup2(kept_.get(), STDERR_FILENO); }

 private:
  Descriptor kept_{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
};

void relay_bench(benchmark::State& state, const Relay& relay) {
  const SilentStderr silent;
  Chain own{.relay = relay,
            .body = relayed_body(relay),
            .left = 0,
            .base = {},
            .subject = {},
            .begin = {},
            .running = false};
  chain = &own;
  MsgQueueListener listener(relay.key, relay_and_call, relay.size);
  listener.Start();
  for (auto _ : state) {
    const std::size_t before = own.subject.size();
    run_chain(kChain);
    double seconds = 0;
    for (std::size_t i = before; i < own.subject.size(); ++i) seconds += own.subject[i];
    state.SetIterationTime(seconds);
  }
  listener.Stop();
  report_ratio(state, own.base, own.subject);
  state.counters["body_bytes"] = static_cast<double>(own.body.size());
  state.SetItemsProcessed(static_cast<std::int64_t>(own.subject.size()));
}

void add(const char* name, const Relay& relay) {
  benchmark::RegisterBenchmark(name, [&relay](benchmark::State& state) { relay_bench(state, relay); })
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->Repetitions(kRepetitions);
}

// Publishing the name would take it from whoever serves it.
void refuse_beside_a_real_service() {
  const std::unique_ptr<ks_io, FreeIo> io(ks_io_create());
  if (ks_call(kNotifyServiceName, kShow, io.get(), kTimeoutSeconds, -1) == KS_STATUS_CONNECT) return;
  std::fprintf(stderr, "there is a notification service; run this in appliance/enter\n");
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  refuse_beside_a_real_service();
  const ServerProcess service(serve_notifications);
  char directory[] = "/tmp/relay_benchXXXXXX";
  if (mkdtemp(directory) == nullptr) give_up("mkdtemp");
  log_set_dir(directory);
  add("relay/event", kEventRelay);
  add("relay/log", kLogRelay);
  add("relay/connection", kConnectionRelay);
  benchmark::Initialize(&argc, argv);
  if (!benchmark::ReportUnrecognizedArguments(argc, argv)) benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  const bool failed = !std::filesystem::is_empty(directory);  // a request that fails is a line in the log
  std::filesystem::remove_all(directory);
  if (failed) std::fprintf(stderr, "requests failed: the figures are worth nothing\n");
  return failed ? 1 : 0;
}
