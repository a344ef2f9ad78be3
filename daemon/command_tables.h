// The command tables of the two services.
#pragma once

#include <span>

#include "handlers/command.h"

// In search order; the first row with the request's name wins.
std::span<const CommandRow> main_commands();
std::span<const CommandRow> mail_commands();
