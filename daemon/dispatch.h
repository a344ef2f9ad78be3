// From a request's name to its handler.
#pragma once

#include "service/ks.h"

// Opens descriptors in advance that dispatch needs even when none are left. Call once, before the services start.
void prepare_dispatch();

// The exec callbacks of the two services. Any worker thread.
void main_service_exec(const char* request_name, ks_io* io, int extra_fd);
void mail_service_exec(const char* request_name, ks_io* io, int extra_fd);
