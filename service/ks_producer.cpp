// The producer. One loop owns the listening socket, the producer's ends of the control sockets and the queue of waiting
// clients. It passes on descriptors and 259-byte records, and waits only in epoll_wait.
//
//   new connection   -> paused, busy (1000 wait already, or descriptors run short) or to the tail of the queue
//   ready consumer   -> the client at the head of the queue is handed over; consumers take turns
//   lost client      -> out of the queue
//   dead process     -> found and replaced when a client is to be handed over
//
// Events come in batches, and handling one event can make a later one of the same batch stale. A removed client's entry
// is therefore marked by socket number 0 and released only after the batch. A worker's socket may have been replaced
// and is therefore read without waiting.
//
// Waiting clients use descriptors of the whole process. They get numbers from 1024 on, because libraries that call
// select need the smaller ones. The numbers at the top of the table are reserved, so that workers and the rest of the
// process keep working when the queue is full. If accept finds no free descriptor, listening pauses for a moment;
// otherwise the loop would spin.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service/ks_internal.h"

namespace {

constexpr int kBatchSize = 64;
// If more clients than this wait, the next one is told that the service is busy.
constexpr std::uint16_t kMostWaiting = 999;
// Waiting clients get numbers from this one on, if the limit allows: select can handle only the smaller ones.
constexpr int kFirstWaitingFd = 1024;
// The reserve is the descriptor limit divided by kReservedPart, but at most kMostReserved.
constexpr rlim_t kReservedPart = 4;
constexpr rlim_t kMostReserved = 1024;
constexpr int kListenPauseMs = 100;

void append(ks_queue* head, ks_queue* entry) {
  entry->next = head;
  entry->prev = head->prev;
  head->prev->next = entry;
  head->prev = entry;
}

void unlink_entry(ks_queue* entry) {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
}

struct Producer {
  ks_handle* handle;
  ks_worker* workers;
  ks_worker* self;        // the last of the workers; its queue entry is the head of the clients
  std::uint16_t waiting;  // clients in the queue; wraps
  std::uint64_t cursor;   // the consumer to look at first
  ks_queue released;      // entries of this batch that are no longer in use
  bool listen_paused;     // after accept found no free descriptor
};

// Removes a client from the queue and the poll set and returns its socket, which the caller then owns. The entry stays
// readable until the batch ends.
int detach_client(Producer& p, ks_queue* client) {
  const int sockfd = client->sockfd;
  epoll_ctl(p.self->pollfd, EPOLL_CTL_DEL, sockfd, nullptr);
  unlink_entry(client);
  client->sockfd = 0;
  append(&p.released, client);
  --p.waiting;
  return sockfd;
}

void drop_client(Producer& p, ks_queue* client) {
  int sockfd = detach_client(p, client);
  hang_up_and_forget(&sockfd);
}

void free_entries(ks_queue* head) {
  while (head->next != head) {
    ks_queue* entry = head->next;
    unlink_entry(entry);  // NOLINT(clang-analyzer-unix.Malloc): the one freed before is unlinked
    std::free(entry);
  }
}

// Prints why a consumer process is replaced, from its wait status.
void print_restart(const ks_handle* handle, const ks_worker* worker, int status) {
  const char* how = "WIFSTOPPED";
  int value = (status >> 8) & 0xff;
  if ((status & 0x7f) == 0) {
    how = "WIFEXITED";
  } else if ((status & 0xff) != 0x7f) {
    how = "WIFSIGNALED";
    value = status & 0x7f;
  }
  std::fprintf(stderr, "[KService] [WARN] [%s] consumer-worker[%zu].pid=%d %s=%d, restart it.\n", handle->name,
               static_cast<std::size_t>(worker->index), static_cast<int>(worker->id.pid), how, value);
}

// Replaces a consumer process that has ended or cannot be waited for. The new one is ready at once.
void replace_if_dead(Producer& p, ks_worker* worker) {
  if ((worker->type & KS_PROCESS_MODE) == 0) return;
  int status = 0;
  if (waitpid(worker->id.pid, &status, WNOHANG) == 0) return;
  print_restart(p.handle, worker, status);
  ks_consumer_worker_init(p.handle, worker);
}

// The next consumer in turn that may receive a client, or null.
ks_worker* find_ready(Producer& p) {
  const std::uint64_t size = p.handle->service_size;
  for (std::uint64_t step = 0; step < size; ++step) {
    const std::uint64_t i = (p.cursor + step) % size;
    replace_if_dead(p, &p.workers[i]);
    if (std::atomic_ref(p.workers[i].ready).load() == 0) continue;
    p.cursor = (i + 1) % size;
    return &p.workers[i];
  }
  return nullptr;
}

// Hands the client at the head of the queue to a ready consumer and returns its entry; null if there is no client or no
// ready consumer. The producer's copy of the socket stays open until the consumer's echo.
ks_queue* hand_over(Producer& p) {
  ks_queue* client = p.self->queue.next;
  if (client == &p.self->queue) return nullptr;
  ks_worker* worker = find_ready(p);
  if (worker == nullptr) return nullptr;
  directive transfer = make_directive(KS_DIR_TRANSFER);
  std::memcpy(transfer.data, &client->sockfd, sizeof(client->sockfd));
  send_directive(worker->sockfd[1], transfer);
  const bool sent = send_descriptor(worker->sockfd[1], client->sockfd);
  std::atomic_ref(worker->ready).store(0);
  worker->transfer_fd = detach_client(p, client);
  if (!sent) {
    send_no_descriptor(worker->sockfd[1]);
    hang_up_and_forget(&worker->transfer_fd);
  }
  return client;
}

void turn_away(int client, ks_directive_type why) {
  send_directive(client, why);
  hang_up_and_forget(&client);
}

// Moves a client to the number under which it waits. If only the reserve is left, tells the client that the service is
// busy and returns -1.
int place_to_wait(int client) {
  const int high = fcntl(client, F_DUPFD, kFirstWaitingFd);
  if (high >= 0) close(std::exchange(client, high));
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t reserved = std::min(limit.rlim_cur / kReservedPart, kMostReserved);
  if (static_cast<rlim_t>(client) < limit.rlim_cur - reserved) return client;
  turn_away(client, KS_DIR_BUSY);
  return -1;
}

void queue_client(Producer& p, int client) {
  auto* entry = static_cast<ks_queue*>(std::malloc(sizeof(ks_queue)));
  if (entry == nullptr) return hang_up_and_forget(&client);
  entry->type = CLIENT_SOCK;
  entry->sockfd = client;
  append(&p.self->queue, entry);
  ++p.waiting;
  // Moved and watched only if it has to wait: most clients are handed over at once.
  if (hand_over(p) == entry) return;
  client = place_to_wait(client);
  entry->sockfd = client;
  if (client < 0 || !ks_poll_add(p.self->pollfd, client, kWatchLoss, {.ptr = entry})) drop_client(p, entry);
}

void set_listening(Producer& p, bool on) {
  p.listen_paused = !on;
  epoll_event event{.events = on ? kWatchEvents : 0, .data = {.ptr = &p.self->queue}};
  epoll_ctl(p.self->pollfd, EPOLL_CTL_MOD, p.self->queue.sockfd, &event);
}

void accept_client(Producer& p) {
  const int client = ks_nonzero(accept(p.self->queue.sockfd, nullptr, nullptr));
  if (client < 0) {
    const bool out_of_resources = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
    if (out_of_resources) set_listening(p, false);
    return;
  }
  if (std::atomic_ref(p.handle->paused).load() != 0) return turn_away(client, KS_DIR_PAUSED);
  if (p.waiting > kMostWaiting) return turn_away(client, KS_DIR_BUSY);
  queue_client(p, client);
}

// Whether a consumer process has ended. Does not reap it: find_ready does that.
bool has_ended(const ks_worker* worker) {
  siginfo_t info{};
  return (worker->type & KS_PROCESS_MODE) != 0 &&
         (waitid(P_PID, static_cast<id_t>(worker->id.pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
          info.si_pid != 0);
}

void finish_transfer(ks_worker* worker, const directive& echo) {
  std::int32_t sockfd;
  std::memcpy(&sockfd, echo.data, sizeof(sockfd));
  if (sockfd < 0) {
    ks_abort("ks_producer_worker", "*((int*)&directive.data) >= 0", "producer-worker transfer client sockfd fail");
  }
  const bool failed = std::atomic_ref(worker->transfer_failed).exchange(0) != 0;
  // A consumer process may send any number. The descriptor that was handed over to it is closed, and no other.
  if (failed || has_ended(worker)) return hang_up_and_forget(&worker->transfer_fd);
  // This close does not wait: the consumer still has a copy, or has closed its copy with nothing unread.
  close_and_forget(&worker->transfer_fd);
}

void serve_worker(Producer& p, ks_queue* entry) {
  directive record;
  const ssize_t got = recv(entry->sockfd, &record, sizeof(record), MSG_DONTWAIT);
  // The event belongs to a socket that has been replaced since.
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got != sizeof(record)) {
    ks_abort("ks_producer_worker", "read(event_queue->sockfd, &directive, sizeof(directive)) == sizeof(directive)",
             "producer-worker receive consumer_worker directive fail");
  }
  if (record.type == KS_DIR_TRANSFER) {
    auto* worker = reinterpret_cast<ks_worker*>(reinterpret_cast<char*>(entry) - offsetof(ks_worker, queue));
    return finish_transfer(worker, record);
  }
  if (record.type == KS_DIR_READY) {
    std::uint64_t index;
    std::memcpy(&index, record.data, sizeof(index));
    if (index >= p.handle->service_size) return;
    std::atomic_ref(p.workers[index].ready).store(1);
  }
  hand_over(p);
}

void serve_event(Producer& p, ks_queue* entry, std::uint32_t events) {
  if (entry->sockfd == 0) return;
  if (entry->type == CLIENT_SOCK) {
    // Only a loss is watched for, so every event is one.
    drop_client(p, entry);
  } else if (events == kPeerClosed) {
    close_and_forget(&p.self->pollfd);
  } else if ((events & (EPOLLERR | EPOLLHUP)) != 0 || (events & EPOLLIN) == 0) {
    ks_abort("ks_producer_worker", "event_queue->type == CLIENT_SOCK", "get non-client socket execption %d",
             static_cast<int>(entry->type));
  } else if (entry->type == LISTEN_SOCK) {
    accept_client(p);
  } else {
    serve_worker(p, entry);
  }
}

void drop_waiting_clients(Producer& p) {
  ks_queue* head = &p.self->queue;
  for (ks_queue* client = head->next; client != head; client = client->next) hang_up_and_forget(&client->sockfd);
  free_entries(head);
}

}  // namespace

void ks_producer_worker(ks_handle* handle, ks_worker* workers) {
  Producer p{.handle = handle,
             .workers = workers,
             .self = &workers[handle->service_size],
             .waiting = 0,
             .cursor = 0,
             .released = {},
             .listen_paused = false};
  p.released.next = p.released.prev = &p.released;
  while (p.self->pollfd >= 0) {
    epoll_event events[kBatchSize];
    const int count = epoll_wait(p.self->pollfd, events, kBatchSize, p.listen_paused ? kListenPauseMs : -1);
    if (std::atomic_ref(handle->stopping).load() != 0) break;
    if (count < 0 && errno == EINTR) {
      errno = 0;
      continue;
    }
    if (count < 0 || (count == 0 && !p.listen_paused)) break;
    if (p.listen_paused) set_listening(p, true);
    for (int i = 0; i < count && p.self->pollfd >= 0; ++i) {
      serve_event(p, static_cast<ks_queue*>(events[i].data.ptr), events[i].events);
    }
    free_entries(&p.released);
  }
  free_entries(&p.released);
  drop_waiting_clients(p);
}
