#include "common/fragment.h"

#include <cstdio>

#include "common/unique_fd.h"

bool write_fragment(const std::string& path, const std::string& text) {
  const UniqueStream file(std::fopen(path.c_str(), "we"));
  if (!file) return false;
  std::setbuf(file.get(), nullptr);  // so that the count tells what has reached the file
  return std::fwrite(text.data(), 1, text.size(), file.get()) > 0;
}
