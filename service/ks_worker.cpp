// Consumers. A consumer, thread or process, serves one client at a time:
//
//   control socket: TRANSFER + descriptor  ->  echo TRANSFER, ask the client
//   client:         REQUEST + memory file (+ extra descriptor)  ->  exec  ->  READY on the control socket
//
// Ownership. The control socket is a pair: the consumer's loop closes its end ([0]), the producer closes the other
// ([1]). A client that is being handed over is open twice, here and in the producer, until the echo tells the producer
// that its copy is no longer needed. From REQUEST on, socket, memory file and extra descriptor belong to the exec
// callback. A consumer process holds only descriptors 0 to 3; 3 is its control socket.
//
// Client input is untrusted: records may be short or of any type, descriptors missing or of any kind. The worker hangs
// up on such a client. A client has kAnswerTimeout to send its request, and kHandoverTimeout to send the descriptors
// that follow. The worker reports ready when it has dropped the client, and dropping one never waits (discard.cpp).

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service/ks_internal.h"

namespace {

using Clock = std::chrono::steady_clock;

// A silent client holds the worker; a conforming one answers at once.
constexpr std::chrono::seconds kAnswerTimeout{60};
// A client that has been silent for this long is reported to the service's callback.
constexpr std::chrono::seconds kSilenceTimeout{30};
// For the descriptors that follow a request; a conforming client sends all at once.
constexpr std::chrono::seconds kHandoverTimeout{5};

// The number under which a consumer process keeps its control socket.
constexpr int kChildControlFd = 3;

// The consumer that runs on this thread.
thread_local ks_worker* g_self = nullptr;

void report_ready(ks_worker* worker) {
  directive ready = make_directive(KS_DIR_READY);
  std::memcpy(ready.data, &worker->index, sizeof(worker->index));
  send_directive(worker->sockfd[0], ready);
}

void leave_loop(ks_worker* worker) {
  close_and_forget(&worker->pollfd);
}

void drop_client(ks_worker* worker) {
  epoll_ctl(worker->pollfd, EPOLL_CTL_DEL, worker->client_fd, nullptr);
  hang_up_and_forget(&worker->client_fd);
}

// Replaces this process's environment by the client's, up to the first newline in it. A name ends at its equals sign, a
// value at its NUL.
void take_over_environment(pid_t peer) {
  char path[32];
  std::snprintf(path, sizeof(path), "/proc/%d/environ", static_cast<int>(peer));
  FILE* file = std::fopen(path, "r");
  if (file == nullptr) return;
  char* text = nullptr;
  std::size_t capacity = 0;
  const ssize_t length = getdelim(&text, &capacity, '\n', file);
  std::fclose(file);
  if (length > 0) {
    clearenv();
    char* name = text;
    char* const end = text + length;
    while (char* equals = static_cast<char*>(std::memchr(name, '=', static_cast<std::size_t>(end - name)))) {
      *equals = '\0';
      char* value = equals + 1;
      // NOLINTNEXTLINE(concurrency-mt-unsafe): a consumer process has one thread
      setenv(name, value, 1);
      name = value + std::strlen(value) + 1;
      if (name >= end) break;
    }
  }
  std::free(text);
}

// Receives the descriptors that follow the request record and makes the request; null on failure.
ks_io* receive_request(ks_worker* worker, const directive& record, received_fd* extra) {
  const auto deadline = Clock::now() + kHandoverTimeout;
  received_fd memfd(worker->client.uid, receive_descriptor(worker->client_fd, deadline));
  if (!memfd) return nullptr;
  if ((record.flag & 1) != 0) {
    extra->reset(receive_descriptor(worker->client_fd, deadline));
    if (!*extra) return nullptr;
  }
  ks_io* io = ks_io_accept(memfd.get(), worker->client_fd, !worker->leaves_unmapped);
  if (io == nullptr) return nullptr;
  memfd.release();
  ks_copy_text(io->request_name, sizeof(io->request_name), reinterpret_cast<const char*>(record.data));
  return io;
}

void set_credentials(const ks_worker* worker, ks_io* io) {
  io->peer_pid = worker->client.pid;
  io->peer_uid = worker->client.uid;
  io->peer_gid = worker->client.gid;
  if ((worker->type & KS_PROCESS_MODE) != 0) take_over_environment(io->peer_pid);
}

void serve_request(ks_worker* worker, const directive& record) {
  received_fd extra(worker->client.uid);
  ks_io* io = receive_request(worker, record, &extra);
  if (io == nullptr) {
    extra.reset();
    return drop_client(worker);
  }
  epoll_ctl(worker->pollfd, EPOLL_CTL_DEL, worker->client_fd, nullptr);
  worker->client_fd = -1;
  set_credentials(worker, io);
  worker->exec(io->request_name, io, extra.release());
}

// Receives a client over the control socket, asks for its request and watches it.
void accept_transfer(ks_worker* worker, const directive& record) {
  worker->client_fd = receive_connection(worker->sockfd[0]);
  // Tells the producer that its copy is the last one, whose close could wait.
  if (worker->client_fd < 0) std::atomic_ref(worker->transfer_failed).store(1);
  // The echo tells the producer that its copy of the client is no longer needed.
  send_directive(worker->sockfd[0], record);
  if (worker->client_fd < 0) return;
  worker->client = ks_peer(worker->client_fd);
  if (ks_has_too_many_open(worker->client.uid)) return hang_up_and_forget(&worker->client_fd);
  // Read urgent bytes inline. Otherwise the kernel drops them, and closes descriptors sent with them, in this thread.
  const int on = 1;
  setsockopt(worker->client_fd, SOL_SOCKET, SO_OOBINLINE, &on, sizeof(on));
  if (!send_directive(worker->client_fd, KS_DIR_ASK) ||
      !ks_poll_add(worker->pollfd, worker->client_fd, kWatchEvents, {.fd = worker->client_fd})) {
    hang_up_and_forget(&worker->client_fd);
  }
}

void serve_control(ks_worker* worker, std::uint32_t events) {
  directive record;
  if (events == kPeerClosed) return leave_loop(worker);
  if (!read_directive(worker->sockfd[0], &record)) {
    // Nothing to read: the producer is gone, and its loss was reported with an error.
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) leave_loop(worker);
  } else if (record.type == KS_DIR_TRANSFER) {
    accept_transfer(worker, record);
  } else {
    // Quit, or a record that no producer sends.
    leave_loop(worker);
  }
}

