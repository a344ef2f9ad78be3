// Dispatch: find the row, lend standard output, run the handler on a thread of its own, release the request.
//
// Standard output belongs to the whole process. While a handler runs it is its client's descriptor;
// afterwards it is /dev/null again. Requests that overlap share it: one handler may write into the other's
// descriptor. What must be private goes into the reply.
//
// A request that no handler takes is neither answered nor released while its client stays connected: the
// client waits, as clients of a missing command always have. It is parked here, and released once the client
// has left.
//
// The daemon outlives its requests: what a handler throws ends in one log line, and the client's connection
// is shut down, not just closed, because a program that the handler has started may hold a copy of the
// socket.
#include "daemon/dispatch.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "common/log.h"
#include "common/unique_fd.h"
#include "daemon/command_tables.h"

namespace {

constexpr char kNullDevice[] = "/dev/null";

// What one handler thread is given; lives on the stack of the thread that joins it.
struct HandlerCall {
  int fd;
  ks_io* io;
  const char* name;
  command_handler handler;
};

void release(ks_io* io) {
  shutdown(io->sockfd, SHUT_RDWR);
  ks_io_free(io);
}

// The requests that wait for their clients to leave. Any thread.
class ParkedRequests {
 public:
  // Beyond kMost the oldest is given up, so that a client cannot use the daemon's descriptors up.
  void park(ks_io* io) {
    const std::lock_guard lock(mutex_);
    if (requests_.size() == kMost) {
      release(requests_.front());
      requests_.erase(requests_.begin());
    }
    requests_.push_back(io);
  }

  void release_abandoned() {
    const std::lock_guard lock(mutex_);
    if (requests_.empty()) return;
    // A client has nothing more to say: whatever can be read from it means that it has left.
    std::vector<pollfd> clients;
    for (const ks_io* io : requests_) clients.push_back({.fd = io->sockfd, .events = POLLIN, .revents = 0});
    if (poll(clients.data(), clients.size(), 0) <= 0) return;
    std::vector<ks_io*> waiting;
    for (std::size_t i = 0; i < requests_.size(); ++i) {
      if (clients[i].revents == 0) {
        waiting.push_back(requests_[i]);
      } else {
        release(requests_[i]);
      }
    }
    requests_ = std::move(waiting);
  }

 private:
  static constexpr std::size_t kMost = 256;
  std::mutex mutex_;
  std::vector<ks_io*> requests_;
};

// Never destroyed: workers of the mail service may still be at it while the process exits.
ParkedRequests& parked_requests() {
  static auto* const requests = new ParkedRequests;
  return *requests;
}

// Open for the life of the process, so that standard output always has somewhere to go back to.
int null_device = -1;

// Makes the client's descriptor standard output and closes its number, which until take_back_stdout stays
// occupied by a stand-in: the second close there must not hit a descriptor that another request has opened
// meanwhile.
void lend_stdout(int extra_fd) {
  if (extra_fd < 0) return;
  dup2(extra_fd, STDOUT_FILENO);
  dup3(null_device, extra_fd, O_CLOEXEC);
}

void take_back_stdout(int extra_fd) {
  // The stream is locked while its descriptor is closed: a client's connection that lingers, told so by now, would hold
  // up every other request.
  const linger none{};
  setsockopt(STDOUT_FILENO, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
  // Without a descriptor to spare, reopening fails, closes number 1 and leaves the stream on another number for
  // good. Number 1 must not go to the next socket, nor stay with this client.
  if (std::freopen(kNullDevice, "w", stdout) == nullptr || fileno(stdout) != STDOUT_FILENO) {
    dup2(null_device, STDOUT_FILENO);
  }
  if (extra_fd >= 0) close(extra_fd);
}

void* run_handler(void* arg) {
  const auto* call = static_cast<const HandlerCall*>(arg);
  try {
    call->handler(call->io, call->fd);
  } catch (const std::exception& error) {
    LOG_AT("run_handler", "%s ended without a reply: %s", call->name, error.what());
  }
  return nullptr;
}

void dispatch(std::span<const CommandRow> commands, const char* request_name, ks_io* io, int extra_fd) {
  parked_requests().release_abandoned();
  const auto row = std::find_if(
      commands.begin(), commands.end(),
      [request_name](const CommandRow& candidate) { return std::strcmp(candidate.name, request_name) == 0; });
  if (row == commands.end() || row->handler == nullptr) {
    const UniqueFd unused(extra_fd);
    if (io != nullptr) parked_requests().park(io);
    return;
  }
  HandlerCall call{.fd = extra_fd, .io = io, .name = row->name, .handler = row->handler};
  lend_stdout(extra_fd);
  pthread_t thread;
  if (pthread_create(&thread, nullptr, run_handler, &call) == 0) pthread_join(thread, nullptr);
  take_back_stdout(extra_fd);
  if (io != nullptr) release(io);
}

}  // namespace

void prepare_dispatch() {
  null_device = open(kNullDevice, O_RDWR | O_CLOEXEC);
}

void main_service_exec(const char* request_name, ks_io* io, int extra_fd) {
  dispatch(main_commands(), request_name, io, extra_fd);
}

void mail_service_exec(const char* request_name, ks_io* io, int extra_fd) {
  dispatch(mail_commands(), request_name, io, extra_fd);
}
