// Records of the last run of a command, for diagnosing problems on an appliance.
#pragma once

#include "common/guarded_open.h"
#include "common/unique_fd.h"

// The folder of the records and of other files from a command's last run. Programs of every user make files in it.
inline constexpr char kScratchDir[] = "/tmp/.vistalsurveillance_log";

// Replaces the record `name` by a new, empty one that only root can read. Null on failure; the command then continues
// without a record. Any thread.
UniqueStream open_debug_record(const HeldFolder& folder, const char* name);
