#include "fuzz/input.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

std::uint64_t Input::number(std::size_t bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < bytes && at_ != end_; ++i) value |= std::uint64_t{*at_++} << (8 * i);
  return value;
}

std::string Input::text() {
  const auto length = static_cast<std::ptrdiff_t>(number(1));
  const std::uint8_t* const begin = std::exchange(at_, at_ + std::min(length, end_ - at_));
  return {begin, at_};
}
