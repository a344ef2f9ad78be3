// What the platform's package list says about an application package.
#pragma once

#include <cstddef>
#include <string>

inline constexpr char kOwnPackage[] = "VistalServer";

// Each call asks anew, for a package can be moved or updated while the daemon runs. Any thread.

// The path of the file `name`, relative to the package's directory, cut to `size` bytes, its terminator
// included; empty when the package list does not say where the package is.
std::string package_file(const char* package, const char* name, std::size_t size);

// Whether its entry Enable is TRUE, in any case; false when there is none.
bool package_enabled(const char* package);

// The entries of our own package, empty when the list does not have them.
std::string package_install_path();
std::string package_control_script();
