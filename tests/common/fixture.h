// What every suite of this room runs in.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/guard.h"

class CommonTest : public GuardedTest {
 protected:
  // Empty when there is no such file.
  static std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  static bool exists(const std::string& path) { return std::filesystem::exists(path); }
};
