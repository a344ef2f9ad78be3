// Records of the last run of a command, for people who look into a problem on an appliance.
#pragma once

#include "common/guarded_open.h"
#include "common/unique_fd.h"

// Where the records lie, and what else commands leave of their last run. Programs of every user make files in it.
inline constexpr char kScratchDir[] = "/tmp/.vistalsurveillance_log";

// Opens a new, empty record called `name`, which only root can read, in place of the last one. Null when it cannot be
// had: the command goes on without. Any thread.
UniqueStream open_debug_record(const HeldFolder& folder, const char* name);
