// `ksctl wait` and `ksctl path`: where a service is and whether it accepts.
#include <getopt.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>

#include "service/ks.h"
#include "tools/cli.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPollPeriod{5};

class Socket {
 public:
  // Non-blocking: connecting to a service whose backlog is full would otherwise last as long as the jam.
  Socket() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Connects once and hangs up; 0, or the errno of what failed.
int try_connect(const sockaddr_un& address) {
  const Socket client;
  if (client.get() < 0) return errno;
  const int result = connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return result == 0 ? 0 : errno;
}

// Tries until a connection is accepted or the time is over, once at least; 0, or the last try's errno.
int wait_for_accept(const std::string& path, std::chrono::seconds limit) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const Clock::time_point deadline = Clock::now() + limit;
  for (;;) {
    const int error = try_connect(address);
    const Clock::duration left = deadline - Clock::now();
    if (error == 0 || left <= Clock::duration::zero()) return error;
    std::this_thread::sleep_for(std::min<Clock::duration>(left, kPollPeriod));
  }
}

int run_wait(int argc, char** argv) {
  const option no_long_options[] = {{nullptr, 0, nullptr, 0}};
  unsigned seconds = kDefaultSeconds;
  for (int option; (option = getopt_long(argc, argv, ":t:", no_long_options, nullptr)) != -1;) {
    if (option != 't') return wrong_option(kWaitCommand, option, argv);
    if (!parse_number(optarg, kMaxSeconds, &seconds))
      return wrong_usage(kWaitCommand, std::string("not a number of seconds: ") + optarg);
  }
  const char* name = only_service(kWaitCommand, argc - optind, argv + optind);
  if (name == nullptr) return kExitUsage;

  const std::string path = socket_path(name);
  const int error = wait_for_accept(path, std::chrono::seconds(seconds));
  if (error == 0) return 0;
  complain("wait " + std::string(name) + ": " + path + " accepts no connection after " +
           std::to_string(seconds) + " s: " + std::generic_category().message(error));
  return kExitStatusBase + KS_STATUS_TIMEOUT;
}

int run_path(int argc, char** argv) {
  const option no_long_options[] = {{nullptr, 0, nullptr, 0}};
  const int option = getopt_long(argc, argv, ":", no_long_options, nullptr);
  if (option != -1) return wrong_option(kPathCommand, option, argv);
  const char* name = only_service(kPathCommand, argc - optind, argv + optind);
  if (name == nullptr) return kExitUsage;

  const std::string line = socket_path(name) + "\n";
  if (write_all(STDOUT_FILENO, line.data(), line.size())) return 0;
  complain(std::string("path: cannot write: ") + std::generic_category().message(errno));
  return kExitLocal;
}

}  // namespace

const Subcommand kWaitCommand = {.name = "wait", .usage = "wait SERVICE [-t SECONDS]", .run = run_wait};
const Subcommand kPathCommand = {.name = "path", .usage = "path SERVICE", .run = run_path};
