// The other side of a benchmark: processes of their own, and what can be seen of them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Owner of a descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();
  int get() const { return fd_; }

 private:
  int fd_;
};

// Ends the program with what `operation` left in errno: a benchmark that has lost its set-up has no figures.
[[noreturn]] void give_up(const char* operation);

// A forked part of the benchmark, killed in the end. Make all of them before the first thread exists.
class ChildProcess {
 public:
  // The child runs `body` with its end of a stream socket pair and exits when that returns. `body` writes one
  // byte once it is ready; the constructor waits for it, at most 10 s.
  explicit ChildProcess(const std::function<void(int control)>& body);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }
  int control() const { return control_.get(); }

 private:
  ChildProcess(const std::function<void(int control)>& body, const int (&ends)[2]);

  pid_t pid_;
  Descriptor control_;
};

// A program, found on the PATH, without output; ended by SIGTERM and waited for.
class Program {
 public:
  explicit Program(const std::vector<std::string>& command);
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

// Memory of `bytes` zeros that children made afterwards share with this process; for the life of the process.
void* shared_memory(std::size_t bytes);

// One whole call of a service with a body of `size` bytes. The reply's length in bytes, or -1 when nobody serves
// that name; anything else that goes wrong ends the program.
std::int64_t call_service(const std::string& service, const char* request, const char* body,
                          std::size_t size);

// A figure of /proc/PID/status in KiB, for instance that of "VmRSS:".
double status_kib(pid_t pid, const std::string& label);

// The number of descriptors that a process has open.
long count_descriptors(pid_t pid);
