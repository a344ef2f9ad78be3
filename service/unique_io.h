// The owner of a request record. When it goes out of scope the client, if there is one, is hung up on: a program that
// was started meanwhile may hold a copy of the connection.
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
