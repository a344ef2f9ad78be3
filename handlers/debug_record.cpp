#include "handlers/debug_record.h"

#include <fcntl.h>

UniqueStream open_debug_record(const char* path) {
  // What fopen with "w" does, and O_NOFOLLOW and O_NONBLOCK besides.
  UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666));
  if (!fd) return nullptr;
  UniqueStream stream(fdopen(fd.get(), "w"));
  if (stream) fd.release();
  return stream;
}
