// Replaces the fuzzing engine: runs every input of a corpus once.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/input.h"

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "/nonexistent")) {
    std::printf("%s\n", entry.path().c_str());
    std::fflush(stdout);  // the last one named is the one that fails
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    ++count;
  }
  return count > 0 ? 0 : 1;
}
