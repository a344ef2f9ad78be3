// Temporary files for the captured output of programs.
#pragma once

#include <string>

// An empty file named "/tmp/file" plus six random characters, mode 0600. It is created exclusively, so that no other
// user can place a link or a file under a guessed name. No descriptor stays open: programs and readers open it by path.
// The destructor removes it. One thread at a time per object.
class TempFile {
 public:
  TempFile();
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  // False if no file could be created; errno is then set, and path() is empty.
  bool valid() const { return !path_.empty(); }
  const std::string& path() const { return path_; }

  // Keeps the file after destruction.
  void release() { owned_ = false; }

  // Removes the file now, even if released, and returns whether that succeeded. The destructor does not try again.
  bool remove();

 private:
  std::string path_;
  bool owned_ = false;
};
