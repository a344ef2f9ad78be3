// The life cycle of a service: create, start, pause, stop, free.
//
// The handle owns one array of workers: `service_size` consumers followed by the producer. The array exists from
// ks_start to the end of the service. ks_start publishes it in handle->worker before it does anything else: from then
// on a stop is not lost, and ks_free waits.
//
// Two threads take part in a stop, the one that runs the producer's loop and the one that calls ks_stop. Either may
// come first; they synchronise through the producer's phase:
//
//   stopper:  claims the stop (stopping 0 -> 1), waits for kProducerRunning, wakes the producer, waits for
//             kProducerLeft, ends each consumer, sets kWorkersStopped; with KS_STANDALONE it then joins the producer's
//             thread, releases the array and clears handle->worker
//   producer: leaves its loop, sets kProducerLeft, waits for kWorkersStopped; in a blocking ks_start it then
//             releases the array and clears handle->worker
//   ks_free:  waits for handle->worker to be null
//
// The producer's loop ends first, because it would replace a consumer process that has quit. The producer's thread ends
// last: consumer processes are killed when the thread that forked them ends (PR_SET_PDEATHSIG), and that thread forks
// the replacements. If the loop of a blocking ks_start ends by itself (its sockets are gone), its thread is the
// stopper. Threads wait on the atomics themselves; there are no locks.

#include <fcntl.h>
#include <libgen.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service/ks_internal.h"

namespace {

constexpr mode_t kSocketDirMode = 0755;
constexpr mode_t kSocketMode = 0777;  // any local user may call

constexpr char kModeMissing[] = "(mode | KS_STANDALONE) != KS_STANDALONE";
constexpr char kModeUnknown[] =
    "(mode | KS_PROCESS_MODE) == KS_PROCESS_MODE || (mode | KS_PROCESS_MODE) == (KS_STANDALONE | "
    "KS_PROCESS_MODE) || "
    "(mode | KS_PTHREAD_MODE) == KS_PTHREAD_MODE || (mode | KS_PTHREAD_MODE) == (KS_STANDALONE | "
    "KS_PTHREAD_MODE)";

std::atomic_ref<std::uint8_t> paused_of(ks_handle* handle) {
  return std::atomic_ref(handle->paused);
}
std::atomic_ref<std::uint8_t> stopping_of(ks_handle* handle) {
  return std::atomic_ref(handle->stopping);
}
std::atomic_ref<ks_worker*> worker_of(ks_handle* handle) {
  return std::atomic_ref(handle->worker);
}
std::atomic_ref<std::uint32_t> phase_of(ks_worker* producer) {
  return std::atomic_ref(producer->phase);
}

void check_create_arguments(const char* name, std::uint32_t mode, std::uint64_t workers, ks_exec_fn exec) {
  constexpr char kOperation[] = "ks_create";
  if (name == nullptr || strnlen(name, MAXIMUM_NAME_SIZE + 1) > MAXIMUM_NAME_SIZE) {
    ks_abort(kOperation, "name && strlen(name) <= MAXIMUM_NAME_SIZE",
             "name cannot be NULL and maximum characters is %d", MAXIMUM_NAME_SIZE);
  }
  if (mode <= KS_STANDALONE) {
    ks_abort(kOperation, kModeMissing, "mode miss KS_PROCESS_MODE or KS_PTHREAD_MODE");
  }
  const std::uint32_t kind = mode & ~KS_STANDALONE;
  if (kind != KS_PROCESS_MODE && kind != KS_PTHREAD_MODE) {
    ks_abort(kOperation, kModeUnknown, "mode only work KS_PROCESS_MODE or KS_PTHREAD_MODE");
  }
  if (workers == 0) ks_abort(kOperation, "workers > 0", "workers option cannot be zero");
  if (exec == nullptr) ks_abort(kOperation, "exec", "exec must be callable function pointer");
}

// Removes an old socket file, or makes the directory (one level only) if there is no file. Aborts if the path is not a
// socket. bind reports any other problem.
void clear_socket_file(const char* sockfile) {
  struct stat status {};
  if (lstat(sockfile, &status) != 0) {
    char copy[kSockFileSize];
    ks_copy_text(copy, sizeof(copy), sockfile);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): changes only its argument
    mkdir(dirname(copy), kSocketDirMode);
  } else if (!S_ISSOCK(status.st_mode)) {
    ks_abort("ks_producer_worker_init", "S_ISSOCK(st.st_mode)", "%s is not a sock file", sockfile);
  }
  unlink(sockfile);
}

