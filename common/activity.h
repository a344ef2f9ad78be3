// The running requests and the programs that they run, for two purposes: the main thread logs requests that take long,
// and the trace records all.
//
// The trace is off unless the environment variable VISTALPROD_TRACE names a file when the daemon starts. Every program
// and every request then adds one line to that file when it ends:
//
//   2026-11-21T09:12:20.123+0100 program client=4711 uid=0 command=NAME program=/sbin/share_guard ms=12 end=exit 3
//   2026-11-21T09:12:20.124+0100 request client=4711 uid=0 command=NAME ms=14 end=replied
//
// A program that was not started for a request has "-" for client, uid and command. The trace contains no arguments,
// bodies, replies or exception texts, because they may be secrets. Bytes other than printable ASCII become "?", as do
// spaces in names and paths; names and paths are truncated to 255 bytes.
//
// Nothing here throws or changes errno. Any thread, unless a function says otherwise.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>

// Opens the trace, if requested, and removes the variable from the environment. If the file cannot be used, prints one
// line on standard error. Call once, before other threads exist and before programs are run.
void activity_set_up();

// One request, from its arrival to its end. It is in the list of running requests until it ends.
class RunningRequest {
 public:
  using Clock = std::chrono::steady_clock;

  // `command` must outlive the object.
  RunningRequest(const char* command, pid_t client, uid_t uid);
  RunningRequest(const RunningRequest&) = delete;
  RunningRequest& operator=(const RunningRequest&) = delete;
  ~RunningRequest();

  // Attributes all programs that the calling thread runs from now on to this request. After this object is destroyed,
  // the thread must not run programs unless it attaches to another request.
  void attach();
  // `how` is written to the trace. Only the first call from any thread has an effect.
  void end(const char* how);

 private:
  friend class ProgramRun;
  friend struct RunningRequests;

  const char* const command_;
  const pid_t client_;
  const uid_t uid_;
  const Clock::time_point arrived_ = Clock::now();
  std::atomic<pid_t> program_{0};  // the program that the request waits for; 0: none
  // Guarded by the list's mutex.
  bool is_running_ = true;
  bool was_reported_ = false;
  RunningRequest* next_ = nullptr;
  RunningRequest* previous_ = nullptr;
};

struct LongRequest {
  const char* command;
  pid_t client;
  pid_t program;  // 0: none
};

// A request that has been running for at least `age` and was not returned before, if any.
std::optional<LongRequest> next_long_request(std::chrono::seconds age);

// One run of a program. If ended() is never called, the program was not started. One thread at a time.
class ProgramRun {
 public:
  explicit ProgramRun(const char* path);
  ProgramRun(const ProgramRun&) = delete;
  ProgramRun& operator=(const ProgramRun&) = delete;
  ~ProgramRun();

  void started(pid_t pid);
  // Records the raw wait status (-1: unknown) and returns it.
  int ended(int status);

 private:
  static constexpr std::size_t kPathSize = 256;

  void trace(const char* how) const;

  char path_[kPathSize] = "";  // only for the trace
  const RunningRequest::Clock::time_point started_ = RunningRequest::Clock::now();
  pid_t pid_ = 0;
  pid_t outer_ = 0;  // the program that the request waited for before this one
  bool has_ended_ = false;
};
