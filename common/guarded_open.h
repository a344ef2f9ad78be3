// Opens files in folders that other users can write to. Such a user can put anything at the path: these calls do not
// wait for that user, and do not write to another file through a link. (A user-space or network file system can still
// hold up every access.)
#pragma once

#include <sys/types.h>

#include <string>

#include "common/unique_fd.h"

// Opens `path` for reading if it refers to a regular file. Otherwise returns nothing, with errno set: opening a pipe
// without a writer, a terminal or a device could block or have side effects.
UniqueFd open_input_file(const char* path);

// Opens `path` for reading and writing, as an empty file of our own: truncates an existing one, or makes it with
// `mode`. Anything else at the path is removed first: a link, a pipe, a file that another user owns, that has a second
// name or that is a mount point. A folder that is not empty is renamed. A device is used as it is. Returns nothing,
// with errno set, on failure.
UniqueFd open_output_file(const char* path, mode_t mode);

// Removes what is at the path, a mount included; renames a folder that is not empty. False on failure; true also if
// there was nothing.
bool clear_away(const char* path);

// Keeps a folder open, so that its user is not redirected if a link replaces it. Its owner does not matter: files made
// in it by open_output_file belong to us.
class HeldFolder {
 public:
  // Does not follow a link in place of the folder.
  explicit HeldFolder(const char* path);
  explicit operator bool() const { return static_cast<bool>(fd_); }
  // A path of the file `name` in the folder, valid during this object's lifetime; empty without a folder.
  std::string path_of(const char* name) const;

 private:
  const UniqueFd fd_;
};
