// Splitting, trimming and bounded formatting of texts. Any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

// Splits `text` at every character that occurs in `delimiters` and returns the pieces in order. Two adjacent delimiters
// enclose an empty piece, and an empty text is one empty piece; `skip_empty` drops empty pieces.
std::vector<std::string> split_string(const std::string& text, const std::string& delimiters, bool skip_empty);

// Removes every character of `*text` that occurs in `set`. The second form removes blanks and newlines.
void erase_chars(std::string* text, const std::string& set);
void strip_blanks_newlines(std::string* text);

// Removes characters in `set` from both ends of `*text`.
void trim_chars(std::string* text, const std::string& set);

// Formats like snprintf into a buffer of `buffer_size` bytes, NUL included, and returns the text, silently truncated to
// fit. For arguments of platform programs, which have fixed maximum sizes. The v form takes a va_list, like vsnprintf.
std::string format_bounded(std::size_t buffer_size, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
std::string vformat_bounded(std::size_t buffer_size, const char* fmt, va_list arguments)
    __attribute__((format(printf, 2, 0)));
