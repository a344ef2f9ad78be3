// Shared by all fuzzers. Each defines LLVMFuzzerTestOneInput, which returns 0 or aborts for any input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Ends the process, naming `what`, unless the condition holds.
void require(bool condition, const char* what);

// Reads decisions from the beginning of an input; after its end every decision is 0.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
  bool empty() const { return at_ == end_; }
  // A number of so many bytes, at most 8, the lowest first.
  std::uint64_t number(std::size_t bytes);
  std::size_t below(std::size_t limit) { return number(1) % limit; }
  bool flag() { return below(2) == 1; }
  // A byte, its length, and so many bytes, as far as there are any.
  std::string text();

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};
