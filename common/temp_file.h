// Temporary files for the captured output of programs.
#pragma once

#include <string>

// An empty file of its own in /tmp, named "/tmp/file" and six random characters, mode 0600. It is created
// exclusively, so that no other user can put a link or a file under a guessed name. No descriptor stays open: programs
// and readers open it by path. Removed with the object. One thread at a time per object.
class TempFile {
 public:
  TempFile();
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  // False when no file could be created; errno then tells why, and path() is empty.
  bool valid() const { return !path_.empty(); }
  const std::string& path() const { return path_; }

  // Leaves the file in place for good.
  void release() { owned_ = false; }

  // Removes the file now, released or not, and returns whether that worked. The destructor tries no more.
  bool remove();

 private:
  std::string path_;
  bool owned_ = false;
};
