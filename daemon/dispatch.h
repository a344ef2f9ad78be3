// From a request's name to its handler.
#pragma once

#include <span>

#include "service/ks.h"

// Carries out one command. `io` stays the dispatcher's; `extra_fd` is the number of the client's descriptor,
// or -1; the number means nothing by then: standard output stands for it.
using command_handler = void (*)(ks_io* io, int extra_fd);

struct CommandRow {
  const char* name;
  command_handler handler;  // null: not built in; such a command is unknown
};

// Opens what dispatch must have at hand when no descriptor is left. Once, before the services start.
void prepare_dispatch();

// The exec callbacks of the two services. Any worker thread.
void main_service_exec(const char* request_name, ks_io* io, int extra_fd);
void mail_service_exec(const char* request_name, ks_io* io, int extra_fd);
