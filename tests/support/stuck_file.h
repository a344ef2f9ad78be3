// A file in user space that never answers: opening it works, reading and closing it wait.
#pragma once

#include <string>
#include <thread>

#include "support/guard.h"

class StuckFile {
 public:
  // Mounts a file system at `directory`, which it makes. valid() is false where that is not allowed.
  explicit StuckFile(std::string directory);
  // Lets go of all that wait.
  ~StuckFile();
  StuckFile(const StuckFile&) = delete;
  StuckFile& operator=(const StuckFile&) = delete;

  bool valid() const { return file_.get() >= 0; }
  int fd() const { return file_.get(); }

 private:
  void serve() const;
  const std::string directory_;
  const UniqueFd device_;
  std::jthread server_;
  UniqueFd file_;
};
