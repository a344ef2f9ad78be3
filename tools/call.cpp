// `ksctl call`: sends one request and prints the reply. It drives the conversation step by step, so that it can report
// how far a request without a reply got. A service asks for the request when a worker is free; only a request sent
// after that can have been carried out.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>

#include "common/write_all.h"
#include "service/ks.h"
#include "tools/cli.h"
#include "tools/json_text.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDescriptors = 3;  // memory file, socket, poll set

// A longer reply is passed on without parsing it.
constexpr std::uint64_t kLongestJudged = 64 << 20;

struct IoRelease {
  void operator()(ks_io* io) const { ks_io_free(io); }
};
using Io = std::unique_ptr<ks_io, IoRelease>;

struct PollSetRelease {
  void operator()(ks_epoll* set) const { ks_epoll_free(set); }
};
using PollSet = std::unique_ptr<ks_epoll, PollSetRelease>;

struct Call {
  Service service;
  const char* request = nullptr;
  const char* body = nullptr;  // null: none; "-": standard input
  unsigned seconds = kDefaultSeconds;
  int extra_fd = -1;
  bool fail = false;
  bool raw = false;
  bool verbose = false;
};

struct Outcome {
  int status = KS_STATUS_OK;
  int connect_error = 0;  // errno
  bool sent = false;      // the service has asked for the request and got it
};

// Prints the steps of a conversation on standard error, with the time since the first step.
class Trace {
 public:
  explicit Trace(bool wanted) : wanted_(wanted) {}
  void step(const std::string& text) const {
    if (!wanted_) return;
    const std::chrono::duration<double, std::milli> passed = Clock::now() - start_;
    char time[32];
    std::snprintf(time, sizeof time, "%9.3f ms  ", passed.count());
    complain(time + text);
  }

 private:
  const bool wanted_;
  const Clock::time_point start_ = Clock::now();
};