void listen_on(ks_worker* producer, const char* sockfile) {
  constexpr char kOperation[] = "ks_producer_worker_init";
  clear_socket_file(sockfile);
  producer->sockfd[1] = ks_nonzero(socket(AF_UNIX, SOCK_STREAM, 0));
  if (producer->sockfd[1] < 0 || !set_fd_cloexec(producer->sockfd[1])) {
    ks_abort(kOperation,
             "(producer_worker->sockfd[1] = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && "
             "set_fd_cloexec(producer_worker->sockfd[1])",
             "producer-worker create listen socket fail");
  }
  const sockaddr_un address = ks_socket_address(sockfile);
  if (bind(producer->sockfd[1], reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    ks_abort(kOperation,
             "bind(producer_worker->sockfd[1], (struct sockaddr *) &sockaddr, sizeof(struct sockaddr_un)) == 0",
             "producer-worker bind listen socket fail");
  }
}

void ks_producer_worker_init(ks_handle* handle, ks_worker* producer) {
  constexpr char kOperation[] = "ks_producer_worker_init";
  producer->index = handle->service_size;
  producer->sockfd[0] = -1;
  producer->transfer_fd = -1;
  producer->client_fd = -1;
  producer->type = KS_PTHREAD_MODE;
  listen_on(producer, handle->sockfile);
  producer->pollfd = epoll_create(1);
  if (producer->pollfd < 0 || !set_fd_cloexec(producer->pollfd)) {
    ks_abort(kOperation, "(producer_worker->pollfd = epoll_create(1)) >= 0 && set_fd_cloexec(producer_worker->pollfd)",
             "producer-worker create epoll fail");
  }
  producer->queue = {
      .type = LISTEN_SOCK, .sockfd = producer->sockfd[1], .next = &producer->queue, .prev = &producer->queue};
  if (listen(producer->queue.sockfd, SOMAXCONN) != 0) {
    ks_abort(kOperation, "listen(producer_worker->queue.sockfd, SOMAXCONN) == 0", "producer-worker listen socket fail");
  }
  if (chmod(handle->sockfile, kSocketMode) != 0) {
    ks_abort(kOperation, "chmod(service_handle->sockfile, 0777) == 0", "producer-worker change socket file mode fail");
  }
  if (!ks_poll_add(producer->pollfd, producer->queue.sockfd, kWatchEvents, {.ptr = &producer->queue})) {
    ks_abort("ks_start", "epoll_ctl(producer_worker->pollfd, EPOLL_CTL_ADD, producer_worker->queue.sockfd, ev) == 0",
             "producer-worker epoll add listen sockfd fail");
  }
}

void start_consumer(ks_handle* handle, ks_worker* worker, std::uint64_t index) {
  worker->index = index;
  worker->type = handle->mode;
  worker->exec = handle->exec;
  worker->init_hook = handle->init_hook;
  worker->init_arg = handle->init_arg;
  worker->fini_hook = handle->fini_hook;
  worker->fini_arg = handle->fini_arg;
  worker->sockfd[0] = -1;
  worker->sockfd[1] = -1;
  worker->transfer_fd = -1;
  worker->client_fd = -1;
  worker->handle = handle;
  ks_consumer_worker_init(handle, worker);
}

[[noreturn]] void abort_started_twice() {
  ks_abort("ks_start", "service_handle->worker == NULL", "cannot start service twice");
}

void set_phase(ks_worker* producer, ks_producer_phase phase) {
  phase_of(producer).store(phase);
  phase_of(producer).notify_all();
}

void wait_for_phase(ks_worker* producer, ks_producer_phase phase) {
  std::uint32_t current;
  while ((current = phase_of(producer).load()) < phase) phase_of(producer).wait(current);
}

// Releases the array. The service's own threads must not use the handle afterwards: another thread may free it.
void end_service(ks_handle* handle, ks_worker* workers) {
  std::free(workers);
  worker_of(handle).store(nullptr);
  worker_of(handle).notify_all();
}

void wait_until_ended(ks_handle* handle) {
  ks_worker* workers;
  while ((workers = worker_of(handle).load()) != nullptr) worker_of(handle).wait(workers);
}

void end_consumer(ks_worker* worker) {
  send_directive(worker->sockfd[1], KS_DIR_QUIT);
  // A consumer that waits for a descriptor message would take the record for that message. It sees the hang-up.
  shutdown(worker->sockfd[1], SHUT_RDWR);
  if ((worker->type & KS_PROCESS_MODE) != 0) {
    while (waitpid(worker->id.pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  } else {
    pthread_join(worker->id.tid, nullptr);
  }
  // A consumer thread has closed its own end and set it to -1; its old number may be in use again.
  close_and_forget(&worker->sockfd[0]);
  close_and_forget(&worker->sockfd[1]);
  close_and_forget(&worker->pollfd);
  hang_up_and_forget(&worker->transfer_fd);
}

// Hangs up on clients that have not been accepted yet. Closing the listening socket would drop them, too, but could
// wait for the owners of descriptors that they have sent.
void drain_backlog(int listening) {
  int client;
  while ((client = accept(listening, nullptr, nullptr)) >= 0) hang_up_and_forget(&client);
}

// Ends every worker. Called by one thread per run of the service, the one that has set `stopping`.
void stop_workers(ks_handle* handle, ks_worker* workers) {
  ks_worker* producer = &workers[handle->service_size];
  // The wake-up cannot be lost: a listening socket that is shut down reports a hang-up until it is closed.
  shutdown(producer->sockfd[1], SHUT_RDWR);
  wait_for_phase(producer, kProducerLeft);
  for (std::uint64_t i = 0; i < handle->service_size; ++i) end_consumer(&workers[i]);
  if (producer->type == KS_PTHREAD_MODE) {
    set_phase(producer, kWorkersStopped);
    pthread_join(producer->id.tid, nullptr);
  }
  drain_backlog(producer->sockfd[1]);
  close_and_forget(&producer->sockfd[1]);
  close_and_forget(&producer->pollfd);
}

void run_producer(ks_handle* handle, ks_worker* workers) {
  set_phase(&workers[handle->service_size], kProducerRunning);
  ks_producer_worker(handle, workers);
  set_phase(&workers[handle->service_size], kProducerLeft);
}

void* standalone_producer(void* arg) {
  auto* handle = static_cast<ks_handle*>(arg);
  ks_worker* workers = worker_of(handle).load();
  workers[handle->service_size].id.tid = pthread_self();
  run_producer(handle, workers);
  wait_for_phase(&workers[handle->service_size], kWorkersStopped);
  return nullptr;
}

}  // namespace

ks_handle* ks_create(const char* name, uint32_t mode, uint64_t workers, ks_exec_fn exec) {
  check_create_arguments(name, mode, workers, exec);
  auto* handle = static_cast<ks_handle*>(std::calloc(1, sizeof(ks_handle)));
  if (handle == nullptr) {
    ks_abort("ks_create", "(service_handle = malloc(sizeof(ks_handle)))", "alloc ks_handle memory fail");
  }
  if (name[0] == '@' && name[1] != '/') {
    ks_abort("ks_create", "(name[0] == '@' && name[1] == '/')", "name must be absolute file path");
  }
  char path[kSockFileSize];
  ks_socket_path(name, path, "ks_create", "");
  ks_copy_text(handle->sockfile, kSockFileSize, path);
  handle->magic = KS_HANDLE_MAGIC;
  handle->mode = mode;
  handle->service_size = workers;
  handle->exec = exec;
  ks_copy_text(handle->name, kSockFileSize, name);
  return handle;
}

void ks_worker_init(ks_handle* handle, ks_hook_fn fn, void* arg) {
  ks_verify_handle(handle, "ks_worker_init", "cannot start incorrect ks_handle %p");
  handle->init_hook = fn;
  handle->init_arg = arg;
}

void ks_worker_fini(ks_handle* handle, ks_hook_fn fn, void* arg) {
  ks_verify_handle(handle, "ks_worker_fini", "cannot start incorrect ks_handle %p");
  handle->fini_hook = fn;
  handle->fini_arg = arg;
}

void ks_start(ks_handle* handle) {
  std::signal(SIGPIPE, SIG_IGN);
  ks_verify_handle(handle, "ks_start", "cannot start incorrect ks_handle %p");
  if (worker_of(handle).load() != nullptr) abort_started_twice();
  ks_io_prepare();
  auto* workers = static_cast<ks_worker*>(std::calloc(handle->service_size + 1, sizeof(ks_worker)));
  if (workers == nullptr) {
    ks_abort("ks_start", "(service_handle->worker = calloc(service_option->service_size + 1, sizeof(ks_worker)))",
             "alloc worker memory fail");
  }
  // A stopped service may be started again: clear what its last stop has set.
  if (stopping_of(handle).exchange(0) != 0) paused_of(handle).store(0);
  ks_worker* none = nullptr;
  if (!worker_of(handle).compare_exchange_strong(none, workers)) abort_started_twice();
  ks_worker* producer = &workers[handle->service_size];
  ks_producer_worker_init(handle, producer);
  for (std::uint64_t i = 0; i < handle->service_size; ++i) start_consumer(handle, &workers[i], i);
  if ((handle->mode & KS_STANDALONE) != 0) {
    producer->init_hook = handle->init_hook;
    producer->fini_hook = handle->fini_hook;
    // The thread stores its own id: once it runs, the service may be stopped and the array released.
    pthread_t thread;
    if (!ks_create_thread(&thread, standalone_producer, handle)) {
      ks_abort("ks_start", "pthread_create(&producer_worker->id.tid, &attr, ks_producer_worker, service_handle) == 0",
               "producer-worker create thread fail");
    }
    return;
  }
  producer->type = KS_PROCESS_MODE;
  producer->id.pid = getpid();
  run_producer(handle, workers);
  if (stopping_of(handle).exchange(1) == 0) {
    unlink(handle->sockfile);
    stop_workers(handle, workers);
  } else {
    wait_for_phase(producer, kWorkersStopped);
  }
  end_service(handle, workers);
}

void ks_pause(ks_handle* handle) {
  ks_verify_handle(handle, "ks_pause", "cannot pause incorrect ks_handle %p");
  paused_of(handle).store(1);
}

void ks_resume(ks_handle* handle) {
  ks_verify_handle(handle, "ks_resume", "cannot resume incorrect ks_handle %p");
  paused_of(handle).store(0);
}

void ks_stop(ks_handle* handle) {
  ks_verify_handle(handle, "ks_stop", "cannot stop incorrect ks_handle %p");
  if (ks_is_consumer_of(handle)) {
    ks_abort("ks_stop", "!ks_is_consumer_of(service_handle)", "a worker cannot stop its own service");
  }
  ks_worker* workers = worker_of(handle).load();
  if (workers == nullptr) return;
  if (stopping_of(handle).exchange(1) != 0) {
    wait_until_ended(handle);
    return;
  }
  // Wait until the start has finished: it still needs the socket file.
  wait_for_phase(&workers[handle->service_size], kProducerRunning);
  paused_of(handle).store(1);
  unlink(handle->sockfile);
  stop_workers(handle, workers);
  if ((handle->mode & KS_STANDALONE) == 0) {
    set_phase(&workers[handle->service_size], kWorkersStopped);
    return;
  }
  end_service(handle, workers);
}

void ks_free(ks_handle* handle) {
  ks_stop(handle);
  wait_until_ended(handle);
  handle->magic = 0;
  std::free(handle);
}
