// Values of the platform's configuration files.
#pragma once

#include <cstdio>
#include <string>

// Asks the platform's configuration reader for the value of `key` in `section` of `file`; a null `file` means
// the reader's own default. True when there is one: `*value` is then its first line, at most 127 characters.
// False when the reader cannot be run or the value is missing or empty; `*value` is then untouched. Starts a
// program and waits for it. Any thread.
bool rdconf_value(const char* file, const char* section, const char* key, std::string* value);

// The same from what the reader has printed: whatever that is, its first line alone is read.
bool rdconf_read_value(FILE* output, std::string* value);
