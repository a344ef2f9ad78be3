// The life cycle of the daemon: prepare, publish both services, wait for a stop signal, clean up.
//
// Threads: the main thread only waits. Each service has a detached thread for its producer loop (its workers are
// threads of the framework), each message queue has one that relays its records, and one receives the stop signals. All
// threads block the stop signals; the last one waits for them with sigwait. So no system call of ours is interrupted,
// and a stop handler never runs on a thread that holds the mutex it needs. Only the platform's libraries run with the
// signal mask that the daemon was started with.
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "common/activity.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/package_config.h"
#include "common/process.h"
#include "common/service_names.h"
#include "common/text.h"
#include "daemon/crash_handler.h"
#include "daemon/dispatch.h"
#include "daemon/event_records.h"
#include "daemon/event_relay.h"
#include "daemon/msg_queue_listener.h"
#include "daemon/reentry.h"
#include "service/ks.h"

namespace {

constexpr std::size_t kLogDirSize = 256;

constexpr std::uint64_t kMainWorkers = 2;
constexpr std::uint64_t KS_SEND_MAIL_SERVER_THREAD_NUM = 5;

constexpr int kExitRefused = -1;  // no install path, or already running
constexpr int kExitNoService = -2;
constexpr time_t kWaitSliceSeconds = 10;
constexpr useconds_t kStartPollMicroseconds = 1000;  // needed only if the stop comes right after the start

// Longer than any request takes unless something holds it up.
constexpr std::chrono::minutes kLongRequest{1};

// Enough for two services with 1000 waiting clients each and for the requests being served.
constexpr unsigned long kWantedDescriptors = 4096;
// No client has a larger number: the kernel assigns the lowest free one, and far fewer descriptors are open.
constexpr unsigned long kMostSearched = 65536;

// The state of the process. Only the main thread uses it, except for terminate(), which the signal thread calls.
class Daemon {
 public:
  void parse_options(int argc, char** argv);
  // Publishes the services and starts the queue listeners. Call it after the log and the signal handlers are set up.
  void start();
  // Returns when a stop has been requested.
  void wait();
  void terminate();
  // Does not stop the mail service, which ends with the process: a mail being sent must not delay the stop.
  void stop();
  // Hangs up on the clients of both services. Async-signal-safe.
  void hang_up();

 private:
  static void* pthread_ks_start(void* self);
  static void* pthread_ks_send_mail_start(void* self);
  void free_all_obj();

  int is_daemon = 0;
  std::atomic<int> is_terminate{0};
  pthread_mutex_t terminate_mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t terminate_cond = PTHREAD_COND_INITIALIZER;
  ks_handle* ks_service_handle = nullptr;
  ks_handle* ks_send_mail_service_handle = nullptr;
  std::atomic<bool> main_service_over{false};  // its thread has ended or could not be started
  std::unique_ptr<MsgQueueListener> event_listener;
  std::unique_ptr<MsgQueueListener> log_listener;
};

constinit Daemon g_daemon;  // a signal handler needs a global

sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void terminate_handler(int) {
  g_daemon.terminate();
}

// Otherwise the first socket could get the number of a closed standard descriptor, and be closed later as standard
// output.
void occupy_standard_descriptors() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd > STDERR_FILENO) close(fd);
}

// The clients come first, because the backtrace may hang.
void handle_crash(int signum) {
  g_daemon.hang_up();
  crash_handler(signum);
}

void install_signal_handlers() {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // received in receive_stop_signals
  ks_signal(SIGINT, terminate_handler);
  ks_signal(SIGTERM, terminate_handler);
  ks_signal(SIGSEGV, handle_crash);
  ks_signal(SIGABRT, handle_crash);
}

void* receive_stop_signals(void*) {
  const sigset_t signals = stop_signals();
  int signum = 0;
  while (sigwait(&signals, &signum) == 0) ks_sig_dispatch(signum);
  return nullptr;
}

