// `ksctl serve`: stands in for a service to show the requests that the daemon sends. It first checks the conditions
// under which the framework would abort.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "common/unique_fd.h"
#include "common/write_all.h"
#include "service/ks.h"
#include "tools/cli.h"

namespace {

// The service's own 7 (listening socket, poll sets, control sockets, a spare one), plus those of requests.
constexpr int kDescriptors = 16;

// Used by the exec callback, which has no user argument. There is one worker, so no lock is needed.
std::string g_reply_text;
unsigned g_requests_left = 0;  // 0: no limit
int g_output_error = 0;        // errno of the first line that could not be written
int g_end_signal = SIGTERM;

// The request's body on one line: a final line feed is dropped, others are shown as "\n".
std::string body_on_a_line(ks_io* io) {
  std::string body = read_whole(ks_io_fd(io));
  if (body.ends_with('\n')) body.pop_back();
  for (std::size_t at = 0; (at = body.find('\n', at)) != std::string::npos; at += 2) body.replace(at, 1, "\\n");
  return body;
}

void show_and_reply(const char* request_name, ks_io* io, int extra_fd) {
  const std::string line = std::string(request_name) + " " + body_on_a_line(io) + "\n";
  const bool shown = write_all(STDOUT_FILENO, line.data(), line.size());
  if (!shown && g_output_error == 0) g_output_error = errno;
  if (ks_io_alive(io)) {
    ks_io_realloc(io, 0);
    ks_io_write(io, g_reply_text.data(), g_reply_text.size());
    ks_reply(io);
  }
  ks_discard(extra_fd, ks_io_uid(io));
  ks_io_free(io);
  // EBADF: the caller has closed standard output on purpose. Other errors mean that its reader is gone.
  const bool lost_reader = !shown && g_output_error != EBADF;
  if (lost_reader || (g_requests_left > 0 && --g_requests_left == 0)) kill(getpid(), g_end_signal);
}

// Binds the socket file, to get the reason if that is impossible (false, with errno). The service replaces the file.
bool try_bind(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    mkdir(std::filesystem::path(path).parent_path().c_str(), 0755);  // as the framework does
  } else if (!S_ISSOCK(status.st_mode)) {                            // a link to a socket
    errno = EEXIST;
    return false;
  } else if (unlink(path.c_str()) != 0) {
    return false;
  }
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const UniqueFd trial(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return trial.get() >= 0 && bind(trial.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// Whether as many threads as the service needs can exist at once.
bool can_start_threads() {
  const auto until_stopped = [](const std::stop_token& stop) {
    while (!stop.stop_requested()) std::this_thread::yield();
  };
  try {
    const std::jthread producer(until_stopped);
    const std::jthread consumer(until_stopped);
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

// Nullopt if we can serve this name; otherwise prints an error message and returns the exit status.
std::optional<int> take_over(const Service& service, bool replace) {
  const std::string who = "serve " + std::string(service.name);
  if (const auto over = check_service(kServeCommand, service, kDescriptors)) return over;
  const int error = try_connect(service.path);
  if (!replace && error != ENOENT && error != ECONNREFUSED) {
    const bool served = error == 0 || error == EAGAIN;
    complain(who + ": " +
             (served
                  ? service.path + " is served already"
                  : "cannot tell whether " + service.path + " is served: " + std::generic_category().message(error)) +
             "; --replace takes it over");
    return kExitLocal;
  }
  if (!can_start_threads()) {
    complain(who + ": cannot start a thread");
    return kExitLocal;
  }
  if (try_bind(service.path)) return std::nullopt;
  complain(who + ": cannot use " + service.path + ": " + std::generic_category().message(errno));
  return kExitStatusBase + KS_STATUS_CONNECT;
}

int serve(const Service& service) {
  // Blocked before the service's threads exist, so that only the wait below receives them.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  ks_handle* handle = ks_create(service.name, KS_PTHREAD_MODE | KS_STANDALONE, 1, show_and_reply);
  ks_start(handle);
  int signum = 0;
  sigwait(&ends, &signum);
  ks_free(handle);
  if (g_output_error == 0) return 0;
  errno = g_output_error;
  return local_trouble(kServeCommand, "cannot write to standard output");
}

int run_serve(int argc, char** argv) {
  bool replace = false;
  const Option options[] = {
      {.name = "reply",
       .value = "TEXT",
       .help = "the reply to each request, empty unless given",
       .store =
           [](const char* value) {
             g_reply_text = value;
             return true;
           }},
      {.name = "count",
       .value = "REQUESTS",
       .help = "end after so many, 0: never",
       .store = store_number(&g_requests_left, kMaxSeconds)},
      {.name = "replace", .help = "take the socket from the process that serves it", .store = store_flag(&replace)}};
  Service service;
  if (const auto over = read_service(kServeCommand, options, argc, argv, &service)) return *over;
  if (const auto over = take_over(service, replace)) return *over;
  return serve(service);
}

}  // namespace

const Subcommand kServeCommand = {
    .name = "serve",
    .operands = "SERVICE",
    .summary = "Stands in for a service until SIGINT or SIGTERM: prints each request as a line and replies.",
    .statuses =
        "  0   it was ended\n"
        "  1   served by another process, or ksctl itself failed: output, descriptors or threads\n"
        "  2   wrong usage\n"
        "  12  the socket cannot be used\n"
        "  17  not the name of a service\n",
    .example = "ksctl serve --count 1 --reply '{\"result\":0}' notify",
    .run = run_serve,
};
