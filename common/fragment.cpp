#include "common/fragment.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "common/unique_fd.h"
#include "common/write_all.h"

namespace {

constexpr mode_t kMode = 0666;  // as far as the umask allows
constexpr int kMaxLinks = 40;   // the kernel's own limit

// The folder part of a path, with its slash; empty for the working directory.
std::string folder_of(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

// The path of a temporary file in the same folder, for renaming. The server includes only "*.conf". One per thread.
std::string aside(const std::string& path) {
  return folder_of(path) + ".fragment." + std::to_string(gettid());
}

// Follows the links at `path`; the target need not exist. Empty for a loop.
std::string target_of(std::string path) {
  for (int followed = 0; followed < kMaxLinks; ++followed) {
    char link[PATH_MAX];
    const ssize_t size = readlink(path.c_str(), link, sizeof link);
    if (size < 0) return path;
    const std::string text(link, static_cast<std::size_t>(size));
    path = text.starts_with('/') ? text : folder_of(path).append(text);
  }
  return {};
}

// `like`: the status of the file to be replaced, whose owner and mode are kept, or null.
bool replace_file(const std::string& path, const std::string& text, const struct stat* like) {
  const std::string fresh = aside(path);
  unlink(fresh.c_str());  // left by a process that was killed
  const UniqueFd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (!file) return false;
  bool done = write_all(file.get(), text.data(), text.size());
  if (like != nullptr) {
    done = fchown(file.get(), like->st_uid, like->st_gid) == 0 && fchmod(file.get(), like->st_mode & ALLPERMS) == 0 &&
           done;
  }
  done = done && std::rename(fresh.c_str(), path.c_str()) == 0;
  if (!done) unlink(fresh.c_str());
  return done;
}

bool has_nul(const std::string& path) {
  return path.find('\0') != std::string::npos;
}

}  // namespace

bool write_fragment(const std::string& path, const std::string& text) {
  return !has_nul(path) && replace_file(path, text, nullptr);
}

bool write_fragment_through_links(const std::string& path, const std::string& text) {
  if (has_nul(path)) return false;
  const std::string target = target_of(path);
  if (target.empty()) return false;
  struct stat old {};
  if (lstat(target.c_str(), &old) != 0) return replace_file(target, text, nullptr);
  if (S_ISREG(old.st_mode)) return replace_file(target, text, &old);
  const UniqueFd device(open(target.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
  return device && write_all(device.get(), text.data(), text.size());
}
