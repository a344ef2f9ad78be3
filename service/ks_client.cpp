// The client side. A pending request is a ks_io whose socket is registered in a poll set; ks_call waits for its single
// request without a set. The service sends the first record (ask, busy or paused). The client answers an ask with its
// request name and its memory file, then waits for done. A failed request leaves its record empty: no socket, no memory
// file, no mapping.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service/ks_internal.h"

namespace {

using Clock = std::chrono::steady_clock;

// Shorter time limits are raised to this one.
constexpr std::uint32_t kLeastTimeoutSeconds = 5;
constexpr std::int64_t kMillisecondsPerSecond = 1000;

bool fits(const char* text, std::size_t limit) {
  return text != nullptr && strnlen(text, limit + 1) <= limit;
}

// Closes the record's descriptors so that it can be used again. extra_fd is the caller's and stays open.
void empty_record(ks_io* io) {
  hang_up_and_forget(&io->sockfd);
  ks_io_drop_shm(io);
  io->extra_fd = -1;
}

// The requests that a client waits for: those of a poll set, or a single one without a set, which costs less.
struct Waiting {
  int pollfd;
  ks_io* single;  // null: use the poll set
};

void cancel(const Waiting& waiting, ks_io* io) {
  if (io->sockfd == -1) return;
  if (waiting.single == nullptr) epoll_ctl(waiting.pollfd, EPOLL_CTL_DEL, io->sockfd, nullptr);
  hang_up_and_forget(&io->sockfd);
}

ks_io* tear_down(const Waiting& waiting, ks_io* io, int code, int* status) {
  cancel(waiting, io);
  empty_record(io);
  *status = code;
  return io;
}

// A number that is not an open descriptor counts as no descriptor.
bool usable_descriptor(int fd) {
  return fd >= 0 && (fcntl(fd, F_GETFD) != -1 || errno != EBADF);
}

void send_request(ks_io* io) {
  const bool with_extra = usable_descriptor(io->extra_fd);
  directive request = make_directive(KS_DIR_REQUEST);
  request.flag = with_extra ? 1 : 0;
  ks_copy_text(reinterpret_cast<char*>(request.data), sizeof(request.data), io->request_name);
  // If the service has gone meanwhile, the next event is a hang-up.
  send_directive(io->sockfd, request);
  send_descriptor(io->sockfd, io->memfd);
  if (with_extra) send_descriptor(io->sockfd, io->extra_fd);
}

int milliseconds_until(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

int wait_once(const Waiting& waiting, int timeout_ms, epoll_event* event) {
  if (waiting.single == nullptr) return epoll_wait(waiting.pollfd, event, 1, timeout_ms);
  static_assert(POLLIN == EPOLLIN && POLLERR == EPOLLERR && POLLHUP == EPOLLHUP && POLLRDHUP == EPOLLRDHUP);
  pollfd watched{.fd = waiting.single->sockfd, .events = POLLIN | POLLRDHUP, .revents = 0};
  const int ready = poll(&watched, 1, timeout_ms);
  *event = {.events = static_cast<std::uint32_t>(watched.revents), .data = {.ptr = waiting.single}};
  return ready;
}

// Waits for one event until the deadline; null when there was none.
ks_io* wait_for_event(const Waiting& waiting, Clock::time_point deadline, std::uint32_t* events) {
  epoll_event event{};
  int ready;
  while ((ready = wait_once(waiting, milliseconds_until(deadline), &event)) < 0 && errno == EINTR) errno = 0;
  if (ready < 1) return nullptr;
  *events = event.events;
  return static_cast<ks_io*>(event.data.ptr);
}

// Connects and fills the record of one request; returns a status.
int start(const char* name, const char* request_name, ks_io* io, int extra_fd) {
  if (!fits(name, MAXIMUM_NAME_SIZE) || !fits(request_name, KS_REQUEST_NAME_SIZE)) return KS_STATUS_ARGS;
  char path[kSockFileSize];
  ks_socket_path(name, path, "ks_epoll_call", "request ");
  ks_io_connect(io, socket(AF_UNIX, SOCK_STREAM, 0));
  if (io->sockfd < 0 || !set_fd_cloexec(io->sockfd)) {
    ks_abort("ks_epoll_call", "(io->sockfd = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && set_fd_cloexec(io->sockfd)",
             "create request socket fail");
  }
  // connect would wait for ever if the service does not accept and its backlog is full.
  const timeval send_timeout{.tv_sec = kLeastTimeoutSeconds, .tv_usec = 0};
  setsockopt(io->sockfd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof(send_timeout));
  const sockaddr_un address = ks_socket_address(path);
  if (connect(io->sockfd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return KS_STATUS_CONNECT;
  }
  ks_io_shm(io);
  io->extra_fd = extra_fd;
  ks_copy_text(io->request_name, sizeof(io->request_name), request_name);
  return KS_STATUS_OK;
}

// ks_epoll_perform without mapping the reply.
ks_io* perform(const Waiting& waiting, std::uint32_t timeout_ms, int* status) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  ks_io* skipped = nullptr;
  while (true) {
    std::uint32_t events = 0;
    ks_io* io = wait_for_event(waiting, deadline, &events);
    if (io == nullptr) {
      if (skipped != nullptr) return tear_down(waiting, skipped, KS_STATUS_OK, status);
      *status = KS_STATUS_TIMEOUT;
      return nullptr;
    }
    const bool lost = (events & (EPOLLERR | EPOLLHUP)) != 0 && (events & EPOLLRDHUP) == 0;
    directive record;
    if (lost || !read_directive(io->sockfd, &record)) return tear_down(waiting, io, KS_STATUS_BROKEN, status);
    switch (record.type) {
      case KS_DIR_BUSY:
        return tear_down(waiting, io, KS_STATUS_BUSY, status);
      case KS_DIR_PAUSED:
        return tear_down(waiting, io, KS_STATUS_PAUSED, status);
      case KS_DIR_REFUSED:
        return tear_down(waiting, io, KS_STATUS_REFUSED, status);
      case KS_DIR_DONE:
        cancel(waiting, io);
        *status = KS_STATUS_OK;
        return io;
      case KS_DIR_ASK:
        send_request(io);
        *status = KS_STATUS_OK;
        return nullptr;
      default:
        skipped = io;
    }
  }
}

std::int64_t now_ms() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return std::int64_t{now.tv_sec} * kMillisecondsPerSecond + now.tv_usec / 1000;
}

// Repeats perform until the request has finished (true) or its time is over (false, with the status of the last step).
// Each round subtracts the whole time since the beginning, so the budget shrinks faster than time passes. Callers rely
// on this shorter limit.
bool perform_within(const Waiting& waiting, std::int64_t begin, std::int64_t budget, int* status) {
  while (true) {
    const auto limit = static_cast<std::uint32_t>(std::min<std::int64_t>(budget, UINT32_MAX));
    if (perform(waiting, limit, status) != nullptr) return true;
    const std::int64_t elapsed = now_ms() - begin;
    if (elapsed >= budget) return false;
    budget -= elapsed;
  }
}

// Maps the record's reply, if there is one; returns a status.
int map_reply(ks_io* io) {
  if (io->memfd < 0 || ks_io_sync_reply(io)) return KS_STATUS_OK;
  empty_record(io);
  return KS_STATUS_BROKEN;
}

// Copies the reply out of its file and returns the number of bytes read. A mapping would cost page faults, and SIGBUS
// if the service truncates the file.
std::uint64_t read_reply(const ks_io* io, char* buffer, std::uint64_t size) {
  std::uint64_t read = 0;
  ssize_t got;
  while (read < size && (got = pread(io->memfd, buffer + read, size - read, static_cast<off_t>(read))) > 0) {
    read += static_cast<std::uint64_t>(got);
  }
  return read;
}

// ks_call without mapping the reply.
int call(const char* name, const char* request_name, ks_io* io, std::uint32_t timeout_s, int extra_fd) {
  ks_verify_io(io, "ks_epoll_call", "cannot make incorrect ks_io %p request");
  const std::int64_t begin = now_ms();
  int status = start(name, request_name, io, extra_fd);
  bool finished = false;
  if (status == KS_STATUS_OK) {
    const std::int64_t budget = std::max(timeout_s, kLeastTimeoutSeconds) * kMillisecondsPerSecond;
    finished = perform_within({.pollfd = -1, .single = io}, begin, budget, &status);
  }
  // Without a reply the record must not look as if it had one: the mapping of the request must go.
  if (!finished || status != KS_STATUS_OK) empty_record(io);
  return status;
}

}  // namespace

