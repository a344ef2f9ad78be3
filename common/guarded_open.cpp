#include "common/guarded_open.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace {

// Another user can make an attempt fail by recreating the name in time.
constexpr int kMaxAttempts = 100;

std::string path_of_descriptor(const UniqueFd& fd) {
  return "/proc/self/fd/" + std::to_string(fd.get());
}

UniqueFd fails(int error) {
  errno = error;
  return {};
}

// Opens exactly the file that was checked. O_NONBLOCK avoids waiting for a lease on the file; it is cleared afterwards,
// because programs that inherit the descriptor expect an ordinary one.
UniqueFd reopen(const UniqueFd& found, int flags) {
  UniqueFd fd(open(path_of_descriptor(found).c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  return fd && fcntl(fd.get(), F_SETFL, 0) == 0 ? std::move(fd) : UniqueFd();
}

// Whether the file may be used as output. Does not query the file system, which may be in user space and not answer. A
// file that is a mount point is refused for this reason.
bool can_be_output(const UniqueFd& found) {
  struct statx info {};
  const int how = AT_EMPTY_PATH | AT_STATX_DONT_SYNC;
  if (statx(found.get(), "", how, STATX_TYPE | STATX_UID | STATX_NLINK, &info) != 0) return false;
  if (info.stx_uid != geteuid()) return false;  // any user can make a character device with number 0:0
  if (S_ISCHR(info.stx_mode) || S_ISBLK(info.stx_mode)) return true;
  return S_ISREG(info.stx_mode) && info.stx_nlink == 1 && (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0;
}

}  // namespace

UniqueFd open_input_file(const char* path) {
  const UniqueFd found(open(path, O_PATH | O_CLOEXEC));  // O_PATH does not call any driver
  struct stat info {};
  if (!found || fstat(found.get(), &info) != 0) return {};
  if (!S_ISREG(info.st_mode)) return fails(S_ISDIR(info.st_mode) ? EISDIR : ENXIO);
  return reopen(found, O_RDONLY);
}

UniqueFd open_output_file(const char* path, mode_t mode) {
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const UniqueFd found(open(path, O_PATH | O_CLOEXEC | O_NOFOLLOW));
    if (found) {
      if (can_be_output(found)) return reopen(found, O_RDWR | O_TRUNC);
      if (!clear_away(path)) return {};
    } else if (errno != ENOENT) {
      return {};
    }
    UniqueFd made(open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    if (made || errno != EEXIST) return made;
  }
  return fails(EBUSY);
}

bool clear_away(const char* path) {
  umount2(path, MNT_DETACH | UMOUNT_NOFOLLOW);  // users may mount something on their own files and folders
  if (unlink(path) == 0 || errno == ENOENT) return true;
  if (errno != EISDIR) return false;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::string aside = std::string(path) + "." + std::to_string(now.tv_sec) + "." + std::to_string(now.tv_nsec);
  return rmdir(path) == 0 || rename(path, aside.c_str()) == 0 || errno == ENOENT;
}

HeldFolder::HeldFolder(const char* path) : fd_(open(path, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {}

std::string HeldFolder::path_of(const char* name) const {
  return fd_ ? path_of_descriptor(fd_) + "/" + name : std::string();
}
