#include "common/text.h"

#include <cstdio>
#include <cstring>

std::vector<std::string> split_string(const std::string& text, const std::string& delimiters, bool skip_empty) {
  std::vector<std::string> pieces;
  for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find_first_of(delimiters, begin);
    std::string piece = text.substr(begin, end - begin);
    if (!piece.empty() || !skip_empty) pieces.push_back(std::move(piece));
  }
  return pieces;
}

void erase_chars(std::string* text, const std::string& set) {
  std::erase_if(*text, [&set](char c) { return set.find(c) != std::string::npos; });
}

void strip_blanks_newlines(std::string* text) {
  erase_chars(text, " \n");
}

void trim_chars(std::string* text, const std::string& set) {
  text->erase(text->find_last_not_of(set) + 1);  // if all characters are in `set`, npos + 1 is 0
  text->erase(0, text->find_first_not_of(set));
}

std::string vformat_bounded(std::size_t buffer_size, const char* fmt, va_list arguments) {
  std::string buffer(buffer_size, '\0');
  if (std::vsnprintf(buffer.data(), buffer_size, fmt, arguments) < 0) return {};
  buffer.resize(strnlen(buffer.data(), buffer_size));
  return buffer;
}

std::string format_bounded(std::size_t buffer_size, const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  std::string text = vformat_bounded(buffer_size, fmt, arguments);
  va_end(arguments);
  return text;
}
