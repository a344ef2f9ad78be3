// What the two services answer to, by name.
#pragma once

#include <span>

#include "handlers/command.h"

// In search order; the first row whose name is the request's wins.
std::span<const CommandRow> main_commands();
std::span<const CommandRow> mail_commands();
