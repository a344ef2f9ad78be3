#include "common/debug_record.h"

#include <unistd.h>

#include <string>

namespace {

constexpr mode_t kRecordMode = 0600;  // passwords are among what is recorded

}  // namespace

UniqueStream open_debug_record(const HeldFolder& folder, const char* name) {
  const std::string path = folder.path_of(name);
  unlink(path.c_str());  // even a file of our own may be open to others, from when it had another mode
  UniqueFd fd = open_output_file(path.c_str(), kRecordMode);
  if (!fd) return nullptr;
  UniqueStream stream(fdopen(fd.get(), "w"));
  if (stream) fd.release();
  return stream;
}
