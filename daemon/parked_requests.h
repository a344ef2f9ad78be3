// Requests that stay unanswered until their clients leave.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <mutex>

#include "service/unique_io.h"

// Keeps the connections of requests with unknown commands, and releases each when its client leaves. With more than
// kMost requests the oldest is hung up on, so that clients cannot exhaust the daemon's descriptors. The object must
// live until the process ends. Any thread.
class ParkedRequests {
 public:
  // Opens the poll set. Throws std::bad_alloc only.
  ParkedRequests();
  // Takes the request over and closes its memory file at once. Hangs up if the request cannot be kept.
  void park(UniqueIo io);

 private:
  static constexpr std::size_t kMost = 256;
  static void* watch(void* self);
  void release_abandoned();
  bool is_watched();
  UniqueIo take(std::uint64_t number);

  const int pollfd_;
  std::mutex mutex_;
  bool watched_ = false;                       // the thread that waits for clients to leave exists
  std::uint64_t last_ = 0;                     // the number of the latest request
  std::map<std::uint64_t, UniqueIo> waiting_;  // by number: the oldest first
};