// Clients may send only requests. A transfer or quit record from a client is forged.
void serve_client(ks_worker* worker, std::uint32_t events) {
  directive record;
  if (events == kPeerClosed || !read_directive(worker->client_fd, &record) || record.type != KS_DIR_REQUEST) {
    return drop_client(worker);
  }
  serve_request(worker, record);
}

void report_silence(const ks_worker* worker) {
  if (worker->on_silence != nullptr) worker->on_silence(worker->silence_arg, worker->client.pid);
}

// How long the consumer may wait for its next event, in milliseconds.
int time_to_wait(const ks_worker* worker, Clock::time_point deadline) {
  if (worker->client_fd < 0) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(left, 0));
}

// Serves the producer and the clients that it hands over, until the service ends.
void serve(ks_worker* worker) {
  Clock::time_point asked;
  bool reported = false;
  while (worker->pollfd >= 0) {
    epoll_event event{};
    const int ready = epoll_wait(worker->pollfd, &event, 1,
                                 time_to_wait(worker, asked + (reported ? kAnswerTimeout : kSilenceTimeout)));
    if (ready < 0 && errno == EINTR) {
      errno = 0;
      continue;
    }
    if (ready < 0) break;
    if (ready == 0 && !reported) {
      report_silence(worker);
      reported = true;
    } else if (ready == 0) {
      drop_client(worker);
    } else if (event.data.fd == worker->sockfd[0]) {
      serve_control(worker, event.events);
      asked = Clock::now();
      reported = false;
    } else {
      serve_client(worker, event.events);
    }
    if (worker->pollfd >= 0 && worker->client_fd < 0) report_ready(worker);
  }
}

// Closes every descriptor above the control socket. They belong to the parent's other clients and workers.
void close_inherited_descriptors() {
  // Older kernels do not have close_range.
  if (close_range(kChildControlFd + 1, ~0U, 0) == 0) return;
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return;
  const int own = dirfd(directory);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread uses this directory stream
  while (const dirent* entry = readdir(directory)) {
    const int fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
    if (fd > kChildControlFd && fd != own) close(fd);
  }
  closedir(directory);
}

[[noreturn]] void run_consumer_process(ks_worker* worker, pid_t parent) {
  if (worker->sockfd[0] != kChildControlFd) dup2(worker->sockfd[0], kChildControlFd);
  worker->sockfd[0] = kChildControlFd;
  worker->sockfd[1] = -1;  // the producer's end; closed below
  close_inherited_descriptors();
  std::signal(SIGINT, SIG_IGN);
  std::signal(SIGTERM, SIG_IGN);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // If the parent ended before that call, no signal will come.
  if (getppid() == parent) ks_consumer_worker(worker);
  _exit(0);
}

