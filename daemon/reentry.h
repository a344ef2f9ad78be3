#pragma once

// Whether this process must give way to another live process of the same user and program name, one that started
// earlier or already serves. Of processes that start at the same time, one continues. `program` is argv[0]; the first
// 15 characters of its last component, all that the kernel keeps, are compared with the command names in /proc. Zombies
// do not count; for a null or empty path the result is false. Call it before installing a handler for SIGTERM, by which
// other processes see that this one has passed.
bool check_reentry(const char* program);
