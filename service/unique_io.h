// Owns a request record, and hangs up on its client before releasing it. Closing alone would not end the connection: a
// program that was started meanwhile may hold a copy.
#pragma once

#include <memory>

#include "service/ks.h"

struct FreeIo {
  void operator()(ks_io* io) const {
    ks_io_hang_up(io);
    ks_io_free(io);
  }
};
using UniqueIo = std::unique_ptr<ks_io, FreeIo>;
