// Opening files in folders where other users make files too. Whatever stands at the name, these calls neither wait
// for its owner nor let it lead them elsewhere. (A file system in user space and a server on the network can still
// hold up every access to them.)
#pragma once

#include <sys/types.h>

#include <string>

#include "common/unique_fd.h"

// Opens `path` for reading, if it leads to a regular file. Nothing, with errno set, for anything else: a pipe
// without a writer, a terminal or a device would hold the caller up or do something when it is opened.
UniqueFd open_input_file(const char* path);

// Opens `path` for reading and writing, as an empty file of our own: one that is there is emptied, and is made with
// `mode` otherwise. Whatever else stands at the path, such as a link, a pipe, a file that another user owns or that has
// a second name, or one that something is mounted on, is removed first, or renamed if it is a folder with files in it.
// Only a device is used as it is. Nothing, with errno set, when that cannot be done.
UniqueFd open_output_file(const char* path, mode_t mode);

// A folder, held so that a link that is put in its place does not lead its user elsewhere. Who owns it does not
// matter: what is made in it by open_output_file belongs to us.
class HeldFolder {
 public:
  // A link in place of the folder itself is not followed.
  explicit HeldFolder(const char* path);
  explicit operator bool() const { return static_cast<bool>(fd_); }
  // The path by which the file `name` in the folder is reached as long as this object lives; empty without a folder.
  std::string path_of(const char* name) const;

 private:
  const UniqueFd fd_;
};