// Called in a worker that waits for a silent client.
void log_silent_client(void* service, int32_t client) {
  LOG_AT("main", "a worker of %s has been waiting half a minute for the request of pid %d.",
         static_cast<const char*>(service), static_cast<int>(client));
}

void set_up_worker(void* service) {
  ks_leave_unmapped();  // read_request_text has no use for a mapping
  ks_on_silence(log_silent_client, service);
}

bool start_detached(void* (*entry)(void*), void* argument) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, entry, argument) != 0) return false;
  pthread_detach(thread);
  return true;
}

void set_up_log() {
  const std::string install_path = package_install_path();
  if (install_path.empty()) {
    std::fprintf(stderr, "[%s][%d] get Install_Path fail.", "main", __LINE__);
    std::exit(kExitRefused);
  }
  log_set_dir(format_bounded(kLogDirSize, "%s/.log", install_path.c_str()).c_str());
}

void Daemon::parse_options(int argc, char** argv) {
  opterr = 0;  // unknown options are reported below
  int option;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
  while ((option = getopt(argc, argv, "dt")) != -1) {
    switch (option) {
      case 'd':
        is_daemon = 1;
        break;
      case 't':
        is_terminate = 1;
        break;
      case '?':
        std::fprintf(stderr, "Illegal option:-%c\n", std::isprint(optopt) != 0 ? optopt : '#');
        break;
      default:
        std::fprintf(stderr, "Not supported option\n");
    }
  }
}

void Daemon::start() {
  if (is_daemon != 0 && daemon(0, 0) != 0) LOG_AT("main", "daemon failed.");
  raise_descriptor_limit(kWantedDescriptors);
  prepare_dispatch();
  if (!start_detached(receive_stop_signals, nullptr)) {
    LOG_AT("main", "cannot receive signals.");  // refuse to run if we could not be stopped
    std::exit(kExitNoService);
  }

  ks_service_handle = ks_create(kMainServiceName, KS_PTHREAD_MODE, kMainWorkers, main_service_exec);
  ks_worker_init(ks_service_handle, set_up_worker, ks_service_handle->name);
  LOG_AT("main", "sock_name:%s.", ks_service_handle->sockfile);
  ks_send_mail_service_handle =
      ks_create(kMailServiceName, KS_PTHREAD_MODE, KS_SEND_MAIL_SERVER_THREAD_NUM, mail_service_exec);
  ks_worker_init(ks_send_mail_service_handle, set_up_worker, ks_send_mail_service_handle->name);
  LOG_AT("main", "send_mail_sock_name:%s, KS_SEND_MAIL_SERVER_THREAD_NUM:%d.", ks_send_mail_service_handle->sockfile,
         static_cast<int>(KS_SEND_MAIL_SERVER_THREAD_NUM));

  event_listener = std::make_unique<MsgQueueListener>(kEventQueueKey, notify_handler, kNotifyMessageSize);
  event_listener->Start();
  log_listener = std::make_unique<MsgQueueListener>(kLogQueueKey, eventlog_handler, kLogMessageSize);
  log_listener->Start();

  if (!start_detached(pthread_ks_start, this)) main_service_over = true;
  start_detached(pthread_ks_send_mail_start, this);
}

void* Daemon::pthread_ks_start(void* self) {
  auto* const owner = static_cast<Daemon*>(self);
  LOG_AT("pthread_ks_start", "ks_start.");
  ks_start(owner->ks_service_handle);
  owner->main_service_over = true;
  return nullptr;
}

void* Daemon::pthread_ks_send_mail_start(void* self) {
  LOG_AT("pthread_ks_send_mail_start", "ks_send_mail_start.");
  ks_start(static_cast<Daemon*>(self)->ks_send_mail_service_handle);
  return nullptr;
}

void log_long_requests() {
  while (const auto request = next_long_request(kLongRequest)) {
    if (request->program != 0) {
      LOG_AT("main", "%s of pid %d has been running for a minute, and waits for program pid %d.", request->command,
             static_cast<int>(request->client), static_cast<int>(request->program));
    } else {
      LOG_AT("main", "%s of pid %d has been running for a minute, without a program.", request->command,
             static_cast<int>(request->client));
    }
  }
}

