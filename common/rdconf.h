// Values of the platform's configuration files.
#pragma once

#include <cstdio>
#include <string>

// Runs the platform's configuration reader to get the value of `key` in `section` of `file`; a null `file` means the
// reader's default. On success stores the value's first line, at most 127 characters, in `*value` and returns true. If
// the reader cannot be run, or the value is missing or empty, returns false and leaves `*value` unchanged. Any thread.
bool rdconf_value(const char* file, const char* section, const char* key, std::string* value);

// The same for output that the reader has printed. Reads only the first line.
bool rdconf_read_value(FILE* output, std::string* value);
