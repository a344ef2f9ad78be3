// The owners of one descriptor and of one stream: they close it when they go out of scope.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

// Holds a descriptor or nothing (-1). Closing leaves errno alone, so that an error met before a clean-up can
// be reported after it. One thread at a time per object.
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

  // Gives the descriptor up; the caller closes it.
  int release() { return std::exchange(fd_, -1); }

  // Closes what is held and takes `fd` instead.
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

// Holds a stream or null; for streams of fopen and fdopen, not for those of popen_cmd.
using UniqueStream = std::unique_ptr<FILE, StreamCloser>;
