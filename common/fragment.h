// Fragments of web-server configuration. The server may read them at any time, so a fragment is replaced atomically; if
// writing fails, the old one stays.
#pragma once

#include <string>

// Replaces the file at `path`, or the link itself, by a file that contains `text`. False on failure, and for a path
// that contains a NUL. Any thread.
bool write_fragment(const std::string& path, const std::string& text);

// The same, but follows links at `path` and keeps them. The new file has the old one's owner and mode. A device is not
// replaced but written to.
bool write_fragment_through_links(const std::string& path, const std::string& text);