void* consumer_thread(void* arg) {
  ks_consumer_worker(static_cast<ks_worker*>(arg));
  return nullptr;
}

void open_control_pair(ks_worker* worker) {
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, worker->sockfd) < 0 || !set_fd_cloexec(worker->sockfd[0]) ||
      !set_fd_cloexec(worker->sockfd[1])) {
    ks_abort("ks_consumer_worker_init",
             "socketpair(AF_UNIX, SOCK_STREAM, 0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && "
             "set_fd_cloexec(worker->sockfd[1])",
             "consumer-worker create sockets fail");
  }
  worker->sockfd[1] = ks_nonzero(worker->sockfd[1]);
}

}  // namespace

void ks_consumer_worker_init(ks_handle* handle, ks_worker* worker) {
  constexpr char kOperation[] = "ks_consumer_worker_init";
  // The last element of the array.
  ks_worker* producer = worker - worker->index + handle->service_size;
  std::atomic_ref(worker->ready).store(1);
  worker->pollfd = -1;
  // Removed explicitly: a program started meanwhile may hold a copy that would keep it registered.
  if (worker->sockfd[1] >= 0) epoll_ctl(producer->pollfd, EPOLL_CTL_DEL, worker->sockfd[1], nullptr);
  close_and_forget(&worker->sockfd[0]);
  close_and_forget(&worker->sockfd[1]);
  hang_up_and_forget(&worker->transfer_fd);
  open_control_pair(worker);
  if ((worker->type & KS_PTHREAD_MODE) != 0) {
    if (!ks_create_thread(&worker->id.tid, consumer_thread, worker)) {
      ks_abort(kOperation, "pthread_create(&worker->id.tid, &attr, ks_consumer_worker, (void*) worker) == 0",
               "consumer-worker create thread fail");
    }
  } else {
    const pid_t parent = getpid();
    worker->id.pid = fork();
    if (worker->id.pid < 0) {
      ks_abort(kOperation, "(worker->id.pid = fork()) >= 0", "consumer-worker create process fail");
    }
    if (worker->id.pid == 0) run_consumer_process(worker, parent);
  }
  worker->queue = {.type = WORKER_SOCK, .sockfd = worker->sockfd[1], .next = &worker->queue, .prev = &worker->queue};
  if (!ks_poll_add(producer->pollfd, worker->queue.sockfd, kWatchEvents, {.ptr = &worker->queue})) {
    ks_abort(kOperation, "epoll_ctl(producer_worker->pollfd, EPOLL_CTL_ADD, worker->queue.sockfd, ev) == 0",
             "producer-worker epoll add consumer-worker sockfd fail");
  }
}

bool ks_is_consumer_of(const ks_handle* handle) {
  return g_self != nullptr && g_self->handle == handle;
}

void ks_on_silence(ks_silence_fn fn, void* arg) {
  if (g_self == nullptr) ks_abort("ks_on_silence", "self", "only a worker can watch its clients");
  g_self->on_silence = fn;
  g_self->silence_arg = arg;
}

void ks_leave_unmapped(void) {
  if (g_self == nullptr) ks_abort("ks_leave_unmapped", "self", "only a worker can choose how it gets its requests");
  g_self->leaves_unmapped = true;
}

void ks_consumer_worker(ks_worker* worker) {
  constexpr char kOperation[] = "ks_consumer_worker";
  g_self = worker;
  if (worker->init_hook != nullptr) worker->init_hook(worker->init_arg);
  worker->pollfd = epoll_create(1);
  if (worker->pollfd < 0 || !set_fd_cloexec(worker->pollfd)) {
    ks_abort(kOperation, "(consumer_worker->pollfd = epoll_create(1)) >= 0 && set_fd_cloexec(consumer_worker->pollfd)",
             "consumer-worker create epoll fail");
  }
  if (!ks_poll_add(worker->pollfd, worker->sockfd[0], kWatchEvents, {.fd = worker->sockfd[0]})) {
    ks_abort(kOperation, "epoll_ctl(consumer_worker->pollfd, EPOLL_CTL_ADD, consumer_worker->sockfd[0], ev) == 0",
             "consumer-worker epoll add sockfd fail");
  }
  serve(worker);
  hang_up_and_forget(&worker->client_fd);  // asked, but stopped before it sent its request
  if (worker->sockfd[0] >= 0) shutdown(worker->sockfd[0], SHUT_RDWR);
  close_and_forget(&worker->sockfd[0]);
  close_and_forget(&worker->pollfd);
  if (worker->fini_hook != nullptr) worker->fini_hook(worker->fini_arg);
}
