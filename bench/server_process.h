// The other side of a benchmark: a server in a process of its own.
#pragma once

#include <sys/types.h>

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

// Forks a server and kills it in the end. Make all of them before the first thread exists.
class ServerProcess {
 public:
  // The child runs `serve` with its end of a stream socket pair and exits when that returns. `serve` writes
  // one byte once clients can connect; the constructor waits for it, at most 10 s.
  explicit ServerProcess(void (*serve)(int control));
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess();

  pid_t pid() const { return pid_; }
  int control() const { return control_.get(); }

 private:
  ServerProcess(void (*serve)(int control), const int (&ends)[2]);

  pid_t pid_;
  Descriptor control_;
};

// The number of descriptors that a process has open.
long count_descriptors(pid_t pid);
