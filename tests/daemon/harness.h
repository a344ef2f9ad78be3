// What end-to-end tests work with: the real daemon, its clients, and the platform's programs as stand-ins.
// These tests run inside the simulated appliance, so absolute paths are theirs to change.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "common/service_names.h"
#include "support/peer.h"

inline constexpr auto& kMain = kMainServiceName;
inline constexpr auto& kMail = kMailServiceName;
inline constexpr char kMainSocket[] = "/var/run/ks/494AC97B.sock";
inline constexpr char kMailSocket[] = "/var/run/ks/850CD619.sock";
inline constexpr char kLogFile[] = "/share/VistalServer/.log/.nxe_ks_vistalprod.log";

// What a log says, line by line, without the process, the time and the line numbers of the source.
std::string without_numbers(const std::string& log);

// A running program, killed and reaped with the object.
class Process {
 public:
  // `command` is one as a shell reads it.
  explicit Process(const std::string& command);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();
  pid_t pid() const { return pid_; }
  // Waits at most ten seconds for the end. The raw wait status; a process that goes on is a test failure and
  // -1.
  int wait();

 private:
  pid_t pid_;
};

// The daemon, serving: both services accept, and all their workers are there.
class Daemon : public Process {
 public:
  // `command` starts it.
  explicit Daemon(const std::string& command = "vistalprod");
  // SIGTERM; the raw wait status.
  int stop();
};

// How a stand-in was called. In its record a newline is "\n", two characters, and so it is here.
struct StandInCall {
  std::string line;   // name and arguments, joined by |
  std::string input;  // what it was given to read, when that was a file or a pipe
};

// The stand-in at the absolute path of a platform program or library, as long as the object lives.
class StandIn {
 public:
  explicit StandIn(std::string path);
  StandIn(const StandIn&) = delete;
  StandIn& operator=(const StandIn&) = delete;
  ~StandIn();
  // Sets what it does from now on, one step a line (see appliance/stand_in.cpp); empty: print nothing and
  // exit 0. Its calls are counted anew.
  void plays(const std::string& script) const;
  std::vector<StandInCall> calls() const;
  // Takes the program away or puts it back.
  void remove() const;
  void restore() const;

 private:
  const std::string path_;
};

// A daemon for the whole suite. Each test must leave it alive, with as many descriptors as before, without
// children and without temporary files.
class DaemonTest : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;
  void TearDown() override;
  // Both services answer; descriptors, children and temporary files are as when the test began.
  void expect_as_before() const;
  // What the log has grown by since the test began.
  std::string new_log() const;
  inline static std::unique_ptr<Daemon> daemon_;

 private:
  std::size_t log_size_ = 0;
  std::size_t descriptors_ = 0;
};
