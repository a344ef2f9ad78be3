// What a text of JSON costs in memory, told before the library reads it.
#pragma once

#include <cstddef>
#include <string_view>

// The most that one request may cost. A text alone is served up to a third of it (85 MiB), a list of a million
// addresses takes some 200 MB.
inline constexpr std::size_t kJsonBudget = 256 * 1024 * 1024;

// The bytes of heap that a request takes whose body is `text`, at most: the text itself, what either reader of
// json_param.h needs and builds, and what a command copies of that. Never too low, for any bytes at all: where
// the readers stop at an error, what follows is counted as if they went on. Takes no memory itself.
std::size_t json_cost(std::string_view text);
