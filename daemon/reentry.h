#pragma once

// Whether another live process runs under this program's name. `program` is its path as the process was
// called; its last component is compared with the command names in /proc over 15 characters, all that the
// kernel keeps. A zombie does not count; a null or empty path is never running.
bool check_reentry(const char* program);
