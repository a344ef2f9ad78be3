// Standard output, lent to one client at a time.
#pragma once

#include <sys/types.h>

#include "common/unique_fd.h"

// Opens what lending needs when no descriptor is left, and takes the buffer of the stream stdout over. Once, before
// there are other threads.
void prepare_lent_output();

// While the object lives, standard output of the process leads to the client's descriptor; afterwards to /dev/null.
// Objects that overlap share it: what one handler prints may reach the other's client, and the first to end sends both
// to /dev/null. None of it waits for the client. Any thread.
class LentOutput {
 public:
  // Takes over the descriptor that a client of this user handed over; -1 for none.
  LentOutput(int client_fd, uid_t user);
  LentOutput(const LentOutput&) = delete;
  LentOutput& operator=(const LentOutput&) = delete;
  ~LentOutput();

 private:
  const int client_fd_;
  const uid_t user_;
  UniqueFd collected_;  // what was printed for a client whose descriptor is neither pipe nor socket
};
