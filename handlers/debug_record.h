// Records of the last run of a command, for people who look into a problem on an appliance.
#pragma once

#include "common/unique_fd.h"

// Empties the record at `path`, or creates it, and opens it for writing. Null when it cannot be had: the
// command goes on without. The directory is one in which every program of the appliance creates files, so a
// link is not followed, for it may lead to a file that only root may write, and a pipe without a reader does
// not hold the caller up. Any thread.
UniqueStream open_debug_record(const char* path);
