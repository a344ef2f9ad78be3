// Fragments of web-server configuration.
#pragma once

#include <string>

// Puts `text` in place of what the file holds, making the file where its directory exists. True when at least
// a part of it was written: a disk can fill up in the middle. False when nothing was: the file cannot be
// opened (what it held stays), or takes not a byte (it is empty then).
bool write_fragment(const std::string& path, const std::string& text);
