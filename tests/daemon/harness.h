// For end-to-end tests: the real daemon, its clients, and stand-ins for the platform's programs. These tests run inside
// the simulated appliance, so they may change files at absolute paths.
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
  // Waits at most ten seconds for the end and returns the raw wait status. A process that has not ended is a test
  // failure; the result is then -1.
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

// A call of a stand-in. A newline is the two characters "\n", as in the stand-in's record.
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
  // Sets its script, one step per line (see appliance/stand_in.cpp); empty: print nothing and exit 0. Clears its record
  // of calls.
  void plays(const std::string& script) const;
  std::vector<StandInCall> calls() const;
  // Takes the program away until the object is destroyed.
  void remove() const;

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