bool append(ks_io* io, const char* data, std::size_t size) {
  while (size > 0) {
    const int64_t written = ks_io_write(io, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool append_standard_input(ks_io* io) {
  char chunk[64 * 1024];
  for (;;) {
    const ssize_t got = read(STDIN_FILENO, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    if (!append(io, chunk, static_cast<std::size_t>(got))) return false;
  }
}

bool append_body(ks_io* io, const char* body) {
  if (body == nullptr) return true;
  if (std::strcmp(body, "-") == 0) return append_standard_input(io);
  return append(io, body, std::strlen(body));
}

// Milliseconds until `deadline`, rounded up.
std::uint32_t time_left(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<std::uint32_t>(std::max<std::int64_t>(left, 0));
}

Outcome converse(const Call& call, ks_io* io, const Trace& trace) {
  // Taken before the request is sent: after that the service writes into the file.
  const std::string body = std::to_string(ks_io_size(io)) + " bytes of body";
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(call.seconds);
  const PollSet set(ks_epoll_create());
  Outcome outcome;
  trace.step("connecting to " + call.service.path);
  errno = 0;
  outcome.status = ks_epoll_call(set.get(), call.service.name, call.request, io, call.extra_fd);
  if (outcome.status != KS_STATUS_OK) {
    outcome.connect_error = errno;
    return outcome;
  }
  trace.step("connected; waiting for a free worker");
  for (;;) {
    ks_io* finished = ks_epoll_perform(set.get(), time_left(deadline), &outcome.status);
    if (finished == nullptr && outcome.status == KS_STATUS_OK) {
      outcome.sent = true;
      trace.step(std::string("asked for the request; sent ") + call.request + ", " + body +
                 (call.extra_fd >= 0 ? " and descriptor " + std::to_string(call.extra_fd) : ""));
      continue;
    }
    // Every reply, even an empty one, has its file. Without a file an unknown record came and the time ran out.
    if (finished != nullptr && outcome.status == KS_STATUS_OK && io->memfd == -1) outcome.status = KS_STATUS_TIMEOUT;
    return outcome;
  }
}

// Explains why connecting failed.
std::string connect_text(const Call& call, int error) {
  switch (error) {
    case ENOENT:
      return "no such service, or it is stopped: there is no " + call.service.path;
    case ECONNREFUSED:
      return "no such service, or it is stopped: nothing serves " + call.service.path;
    case EAGAIN:
      return "the service accepts no connection: its backlog is full";
    default:
      return "cannot connect to " + call.service.path + ": " + std::generic_category().message(error);
  }
}

std::string outcome_text(const Call& call, const Outcome& outcome, bool with_body) {
  const std::string limit = "no reply in time (limit " + std::to_string(call.seconds) + " s): ";
  switch (outcome.status) {
    case KS_STATUS_TIMEOUT:
      if (!outcome.sent) return limit + "never asked for the request, all workers are busy; nothing was sent";
      if (!known_command(call.service.name, call.request))
        return limit + "the request was asked for and sent, but the service has no command of this name: misspelt?";
      return limit + "the request was asked for and sent; whether it was done is not known";
    case KS_STATUS_CONNECT:
      return connect_text(call, outcome.connect_error);
    case KS_STATUS_PAUSED:
      return "the service is paused";
    case KS_STATUS_REFUSED:
      return "the service refused the request";
    case KS_STATUS_BROKEN:
      if (!outcome.sent) return "the connection ended before the request was asked for; nothing was sent";
      if (!with_body) return "the connection ended without a reply: a body is needed, and none was given";
      return "the connection ended without a reply; whether the request was done is not known";
    case KS_STATUS_BUSY:
      return "the service is busy: too many clients are waiting";
    case KS_STATUS_ARGS:
      return "the request's name is too long (at most " + std::to_string(KS_REQUEST_NAME_SIZE) + " characters)";
    default:
      return "unknown status " + std::to_string(outcome.status);
  }
}

// Whether the terminal supports colours and the user has not disabled them.
bool colours_wanted() {
  // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  // NOLINTEND(concurrency-mt-unsafe)
  return (refused == nullptr || *refused == '\0') && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

int show_reply(const Call& call, ks_io* io) {
  const bool formatted = !call.raw && isatty(STDOUT_FILENO) == 1;
  const bool judged = (formatted || call.fail) && io->shared_size <= kLongestJudged;
  const std::string text = judged ? read_whole(ks_io_fd(io)) : std::string();
  const std::optional<Json::Value> json = parse_json(text);
  bool written = false;
  if (formatted && json) {
    const std::string shown = indented(text, colours_wanted());
    written = write_all(STDOUT_FILENO, shown.data(), shown.size());
  } else {
    // Written straight from the mapping: if the service truncates the file now, write fails without a signal.
    written = write_all(STDOUT_FILENO, io->shared_data, io->shared_size);
  }
  if (!written) return local_trouble(kCallCommand, "cannot write the reply");
  const std::string failure = call.fail && json ? reported_failure(*json) : std::string();
  if (failure.empty()) return 0;
  complain("call " + std::string(call.service.name) + " " + call.request + ": the reply reports a failure: " + failure);
  return kExitFailed;
}

int perform(const Call& call) {
  const Io io(ks_io_create());
  if (!append_body(io.get(), call.body)) return local_trouble(kCallCommand, "cannot take the body");
  const bool with_body = ks_io_size(io.get()) > 0;

  const Trace trace(call.verbose);
  const Outcome outcome = converse(call, io.get(), trace);
  if (outcome.status == KS_STATUS_OK) {
    trace.step("done; " + std::to_string(io->shared_size) + " bytes of reply");
    return show_reply(call, io.get());
  }
  trace.step("given up, status " + std::to_string(outcome.status));
  complain("call " + std::string(call.service.name) + " " + call.request + ": " +
           outcome_text(call, outcome, with_body));
  return kExitStatusBase + outcome.status;
}

// The framework silently omits a descriptor that is not open; the user should know.
bool store_descriptor(const char* value, int* fd) {
  unsigned number = 0;
  if (!parse_number(value, INT_MAX, &number) || fcntl(static_cast<int>(number), F_GETFD) == -1) return false;
  *fd = static_cast<int>(number);
  return true;
}

int run_call(int argc, char** argv) {
  Call call;
  const Option options[] = {timeout_option(&call.seconds),
                            {.name = "fd",
                             .value = "N",
                             .help = "pass a copy of the open descriptor N along",
                             .store = [&](const char* value) { return store_descriptor(value, &call.extra_fd); }},
                            {.name = "fail",
                             .letter = 'f',
                             .help = "exit with 3 when \"result\" or \"error_code\" of the reply is not 0",
                             .store = store_flag(&call.fail)},
                            {.name = "raw",
                             .letter = 'r',
                             .help = "print the reply byte for byte on a terminal, too",
                             .store = store_flag(&call.raw)},
                            {.name = "verbose",
                             .letter = 'v',
                             .help = "show each step with its time, on standard error",
                             .store = store_flag(&call.verbose)}};
  std::span<char*> operands;
  if (const auto over = read_arguments(kCallCommand, options, 3, argc, argv, &operands)) return *over;
  if (operands.size() < 2)
    return wrong_usage(kCallCommand, operands.empty() ? "a service and a request are needed" : "a request is needed");
  call.request = operands[1];
  if (operands.size() == 3) call.body = operands[2];
  if (const auto over = find_service(kCallCommand, operands[0], &call.service)) return *over;
  if (const auto over = check_service(kCallCommand, call.service, kDescriptors)) return *over;
  return perform(call);
}

}  // namespace

const Subcommand kCallCommand = {
    .name = "call",
    .operands = "SERVICE REQUEST [BODY | -]",
    .summary = "Sends a request, with BODY, or all of standard input for \"-\", and prints the reply.",
    .statuses =
        "  0   there is a reply\n"
        "  1   ksctl itself failed: input, output or descriptors\n"
        "  2   wrong usage\n"
        "  3   the reply reports a failure (with --fail only)\n"
        "  11  no reply in time\n"
        "  12  no such service, or it is stopped\n"
        "  13  the service is paused\n"
        "  14  the service refused the request\n"
        "  15  the connection ended without a reply\n"
        "  16  the service is busy\n"
        "  17  a name is too long, or not one of a service\n",
    .example = "ksctl call --fail main exec_cli '{\"command\": [\"/bin/uname\", \"-s\"]}'",
    .run = run_call,
};
