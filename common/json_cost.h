// Estimates how much memory a JSON text will need, before the library parses it.
#pragma once

#include <cstddef>
#include <string_view>

// The most memory that one request may need. It allows a single text of 85 MiB, one third of it; a list of a million
// addresses needs about 200 MB.
inline constexpr std::size_t kJsonBudget = 256 * 1024 * 1024;

// An upper bound for the heap memory, in bytes, of a request with the body `text`: the text itself, what either reader
// of json_param.h needs and builds, and a command's copies of it. Never too low for any input: text after an error is
// counted as if the readers continued. Allocates nothing.
std::size_t json_cost(std::string_view text);
