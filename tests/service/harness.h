// A service under test, called as any client does or byte by byte over its socket.
#pragma once

#include <cstdint>
#include <string>
#include <thread>

#include "support/peer.h"

// A service that runs from start() to stop() or destruction, as its mode requires. The request's name selects what its
// callback does:
//   "echo"    replies the body, and behind it what can be read from the extra descriptor
//   "mapped"  replies the length of the mapping that the request came with, and the first byte that ks_io_read finds
//   "who"     replies the sender
//   "worker"  replies the thread id of the worker
//   "forge"   as a worker process, reports a worker ready that does not exist
//   "environ" replies its environment, one variable a line
//   "hold"    sends a byte on the extra descriptor, waits for one, then replies "hold"
//   "leave"   releases the request without a reply
//   "die"     kills its own process
// Any other name is the reply.
class Service {
 public:
  Service(const std::string& path, std::uint32_t mode, std::uint64_t workers);
  ~Service() { ks_free(handle_); }

  void begin();  // returns once the service can be stopped
  void start();  // returns once it runs
  void stop();   // and a blocking ks_start has returned
  ks_handle* handle() const { return handle_; }
  const std::string& name() const { return name_; }
  // Whether the service comes to hold this many connections, waiting ones included.
  bool comes_to_hold(int connections) const;

 private:
  const std::string path_;
  const std::string name_;
  ks_handle* const handle_;
  std::jthread runner_;
};

// A client as the request "who" names it.
std::string sender(pid_t pid, uid_t uid, gid_t gid);

// Two sockets connected to one another.
struct Line {
  UniqueFd ours;
  UniqueFd theirs;
};
Line make_line();

constexpr std::uint32_t kThreads = KS_STANDALONE | KS_PTHREAD_MODE;

class ServiceTest : public GuardedTest {
 protected:
  std::string path() const { return in_dir("s"); }
};
// Runs in each of the four modes.
class EveryMode : public ServiceTest, public ::testing::WithParamInterface<std::uint32_t> {};
