// Splitting, trimming and bounded formatting of texts. All of it is safe on any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

// Cuts `text` at every single character that occurs in `delimiters` and returns the pieces in order. Two
// neighbouring delimiters enclose an empty piece, and an empty text is one empty piece; empty pieces are left
// out when `skip_empty` is set.
std::vector<std::string> split_string(const std::string& text, const std::string& delimiters, bool skip_empty);

// Removes every character of `*text` that occurs in `set`, wherever it stands. The second form removes blanks
// and newlines.
void erase_chars(std::string* text, const std::string& set);
void strip_blanks_newlines(std::string* text);

// Removes characters of `set` from both ends of `*text`, up to the first on each side that is not in it.
void trim_chars(std::string* text, const std::string& set);

// Formats as snprintf does into a buffer of `buffer_size` bytes, terminator included, and returns the text
// that ends up there: at most buffer_size - 1 characters, the rest is cut off silently. What platform
// programs are given is limited to fixed sizes; this keeps the size visible where the text is made. The v
// form takes the arguments as a list, as vsnprintf does.
std::string format_bounded(std::size_t buffer_size, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
std::string vformat_bounded(std::size_t buffer_size, const char* fmt, va_list arguments)
    __attribute__((format(printf, 2, 0)));