ks_epoll* ks_epoll_create(void) {
  auto* epoll = static_cast<ks_epoll*>(std::calloc(1, sizeof(ks_epoll)));
  if (epoll == nullptr) {
    ks_abort("ks_epoll_create", "(epoll = calloc(1, sizeof(ks_epoll)))", "alloc epoll memory fail");
  }
  epoll->fd = epoll_create(1);
  if (epoll->fd < 0 || !set_fd_cloexec(epoll->fd)) {
    ks_abort("ks_epoll_create", "((epoll->fd = epoll_create(1)) >= 0 && set_fd_cloexec(epoll->fd))",
             "create request epoll fail");
  }
  epoll->magic = KS_EPOLL_MAGIC;
  return epoll;
}

int ks_epoll_call(ks_epoll* epoll, const char* name, const char* request_name, ks_io* io, int extra_fd) {
  ks_verify_epoll(epoll, "ks_epoll_call", "cannot call incorrect ks_epoll %p");
  ks_verify_io(io, "ks_epoll_call", "cannot make incorrect ks_io %p request");
  const int status = start(name, request_name, io, extra_fd);
  if (status == KS_STATUS_OK && !ks_poll_add(epoll->fd, io->sockfd, kWatchEvents, {.ptr = io})) {
    ks_abort("ks_epoll_call", "epoll_ctl(epoll->fd, EPOLL_CTL_ADD, io->sockfd, ev) == 0",
             "epoll add request sockfd fail");
  }
  return status;
}

