#include "bench/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "service/ks.h"

namespace {

constexpr int kStartTimeoutMs = 10000;
constexpr std::uint32_t kCallTimeoutSeconds = 60;

struct SocketPair {
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) give_up("socketpair");
  }
  int ends[2];
};

[[noreturn]] void run_program(const std::vector<std::string>& command) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int stream = 0; stream < 3; ++stream) dup2(null, stream);
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

struct FreeIo {
  void operator()(ks_io* io) const { ks_io_free(io); }
};

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

void give_up(const char* operation) {
  std::perror(operation);
  std::exit(1);
}

ChildProcess::ChildProcess(const std::function<void(int control)>& body)
    : ChildProcess(body, SocketPair().ends) {}

ChildProcess::ChildProcess(const std::function<void(int control)>& body, const int (&ends)[2])
    : pid_(fork()), control_(ends[0]) {
  if (pid_ < 0) give_up("fork");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(ends[0]);
    body(ends[1]);
    _exit(0);
  }
  close(ends[1]);
  pollfd watched{.fd = control_.get(), .events = POLLIN, .revents = 0};
  char ready;
  if (poll(&watched, 1, kStartTimeoutMs) != 1 || read(control_.get(), &ready, 1) != 1) {
    give_up("child did not start");
  }
}

ChildProcess::~ChildProcess() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

Program::Program(const std::vector<std::string>& command) : pid_(fork()) {
  if (pid_ < 0) give_up("fork");
  if (pid_ == 0) run_program(command);
}

Program::~Program() {
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

void* shared_memory(std::size_t bytes) {
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) give_up("shared memory");
  return memory;
}

std::int64_t call_service(const std::string& service, const char* request, const char* body,
                          std::size_t size) {
  const std::unique_ptr<ks_io, FreeIo> io(ks_io_create());
  if (size > 0 && ks_io_fwrite(body, size, io.get()) != 0) give_up("write a body");
  const int status = ks_call(service.c_str(), request, io.get(), kCallTimeoutSeconds, -1);
  if (status == KS_STATUS_OK) return static_cast<std::int64_t>(io->shared_size);
  if (status == KS_STATUS_CONNECT) return -1;
  std::fprintf(stderr, "%s %s: status %d\n", service.c_str(), request, status);
  std::exit(1);
}

double status_kib(pid_t pid, const std::string& label) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, label.size(), label) == 0) return std::stod(line.substr(label.size()));
  }
  give_up(label.c_str());
}

long count_descriptors(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/fd";
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
  if (!directory) give_up(path.c_str());
  long count = -2;  // "." and ".."
  while (readdir(directory.get()) != nullptr) ++count;
  return count;
}
