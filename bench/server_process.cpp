#include "bench/server_process.h"

#include <dirent.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr int kStartTimeoutMs = 10000;

struct SocketPair {
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) give_up("socketpair");
  }
  int ends[2];
};

[[noreturn]] void run_server(void (*serve)(int control), const int (&ends)[2]) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  close(ends[0]);
  serve(ends[1]);
  _exit(0);
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

void give_up(const char* operation) {
  std::perror(operation);
  std::exit(1);
}

ServerProcess::ServerProcess(void (*serve)(int control)) : ServerProcess(serve, SocketPair().ends) {}

ServerProcess::ServerProcess(void (*serve)(int control), const int (&ends)[2])
    : pid_(fork()), control_(ends[0]) {
  if (pid_ < 0) give_up("fork");
  if (pid_ == 0) run_server(serve, ends);
  close(ends[1]);
  pollfd watched{.fd = control_.get(), .events = POLLIN, .revents = 0};
  char ready;
  if (poll(&watched, 1, kStartTimeoutMs) != 1 || read(control_.get(), &ready, 1) != 1) {
    give_up("server did not start");
  }
}

ServerProcess::~ServerProcess() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

long count_descriptors(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/fd";
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
  if (!directory) give_up(path.c_str());
  long count = -2;  // "." and ".."
  while (readdir(directory.get()) != nullptr) ++count;
  return count;
}