ks_io* ks_epoll_perform(ks_epoll* epoll, uint32_t timeout_ms, int* status) {
  ks_verify_epoll(epoll, "ks_epoll_perform", "cannot perform incorrect ks_epoll %p");
  int code;
  ks_io* io = perform({.pollfd = epoll->fd, .single = nullptr}, timeout_ms, &code);
  if (io != nullptr && code == KS_STATUS_OK) code = map_reply(io);
  if (status != nullptr) *status = code;
  return io;
}

void ks_epoll_cancel(ks_epoll* epoll, ks_io* io) {
  ks_verify_epoll(epoll, "ks_epoll_cancel", "cannot cancel incorrect ks_epoll %p");
  ks_verify_io(io, "ks_epoll_cancel", "cannot cancel incorrect ks_io %p");
  cancel({.pollfd = epoll->fd, .single = nullptr}, io);
}

void ks_epoll_free(ks_epoll* epoll) {
  ks_verify_epoll(epoll, "ks_epoll_free", "cannot free incorrect ks_epoll %p");
  epoll->magic = 0;
  close_and_forget(&epoll->fd);
  std::free(epoll);
}

int ks_call(const char* name, const char* request_name, ks_io* io, uint32_t timeout_s, int extra_fd) {
  const int status = call(name, request_name, io, timeout_s, extra_fd);
  return status == KS_STATUS_OK ? map_reply(io) : status;
}

int ks_ez_call(const char* name, const char* request_name, const void* data, uint64_t dsize, void** recv,
               uint64_t* rsize, uint32_t timeout_s, int extra_fd) {
  if (data == nullptr && dsize != 0) {
    ks_abort("ks_ez_call", "data != NULL || (data == NULL && dsize == 0U)",
             "data memory access violation with size (%zu)", static_cast<std::size_t>(dsize));
  }
  if (recv != nullptr && *recv != nullptr) {
    ks_abort("ks_ez_call", "(recv == NULL || *recv == NULL)", "recv memory access violation");
  }
  ks_io* io = ks_io_create();
  if (data != nullptr && dsize > 0) ks_io_write(io, data, dsize);
  int status = call(name, request_name, io, timeout_s, extra_fd);
  std::uint64_t size;
  if (status == KS_STATUS_OK && !ks_io_reply_size(io, &size)) status = KS_STATUS_BROKEN;
  if (recv != nullptr && status == KS_STATUS_OK) {
    // At least one byte, so that an empty reply is not mistaken for a failed allocation.
    *recv = std::malloc(std::max<std::uint64_t>(size, 1));
    if (*recv == nullptr) {
      ks_abort("ks_ez_call", "(*recv = realloc(*recv, io->shared_size))", "cannot realloc recv memory");
    }
    size = read_reply(io, static_cast<char*>(*recv), size);
    if (rsize != nullptr) *rsize = size;
  }
  ks_io_free(io);
  return status;
}
