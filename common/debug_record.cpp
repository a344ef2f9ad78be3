#include "common/debug_record.h"

#include <unistd.h>

#include <string>

namespace {

constexpr mode_t kRecordMode = 0600;  // records contain passwords

}  // namespace

UniqueStream open_debug_record(const HeldFolder& folder, const char* name) {
  const std::string path = folder.path_of(name);
  unlink(path.c_str());  // an existing file, even our own, may be open in another process
  UniqueFd fd = open_output_file(path.c_str(), kRecordMode);
  if (!fd) return nullptr;
  UniqueStream stream(fdopen(fd.get(), "w"));
  if (stream) fd.release();
  return stream;
}
