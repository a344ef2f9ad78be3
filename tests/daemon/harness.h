// What end-to-end tests work with: the real daemon, its clients, and the platform's programs as stand-ins.
// These tests run inside the simulated appliance, so absolute paths are theirs to change.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

inline constexpr char kMain[] = "VistalServer-vistalprod";
inline constexpr char kMail[] = "VistalServer_send_mail-vistalprod";
inline constexpr char kLogFile[] = "/share/VistalServer/.log/.nxe_ks_vistalprod.log";

// Repeats `condition` until it holds; false when it still does not after ten seconds.
bool eventually(const std::function<bool()>& condition);

std::string read_file(const std::string& path);  // empty when there is none
void write_file(const std::string& path, const std::string& text);

// ---- Processes
// -----------------------------------------------------------------------------------------------

// A running program, killed and reaped with the object.
class Process {
 public:
  // `program` is looked up on PATH. Its standard error goes to `error_file` when given.
  explicit Process(const std::string& program, const std::vector<std::string>& args = {},
                   const std::string& error_file = "");
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();
  pid_t pid() const { return pid_; }
  void signal(int signum) const;
  // Waits at most ten seconds for the end. The raw wait status; a process that goes on is a test failure and
  // -1.
  int wait();

 private:
  pid_t pid_;
};

// The daemon, serving: started, and both services accept.
class Daemon {
 public:
  Daemon();
  pid_t pid() const { return process_.pid(); }
  Process& process() { return process_; }
  // SIGTERM; the raw wait status.
  int stop();

 private:
  Process process_;
};

std::size_t descriptor_count(pid_t pid);
// Processes whose parent is `pid`, zombies included.
std::size_t child_count(pid_t pid);

// ---- Requests
// ------------------------------------------------------------------------------------------------

struct Reply {
  int status;        // of the call
  std::string text;  // exactly as it came
  Json::Value json() const;
};

// One request to a service, as any client sends it; nullopt: no body at all.
Reply call(const char* service, const std::string& request,
           const std::optional<std::string>& body = std::nullopt, int extra_fd = -1);

// ---- Stand-ins
// -----------------------------------------------------------------------------------------------

// How a stand-in was called.
struct StandInCall {
  std::vector<std::string> argv;
  std::vector<std::string> environment;
  std::optional<std::string> input;  // what it was given to read, when that was a file or a pipe
};

// The stand-in at the absolute path of a platform program.
class StandIn {
 public:
  explicit StandIn(std::string path) : path_(std::move(path)) {}
  // Sets what it does from now on, one step a line (see appliance/stand_in.cpp); empty: print nothing and
  // exit 0.
  void plays(const std::string& script) const;
  // The calls since the last one of forget().
  std::vector<StandInCall> calls() const;
  void forget() const;
  // Takes the program away or puts it back.
  void remove() const;
  void restore() const;

 private:
  std::string path_;
};

// A daemon for the whole suite. Each test must leave it alive, with as many descriptors as before, without
// children and without temporary files.
class DaemonTest : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;
  void TearDown() override;
  // The lines that the log has grown by since the test began.
  std::vector<std::string> new_log_lines() const;
  static Daemon& daemon();

 private:
  std::size_t log_size_ = 0;
  std::size_t descriptors_ = 0;
};
