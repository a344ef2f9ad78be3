// What the two services answer to: everything that a client can make this daemon do.
#pragma once

#include <span>

#include "daemon/dispatch.h"

// In search order; the first row whose name is the request's wins.
std::span<const CommandRow> main_commands();
std::span<const CommandRow> mail_commands();
