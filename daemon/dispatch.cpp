// Dispatch: find the row, lend standard output, run the handler on a new thread, release the request.
//
// A request with an unknown name is parked: it is neither answered nor released until its client leaves. Clients of a
// missing command have always waited until their own time limit.
//
// The daemon survives failed requests. An exception from a handler, or from dispatch when memory is short, becomes one
// log line. The client's connection is shut down, not just closed: a program that the handler started may hold a copy
// of the socket.
//
// A handler writes its reply into the client's memory file, and a hostile client can hold that file's lock. A handler
// that does not finish writing its reply in time (ReplyClock) is abandoned together with its request: the worker
// continues, and the handler's thread ends when the client releases the file.
#include "daemon/dispatch.h"

#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <utility>
#include <vector>

#include "common/activity.h"
#include "common/log.h"
#include "daemon/command_tables.h"
#include "daemon/lent_output.h"
#include "daemon/parked_requests.h"
#include "handlers/handler.h"
#include "service/unique_io.h"

namespace {

// Writing a reply takes milliseconds unless the client holds it up.
constexpr std::chrono::seconds kReplyTimeout{5};
// How often the dispatcher checks the handler that it waits for.
constexpr time_t kLookSeconds = 1;

// Written to the trace, like the other endings below. The exception's text may quote the body and is left out.
constexpr char kHungUpOnException[] = "hung up: exception";

// The sender of a request.
struct Client {
  pid_t pid;
  uid_t uid;
};

// The argument of a handler thread. The thread and its dispatcher share it; the one that finishes last releases it.
struct HandlerCall {
  UniqueIo io;
  const CommandRow* row;
  RunningRequest request;
  ReplyClock reply_clock{};
  std::atomic<bool> one_is_done{false};
  bool is_abandoned = false;  // written by the dispatcher before it is done
};

// The users of abandoned handlers, each of which occupies a thread and two descriptors. Any thread.
class AbandonedHandlers {
 public:
  // A user with this many is not served until one of them ends.
  static constexpr int kMostOfAUser = 16;

  bool is_full(uid_t user) {
    const std::lock_guard lock(mutex_);
    return std::ranges::count(users_, user) >= kMostOfAUser;
  }
  // If memory is short, the handler is not counted.
  void enter(uid_t user) noexcept {
    const std::lock_guard lock(mutex_);
    try {
      users_.push_back(user);
    } catch (const std::bad_alloc&) {
    }
  }
  void leave(uid_t user) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(users_, user);
    if (found != users_.end()) users_.erase(found);
  }

 private:
  std::mutex mutex_;
  std::vector<uid_t> users_;
};

// Never destroyed: abandoned threads may use it while the process exits.
AbandonedHandlers* g_abandoned_handlers = nullptr;

// Must not throw, even if memory is short.
void log_failure(const char* command, const std::exception& error) noexcept {
  try {
    LOG_AT("run_handler", "%s ended without a reply: %s", command, error.what());
  } catch (const std::exception&) {
    // The client is hung up on in any case.
  }
}

// Called by the thread and by its dispatcher when they no longer use the record.
void release(HandlerCall* call) {
  if (!call->one_is_done.exchange(true)) return;
  const bool is_abandoned = call->is_abandoned;
  const uid_t user = ks_io_uid(call->io.get());
  delete call;
  if (is_abandoned) g_abandoned_handlers->leave(user);
}

// How a request ended after its handler has returned.
const char* ending(const HandlerCall& call) {
  if (call.reply_clock.has_stopped()) return "replied";
  return ks_io_alive(call.io.get()) ? "hung up" : "client gone";
}

void* run_handler(void* arg) {
  auto* call = static_cast<HandlerCall*>(arg);
  call->request.attach();
  try {
    carry_out(*call->row, call->io.get());
    call->request.end(ending(*call));
  } catch (const std::exception& error) {
    log_failure(call->row->name, error);
    call->request.end(kHungUpOnException);
  }
  release(call);
  return nullptr;
}

// Waits until the handler has ended (true) or must be abandoned (false).
bool join(pthread_t thread, const HandlerCall& call) {
  timespec next_look{};
  do {
    clock_gettime(CLOCK_REALTIME, &next_look);
    next_look.tv_sec += kLookSeconds;
    if (pthread_timedjoin_np(thread, nullptr, &next_look) != ETIMEDOUT) return true;
  } while (call.reply_clock.elapsed() < kReplyTimeout);
  LOG_AT("dispatch", "%s is left behind: pid %d holds the file that its reply goes to.", call.row->name,
         static_cast<int>(call.io->peer_pid));
  pthread_detach(thread);
  return false;
}

void run(const CommandRow& row, const Client& client, UniqueIo io) {
  auto* call =
      // cppcheck-suppress accessMoved ; it takes the field for the parameter
      new HandlerCall{.io = std::move(io), .row = &row, .request = RunningRequest(row.name, client.pid, client.uid)};
  ks_io_set(call->io.get(), reinterpret_cast<std::uintptr_t>(&call->reply_clock));
  pthread_t thread;
  if (pthread_create(&thread, nullptr, run_handler, call) != 0) {
    call->request.end("hung up: no thread");
    delete call;
    return;
  }
  if (!join(thread, *call)) {
    call->request.end("left behind");
    // Counted first: the client may send its next request as soon as it is hung up on.
    g_abandoned_handlers->enter(client.uid);
    call->is_abandoned = true;
    // The handler's thread owns the record now, but shutting its connection down is safe.
    shutdown(call->io->sockfd, SHUT_RDWR);
  }
  release(call);
}

// Never destroyed: workers of the mail service may use it while the process exits.
ParkedRequests* g_parked_requests = nullptr;

void dispatch(std::span<const CommandRow> commands, const char* request_name, ks_io* request, int extra_fd) noexcept {
  UniqueIo io(request);
  const Client client{.pid = request->peer_pid, .uid = request->peer_uid};
  const auto row = std::find_if(commands.begin(), commands.end(), [request_name](const CommandRow& candidate) {
    return std::strcmp(candidate.name, request_name) == 0;
  });
  try {
    if (row == commands.end()) {
      ks_discard(extra_fd, client.uid);
      RunningRequest(request_name, client.pid, client.uid).end("unknown command");
      g_parked_requests->park(std::move(io));
    } else if (g_abandoned_handlers->is_full(ks_io_uid(io.get()))) {
      ks_discard(extra_fd, client.uid);
      LOG_AT("dispatch", "%s is refused: user %u holds the files of %d others.", row->name, ks_io_uid(io.get()),
             AbandonedHandlers::kMostOfAUser);
    } else {
      const LentOutput output(extra_fd, client.uid);
      run(*row, client, std::move(io));
    }
  } catch (const std::exception& error) {
    const bool known = row != commands.end();
    if (known) RunningRequest(row->name, client.pid, client.uid).end(kHungUpOnException);
    log_failure(known ? row->name : "unknown command", error);
  }
}

}  // namespace

void prepare_dispatch() {
  prepare_lent_output();
  g_parked_requests = new ParkedRequests;
  g_abandoned_handlers = new AbandonedHandlers;
}

void main_service_exec(const char* request_name, ks_io* io, int extra_fd) {
  dispatch(main_commands(), request_name, io, extra_fd);
}

void mail_service_exec(const char* request_name, ks_io* io, int extra_fd) {
  dispatch(mail_commands(), request_name, io, extra_fd);
}