void Daemon::wait() {
  while (is_terminate == 0) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const timespec deadline{.tv_sec = now.tv_sec + kWaitSliceSeconds, .tv_nsec = now.tv_usec * 1000};
    pthread_mutex_lock(&terminate_mutex);
    // terminate() sets the flag before it takes the mutex: either it is seen here, or the wait is woken.
    if (is_terminate == 0) pthread_cond_timedwait(&terminate_cond, &terminate_mutex, &deadline);
    pthread_mutex_unlock(&terminate_mutex);
    log_long_requests();
  }
}

// Called by the signal thread, or by a signal handler on a thread inside a platform library, where the stop signals are
// not blocked. Both are blocked here, so that a second signal cannot interrupt it while it holds the mutex.
void Daemon::terminate() {
  is_terminate = 1;
  const sigset_t signals = stop_signals();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &signals, &before);
  pthread_mutex_lock(&terminate_mutex);
  pthread_cond_signal(&terminate_cond);
  pthread_mutex_unlock(&terminate_mutex);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Shuts down the sockets of a service that ends with the process; null has no effect. The end of the process does not
// close them while a closer shares its descriptors. The service is marked as stopping first: otherwise its producer
// would take the shutdown for the end of the service and remove the socket file. Async-signal-safe.
void hang_up_on_clients(ks_handle* service) {
  if (service == nullptr) return;
  std::atomic_ref(service->stopping) = 1;
  const char* const path = service->sockfile;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  // A library call may have lowered the limit, and a container may have set one of a thousand million.
  const auto end = std::clamp<rlim_t>(limit.rlim_cur, kWantedDescriptors, kMostSearched);
  for (int fd = STDERR_FILENO + 1; fd < static_cast<int>(end); ++fd) {
    int domain = 0;
    socklen_t size = sizeof(domain);
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_UNIX) continue;
    sockaddr_un address{};
    size = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) continue;
    if (std::strncmp(address.sun_path, path, sizeof(address.sun_path)) == 0) shutdown(fd, SHUT_RDWR);
  }
}

void Daemon::stop() {
  // ks_stop has no effect until the service's thread has called ks_start.
  const std::atomic_ref<ks_worker*> worker(ks_service_handle->worker);
  while (worker.load() == nullptr && !main_service_over) usleep(kStartPollMicroseconds);
  ks_stop(ks_service_handle);
  free_all_obj();
  hang_up();
}

void Daemon::hang_up() {
  for (ks_handle* const service : {ks_service_handle, ks_send_mail_service_handle}) hang_up_on_clients(service);
}

void Daemon::free_all_obj() {
  LOG_AT("free_all_obj", "is_terminate");
  // Close both first, so that records being relayed by both finish in parallel.
  event_listener->Close();
  log_listener->Close();
  event_listener->Stop();
  event_listener.reset();
  log_listener->Stop();
  log_listener.reset();
  ks_free(std::exchange(ks_service_handle, nullptr));
}

}  // namespace

int main(int argc, char** argv) {
  remember_start();
  memory_set_up();
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet
  unsetenv("LD_LIBRARY_PATH");  // the platform's programs must not load the package's libraries
  occupy_standard_descriptors();
  activity_set_up();
  std::signal(SIGCHLD, SIG_DFL);  // if the starter ignores SIGCHLD, the kernel discards exit statuses
  set_up_log();
  LOG_AT("main", "nxe-ks-vistalprod start, Server:%s.", kMainServiceName);
  if (check_reentry(argv[0])) {
    LOG_AT("main", "warning: re-entry.");
    std::exit(kExitRefused);
  }
  install_signal_handlers();
  g_daemon.parse_options(argc, argv);
  g_daemon.start();
  g_daemon.wait();
  g_daemon.stop();
  std::exit(0);
}
