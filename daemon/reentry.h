#pragma once

// Whether this process must give way to another live one of the same user that runs under this program's name: one
// that started before it, or that serves already. Of processes that start at the same time one goes on. `program` is
// its path as the process was called; its last component is compared with the command names in /proc over 15
// characters, all that the kernel keeps. A zombie does not count; a null or empty path is never running. To be called
// before SIGTERM is caught, which is how others know that a process has passed.
bool check_reentry(const char* program);
