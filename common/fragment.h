// Fragments of web-server configuration. The server may read them at any time: a fragment appears whole or not at all,
// and when it cannot be written the old one stays.
#pragma once

#include <string>

// Puts a file that holds `text` in place of whatever stands at `path`, a link included. False when that fails, also for
// a path with a NUL in it. Any thread.
bool write_fragment(const std::string& path, const std::string& text);

// The same where `path` leads through links, which stay. A file that is replaced there hands on its owner and mode; a
// device is written to.
bool write_fragment_through_links(const std::string& path, const std::string& text);
