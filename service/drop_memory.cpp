// Drops the memory that a closer has copied from its creator.
//
// A closer may wait for hours. Otherwise it would keep the values of the requests that its creator served when it was
// cloned, and the memory files of their clients, long after the creator has released them.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "service/ks_internal.h"

namespace {

// Dropping memory would also drop a sanitizer's own memory.
#ifndef __has_feature
#define __has_feature(name) 0  // GCC has macros instead
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct Region {
  std::uintptr_t begin;
  std::uintptr_t end;
  bool is_data;  // shared, or writable and not part of a program or library

  bool contains(const void* address) const {
    const auto at = reinterpret_cast<std::uintptr_t>(address);
    return begin <= at && at < end;
  }
};

// Reads this process's memory map: "7f01c000-7f02d000 rw-p 00000000 00:00 0   [heap]". System calls only.
class Map {
 public:
  // cppcheck-suppress uninitMemberVar ; bytes that are read from the file before they are used
  explicit Map(int fd) : fd_(fd) {}

  bool next(Region* region) {
    region->begin = number('-');
    region->end = number(' ');
    skip(1);  // readable
    const bool is_writable = character() == 'w';
    skip(1);  // executable
    const bool is_shared = character() == 's';
    skip_past(' ');
    skip_past(' ');  // offset
    skip_past(' ');  // device
    const bool has_file = character() != '0';
    skip_past('\n');
    region->is_data = is_shared || (is_writable && !has_file);
    return !ended_;
  }

 private:
  // Returns the next character; NUL at the end.
  char character() {
    if (at_ == length_) {
      at_ = 0;
      length_ = ended_ ? 0 : syscall(SYS_read, fd_, bytes_, sizeof(bytes_));
    }
    ended_ = length_ <= 0;
    return ended_ ? '\0' : bytes_[at_++];
  }

  void skip(int count) {
    while (count-- > 0) character();
  }

  void skip_past(char end) {
    while (character() != end && !ended_) continue;
  }

  std::uintptr_t number(char end) {
    std::uintptr_t value = 0;
    for (char digit; (digit = character()) != end && !ended_;) {
      value = value * 16 + static_cast<std::uintptr_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
    }
    return value;
  }

  int fd_;
  char bytes_[4096];
  long at_ = 0;
  long length_ = 0;  // of the latest read
  bool ended_ = false;
};

}  // namespace

void ks_drop_memory(std::initializer_list<const void*> kept) {
  if (kSanitized) return;
  const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/maps", O_RDONLY | O_CLOEXEC));
  if (fd < 0) return;
  Map map(fd);
  for (Region region; map.next(&region);) {
    const bool is_kept = std::any_of(kept.begin(), kept.end(), [&](const void* at) { return region.contains(at); });
    if (region.is_data && !is_kept) syscall(SYS_munmap, region.begin, region.end - region.begin);
  }
  syscall(SYS_close, fd);
}
