// Owners of one descriptor and of one stream, which close it when they go out of scope.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

// Owns a descriptor or nothing (-1). Closing keeps errno, so that an earlier error can be reported after clean-up. One
// thread at a time per object.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  // Releases ownership; the caller closes the descriptor.
  int release() { return std::exchange(fd_, -1); }

  // Closes the current descriptor and owns `fd` instead.
  void reset(int fd = -1) {
    const int error = errno;
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
    errno = error;
  }

 private:
  int fd_ = -1;
};

struct StreamCloser {
  void operator()(FILE* stream) const { std::fclose(stream); }
};

// Owns a stream of fopen or fdopen, or null. Not for streams of popen_cmd.
using UniqueStream = std::unique_ptr<FILE, StreamCloser>;
