// Fragments of web-server configuration.
#pragma once

#include <string>

// Puts `text` in place of what the file holds, making the file where its directory exists. False when nothing could be
// written: no such directory, a full disk. What the file held is gone then, too.
bool write_fragment(const std::string& path, const std::string& text);
