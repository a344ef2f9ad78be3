// What the daemon is doing: the requests that are being carried out, and the programs that they run. It is told to two
// readers: the main thread, which logs a request that takes long, and the trace.
//
// The trace is off unless the environment variable VISTALPROD_TRACE names a file when the daemon starts. Every program
// and every request then adds one line to that file when it ends:
//
//   2026-11-21T09:12:20.123+0100 program client=4711 uid=0 command=NAME program=/sbin/share_guard ms=12 end=exit 3
//   2026-11-21T09:12:20.124+0100 request client=4711 uid=0 command=NAME ms=14 end=replied
//
// A program that no request has started has "-" for client, uid and command. Arguments, bodies, replies and the texts
// of exceptions may be secrets, so none of them stands in it. Bytes other than printable ASCII become "?", and so do
// spaces in names and paths; a name or a path is cut at 255 bytes.
//
// Nothing here throws, and errno stays as it was. Any thread, unless a function says otherwise.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>

// Opens the trace, if one is wanted, and takes the variable out of the environment. A file that cannot be had is
// refused with one line on standard error. Once, before there are other threads and before programs are run.
void activity_set_up();

// One request, from its arrival to its end. On the list of running requests until it ends.
class RunningRequest {
 public:
  using Clock = std::chrono::steady_clock;

  // `command` must outlive the object.
  RunningRequest(const char* command, pid_t client, uid_t uid);
  RunningRequest(const RunningRequest&) = delete;
  RunningRequest& operator=(const RunningRequest&) = delete;
  ~RunningRequest();

  // The programs that the calling thread runs are this request's, for the rest of the thread's life: it must end, or
  // attach to another request, before it runs a program once this object is gone.
  void attach();
  // `how` is for the trace. Only the first call counts, whichever thread makes it.
  void end(const char* how);

 private:
  friend class ProgramRun;
  friend struct RunningRequests;

  const char* const command_;
  const pid_t client_;
  const uid_t uid_;
  const Clock::time_point arrived_ = Clock::now();
  std::atomic<pid_t> program_{0};  // that the request waits for; 0: none
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

// A request that has been running for that long, if there is one that was not returned before.
std::optional<LongRequest> next_long_request(std::chrono::seconds age);

// One program, from before its start to its end; a run that is never told an end was not started. One thread at a time.
class ProgramRun {
 public:
  explicit ProgramRun(const char* path);
  ProgramRun(const ProgramRun&) = delete;
  ProgramRun& operator=(const ProgramRun&) = delete;
  ~ProgramRun();

  void started(pid_t pid);
  // Takes the raw wait status, or -1 when there is none, and returns it.
  int ended(int status);

 private:
  static constexpr std::size_t kPathSize = 256;

  void trace(const char* how) const;

  char path_[kPathSize] = "";  // only for the trace
  const RunningRequest::Clock::time_point started_ = RunningRequest::Clock::now();
  pid_t pid_ = 0;
  pid_t outer_ = 0;  // the program that the request waited for before
  bool has_ended_ = false;
};
