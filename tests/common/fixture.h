// What every suite of this room runs in.
#pragma once

#include <fcntl.h>

#include <fstream>

#include "support/guard.h"

class CommonTest : public GuardedTest {
 protected:
  // Empty when there is no such file.
  static std::string contents(const std::string& path) { return content_of(Fd(open(path.c_str(), O_RDONLY))); }
  static void write_file(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
};
