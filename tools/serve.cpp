// `ksctl serve`: stands in for a service, so that what the daemon sends can be watched.
#include <getopt.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <string>

#include "service/ks.h"
#include "tools/cli.h"

namespace {

// What the exec callback needs; it is handed no argument of ours. One worker, so no lock.
std::string reply_text;
unsigned requests_left = 0;  // 0: no limit
int end_signal = SIGTERM;

// The request's body with line feeds shown as "\n", less a last one, so that it stays on its line.
std::string body_on_a_line(ks_io* io) {
  std::string body;
  char chunk[4096];
  for (ssize_t got; (got = pread(ks_io_fd(io), chunk, sizeof chunk, static_cast<off_t>(body.size()))) > 0;) {
    body.append(chunk, static_cast<std::size_t>(got));
  }
  if (body.ends_with('\n')) body.pop_back();
  for (std::size_t at = 0; (at = body.find('\n', at)) != std::string::npos; at += 2)
    body.replace(at, 1, "\\n");
  return body;
}

void show_and_reply(const char* request_name, ks_io* io, int extra_fd) {
  const std::string line = std::string(request_name) + " " + body_on_a_line(io) + "\n";
  const bool shown = write_all(STDOUT_FILENO, line.data(), line.size());
  if (ks_io_alive(io)) {
    ks_io_realloc(io, 0);
    ks_io_write(io, reply_text.data(), reply_text.size());
    ks_reply(io);
  }
  ks_io_free(io);
  if (extra_fd >= 0) close(extra_fd);
  if (!shown || (requests_left > 0 && --requests_left == 0)) kill(getpid(), end_signal);
}

int run_serve(int argc, char** argv) {
  const option long_options[] = {
      {"reply", required_argument, nullptr, 'r'}, {"count", required_argument, nullptr, 'c'}, {}};
  for (int choice; (choice = getopt_long(argc, argv, ":", long_options, nullptr)) != -1;) {
    if (choice == 'r') {
      reply_text = optarg;
    } else if (choice != 'c') {
      return wrong_option(kServeCommand, choice, argv);
    } else if (!parse_number(optarg, kMaxSeconds, &requests_left)) {
      return wrong_usage(kServeCommand, std::string("not a number of requests: ") + optarg);
    }
  }
  const char* name = only_service(kServeCommand, argc - optind, argv + optind);
  if (name == nullptr) return kExitUsage;
  // Blocked before the service's threads exist, so that they only ever end the wait below.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  ks_handle* service = ks_create(name, KS_PTHREAD_MODE | KS_STANDALONE, 1, show_and_reply);
  ks_start(service);
  int signum = 0;
  sigwait(&ends, &signum);
  ks_free(service);
  return 0;
}

}  // namespace

const Subcommand kServeCommand = {
    .name = "serve", .usage = "serve [--reply TEXT] [--count REQUESTS] SERVICE", .run = run_serve};
