// Entries of the platform's package list for an application package.
#pragma once

#include <cstddef>
#include <string>

inline constexpr char kOwnPackage[] = "VistalServer";

// Each call reads the list again, because a package can be moved or updated while the daemon runs. Any thread.

// The path of the file `name` in the package's directory, truncated to `size` bytes including the terminator; empty if
// the list does not have the package's directory.
std::string package_file(const char* package, const char* name, std::size_t size);

// Whether the package's entry Enable is TRUE (in upper or lower case); false if it is missing.
bool package_enabled(const char* package);

// The entries of our own package; empty if missing.
std::string package_install_path();
std::string package_control_script();
