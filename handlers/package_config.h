// What the platform's package list says about our own application package.
#pragma once

#include <string>

// True when the list has the entry; `*path` is then its value, else untouched. Each call asks anew, for a
// package can be moved or updated while the daemon runs. Any thread.
bool package_install_path(std::string* path);
bool package_control_script(std::string* path);
