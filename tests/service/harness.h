// A service under test, and the two ways to talk to it: as any client does, and byte by byte over its socket.
#pragma once

#include <cstdint>
#include <future>
#include <initializer_list>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "service/directive.h"
#include "service/ks.h"
#include "support/guard.h"

// The exec callback of every service here. What it does is the request's name:
//   "echo"    replies the body, read through the descriptor
//   "who"     replies "pid uid gid" of the client
//   "worker"  replies its own process id
//   "open"    replies how many descriptors its process has open
//   "extra"   replies what can be read from the extra descriptor, or "none"
//   "environ" replies its environment, one variable a line
//   "hold"    sends a byte on the extra descriptor, waits for one, then echoes
//   "leave"   releases the request without a reply
//   "die"     kills its own process
//   "wire"    (process kind) writes the body on its control socket
// Any other name is the reply.
void answer(const char* request_name, ks_io* io, int extra_fd);

struct Reply {
  int status;
  std::string text;
  bool operator==(const Reply&) const = default;
};
void PrintTo(const Reply& reply, std::ostream* out);

// One request through ks_ez_call. An empty body is none at all.
Reply call(const std::string& name, const std::string& request, const std::string& body = "",
           int extra_fd = -1);

// A service that runs from construction to stop() or destruction, in whichever way its mode asks for.
class Service {
 public:
  Service(const std::string& path, std::uint32_t mode, std::uint64_t workers);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  void start();  // returns once the service can be stopped
  void stop();   // and a blocking ks_start has returned
  ks_handle* handle() const { return handle_; }
  const std::string& name() const { return name_; }
  bool published() const;  // whether the socket file is there
  // Whether the service comes to hold this many connections, waiting ones included.
  bool comes_to_hold(std::size_t connections) const;

 private:
  const std::string path_;
  const std::string name_;
  ks_handle* handle_;
  std::thread runner_;
};

// A client by hand. Nothing it does waits longer than ten seconds.
class Peer {
 public:
  explicit Peer(const std::string& path);  // connects
  explicit Peer(int fd) : fd_(fd) {}       // takes over
  Peer(Peer&& other) noexcept;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { leave(); }

  int fd() const { return fd_; }
  void leave();        // closes
  void say_no_more();  // half-closes
  void send_bytes(std::string_view bytes) const;
  void send_record(int type, int flag = 0, std::string_view data = "") const;
  // One message of one byte with all of these descriptors.
  void send_fds(std::initializer_list<int> fds) const;
  // The type of the next record; 0 at the end of the connection, -1 when nothing comes.
  int next() const;
  bool quiet() const;  // nothing has come yet, and the connection stands
  // Reads to the end of the connection: true once it comes. *done: whether a KS_DIR_DONE came before it.
  bool ends(bool* done = nullptr) const;

 private:
  int fd_;
};

Fd memory_file(std::string_view content, unsigned flags = 0);

// Two sockets connected to one another.
struct Line {
  Fd ours;
  Fd theirs;
};
Line make_line();

// A "hold" request that has reached its worker.
class Held {
 public:
  explicit Held(const std::string& name);
  Reply release();  // lets the worker go on; its reply
  int line() const { return ours_; }

 private:
  Held(const std::string& name, Line line);
  Fd ours_;
  std::future<Reply> reply_;
};

class ServiceTest : public GuardedTest {
 protected:
  std::string path() const { return in_dir("s"); }
};
// The legal modes, by name.
class EveryMode : public ServiceTest, public ::testing::WithParamInterface<std::uint32_t> {};
std::string mode_name(const ::testing::TestParamInfo<std::uint32_t>& info);
