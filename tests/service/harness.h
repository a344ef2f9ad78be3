// A service under test, and the two ways to talk to it: as any client does, and byte by byte over its socket.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "service/directive.h"
#include "service/ks.h"
#include "support/guard.h"

using Reply = std::pair<int, std::string>;  // the status and what came

// One request through ks_ez_call. An empty body is none at all.
Reply call(const std::string& name, const std::string& request, const std::string& body = "",
           int extra_fd = -1);

// A service that runs from start() to stop() or destruction, in whichever way its mode asks for. Its exec
// callback does what the request's name says:
//   "echo"    replies the body, and behind it what can be read from the extra descriptor
//   "who"     replies the process id of the client
//   "worker"  replies its own process id
//   "environ" replies its environment, one variable a line
//   "hold"    sends a byte on the extra descriptor, waits for one, then replies "hold"
//   "leave"   releases the request without a reply
//   "die"     kills its own process
// Any other name is the reply.
class Service {
 public:
  Service(const std::string& path, std::uint32_t mode, std::uint64_t workers);
  ~Service() { ks_free(handle_); }

  void start();  // returns once the service can be stopped
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

Fd memory_file(std::string_view content, unsigned flags = 0);

// From now on this process opens descriptors below this number only.
void limit_descriptors(int number);

// Waits until there is something to read, the end included.
bool readable(int fd, int timeout_ms = 10'000);

// A client, or a service, by hand. Nothing it does waits longer than ten seconds.
class Peer {
 public:
  explicit Peer(const std::string& path);  // connects
  explicit Peer(int fd) : fd_(fd) {}       // takes over

  int fd() const { return fd_; }
  void connect_to(const std::string& path) const;
  void leave() { fd_.reset(); }
  Peer& bytes(std::string_view bytes);
  Peer& record(int type, int flag = 0, std::string_view data = "");
  Peer& request(std::string_view name, int flag = 0) { return record(KS_DIR_REQUEST, flag, name); }
  Peer& fds(const std::vector<int>& fds);  // one message of one byte with all of these
  // A "hold" request with this line as its extra descriptor.
  Peer& hold(int line) { return request("hold", 1).fds({memory_file("")}).fds({line}); }
  // The type of the next record; 0 at the end of the connection, -1 when nothing comes.
  int next() const;
  // The types of all records to come, and 0 or -1.
  std::vector<int> rest() const;

 private:
  Fd fd_;
};

// Two sockets connected to one another.
struct Line {
  Fd ours;
  Fd theirs;
};
Line make_line();

// A listening socket and nothing behind it.
Fd listen_at(const std::string& path);

constexpr std::uint32_t kThreads = KS_STANDALONE | KS_PTHREAD_MODE;

class ServiceTest : public GuardedTest {
 protected:
  std::string path() const { return in_dir("s"); }
};
// Runs in each of the four modes.
class EveryMode : public ServiceTest, public ::testing::WithParamInterface<std::uint32_t> {};
