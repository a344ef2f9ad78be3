// `ksctl wait` and `ksctl path`: whether a service accepts connections, and the path of its socket.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>

#include "common/write_all.h"
#include "service/ks.h"
#include "tools/cli.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPollPeriod{5};

// Tries until a connection is accepted or the time is over, at least once. Returns 0 or the last errno.
int wait_for_accept(const std::string& path, std::chrono::seconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  for (;;) {
    const int error = try_connect(path);
    const Clock::duration left = deadline - Clock::now();
    if (error == 0 || left <= Clock::duration::zero()) return error;
    std::this_thread::sleep_for(std::min<Clock::duration>(left, kPollPeriod));
  }
}

int run_wait(int argc, char** argv) {
  unsigned seconds = kDefaultSeconds;
  const Option options[] = {timeout_option(&seconds)};
  Service service;
  if (const auto over = read_service(kWaitCommand, options, argc, argv, &service)) return *over;
  if (const auto over = check_service(kWaitCommand, service, 1)) return *over;
  const int error = wait_for_accept(service.path, std::chrono::seconds(seconds));
  if (error == 0) return 0;
  complain("wait " + std::string(service.name) + ": " + service.path + " accepts no connection after " +
           std::to_string(seconds) + " s: " + std::generic_category().message(error));
  return kExitStatusBase + KS_STATUS_TIMEOUT;
}

int run_path(int argc, char** argv) {
  Service service;
  if (const auto over = read_service(kPathCommand, {}, argc, argv, &service)) return *over;
  const std::string line = service.path + "\n";
  return write_all(STDOUT_FILENO, line.data(), line.size()) ? 0 : local_trouble(kPathCommand, "cannot write");
}

}  // namespace

const Subcommand kWaitCommand = {
    .name = "wait",
    .operands = "SERVICE",
    .summary = "Waits until the socket of a service accepts a connection. SECONDS of 0: tries once.",
    .statuses =
        "  0   it does\n"
        "  1   ksctl itself failed\n"
        "  2   wrong usage\n"
        "  11  it did not in time\n"
        "  12  its socket cannot be used\n"
        "  17  not the name of a service\n",
    .example = "ksctl wait mail -t 30 && ksctl call mail test",
    .run = run_wait,
};
const Subcommand kPathCommand = {
    .name = "path",
    .operands = "SERVICE",
    .summary = "Prints the path of a service's socket, whether or not it is served.",
    .statuses =
        "  0   it has been printed\n"
        "  1   it could not be written\n"
        "  2   wrong usage\n"
        "  17  not the name of a service\n",
    .example = "ls -l \"$(ksctl path main)\"",
    .run = run_path,
};
