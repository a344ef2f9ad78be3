#include "common/temp_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "common/unique_fd.h"

TempFile::TempFile() {
  std::string path = "/tmp/fileXXXXXX";
  const UniqueFd created(mkostemp(path.data(), O_CLOEXEC));
  if (!created) return;
  path_ = std::move(path);
  owned_ = true;
}

TempFile::~TempFile() {
  if (owned_) remove();
}

bool TempFile::remove() {
  owned_ = false;
  return valid() && unlink(path_.c_str()) == 0;
}
