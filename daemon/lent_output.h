// Standard output, lent to one client at a time.
#pragma once

#include <sys/types.h>

#include "common/unique_fd.h"

// Opens descriptors in advance and sets stdout's buffer. Call once, before there are other threads.
void prepare_lent_output();

// During the object's lifetime the process's standard output goes to the client's descriptor; afterwards to /dev/null.
// Overlapping objects share it: the output of one handler may reach the other's client, and when the first ends, output
// of both goes to /dev/null. Never waits for the client. Any thread.
class LentOutput {
 public:
  // Takes ownership of a descriptor from a client of this user; -1 for none.
  LentOutput(int client_fd, uid_t user);
  LentOutput(const LentOutput&) = delete;
  LentOutput& operator=(const LentOutput&) = delete;
  ~LentOutput();

 private:
  const int client_fd_;
  const uid_t user_;
  UniqueFd collected_;  // output for a client whose descriptor is neither pipe nor socket
};
