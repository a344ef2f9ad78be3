// The request record. Request and reply live in one memory file; the record holds its descriptor, at most one
// mapping of all of it, and the connection to the other side. Every operation that resizes or maps leaves the
// file's offset at its end, which is what makes writes append.

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "service/ks_internal.h"

namespace {

constexpr char kMemoryFileName[] = "kservice";

// `description` names the bad pointer with one %p.
#define VERIFY_IO(io, operation, description)                      \
  do {                                                             \
    if (!ks_has_magic(io, KS_IO_MAGIC)) {                          \
      ks_abort(operation, kIoCondition, description, (void*)(io)); \
    }                                                              \
  } while (false)

void unmap(ks_io* io) {
  if (io->shared_data != nullptr) munmap(io->shared_data, io->shared_size);
  io->shared_data = nullptr;
  io->shared_size = 0;
}

// Maps the first `size` bytes; false leaves the record unmapped.
bool map(ks_io* io, std::uint64_t size) {
  void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, io->memfd, 0);
  if (data == MAP_FAILED) return false;
  io->shared_data = data;
  io->shared_size = size;
  return true;
}

// Seeks the file to its end and maps all of it; *size is what that was.
bool sync(ks_io* io, std::uint64_t* size) {
  lseek(io->memfd, 0, SEEK_END);
  *size = ks_io_size(io);
  unmap(io);
  return *size == 0 || map(io, *size);
}

[[noreturn]] void abort_unmapped() {
  ks_abort("ks_io_sync", "io->shared_data != MAP_FAILED", "create memory map fail");
}

// The path under which the memory file can be opened once more.
struct MemoryFilePath {
  explicit MemoryFilePath(ks_io* io) { std::snprintf(text, sizeof(text), "/proc/self/fd/%d", ks_io_fd(io)); }
  char text[32];
};

}  // namespace

void ks_io_shm(ks_io* io) {
  if (io->memfd >= 0) return;
  io->memfd = memfd_create(kMemoryFileName, MFD_CLOEXEC);
  if (io->memfd == -1 || !set_fd_cloexec(io->memfd)) {
    ks_abort("ks_io_shm", "io->memfd != -1 && set_fd_cloexec(io->memfd)", "create share memory file fail");
  }
}

void ks_io_drop_shm(ks_io* io) {
  unmap(io);
  close_and_forget(&io->memfd);
}

bool ks_io_try_sync(ks_io* io) {
  std::uint64_t size;
  return sync(io, &size);
}

void ks_io_sync(ks_io* io) {
  if (io->memfd >= 0 && !ks_io_try_sync(io)) abort_unmapped();
}

bool ks_io_sync_reply(ks_io* io) {
  std::uint64_t size;
  if (sync(io, &size)) return true;
  const auto memory =
      static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  if (size > memory) return false;
  abort_unmapped();
}

ks_io* ks_io_create(void) {
  auto* io = static_cast<ks_io*>(std::calloc(1, sizeof(ks_io)));
  if (io == nullptr) ks_abort("ks_io_create", "io", "alloc ks_io memory fail");
  io->magic = KS_IO_MAGIC;
  io->memfd = -1;
  io->sockfd = -1;
  io->extra_fd = -1;
  return io;
}

void ks_io_free(ks_io* io) {
  VERIFY_IO(io, "ks_io_free", "cannot free incorrect ks_io %p");
  close_and_forget(&io->sockfd);
  ks_io_drop_shm(io);
  io->magic = 0;  // a second release is caught instead of closing somebody else's descriptors
  std::free(io);
}

void* ks_io_read(ks_io* io, uint64_t* size) {
  VERIFY_IO(io, "ks_io_read", "cannot read incorrect ks_io %p");
  ks_io_sync(io);
  if (size != nullptr) *size = io->shared_size;
  return io->shared_data;
}

void* ks_io_realloc(ks_io* io, uint64_t size) {
  VERIFY_IO(io, "ks_io_realloc", "cannot alloc incorrect ks_io %p");
  ks_io_shm(io);
  unmap(io);
  if (ftruncate(io->memfd, static_cast<off_t>(size)) != 0) {
    ks_abort("ks_io_realloc", "ftruncate(io->memfd, size) == 0", "ftruncate memory file fail");
  }
  lseek(io->memfd, 0, SEEK_END);
  if (size == 0) return nullptr;
  if (!map(io, size)) {
    ks_abort("ks_io_realloc", "io->shared_data != MAP_FAILED", "create memory map fail");
  }
  return io->shared_data;
}

int64_t ks_io_write(ks_io* io, const void* buf, uint64_t len) {
  VERIFY_IO(io, "ks_io_write", "cannot read incorrect ks_io %p");
  ks_io_shm(io);
  return write(io->memfd, buf, len);
}

void ks_io_printf(ks_io* io, const char* fmt, ...) {
  VERIFY_IO(io, "ks_io_printf", "cannot printf incorrect ks_io %p");
  ks_io_shm(io);
  va_list args;
  va_start(args, fmt);
  vdprintf(io->memfd, fmt, args);
  va_end(args);
}

int64_t ks_io_splice(ks_io* io, int32_t fdin, uint64_t len) {
  VERIFY_IO(io, "ks_io_splice", "cannot read incorrect ks_io %p");
  ks_io_shm(io);
  return splice(fdin, nullptr, io->memfd, nullptr, len, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
}

int32_t ks_io_fwrite(const void* data, uint64_t size, ks_io* io) {
  return static_cast<int32_t>(ks_io_write(io, data, size) - static_cast<int64_t>(size));
}

uint64_t ks_io_size(ks_io* io) {
  struct stat status {};
  if (io->memfd == -1 || fstat(io->memfd, &status) != 0) return 0;
  return static_cast<uint64_t>(status.st_size);
}

int32_t ks_io_pid(ks_io* io) {
  VERIFY_IO(io, "ks_io_pid", "cannot fetch incorrect ks_io %p pid");
  return io->peer_pid;
}

uint32_t ks_io_uid(ks_io* io) {
  VERIFY_IO(io, "ks_io_uid", "cannot fetch incorrect ks_io %p uid");
  return io->peer_uid;
}

uint32_t ks_io_gid(ks_io* io) {
  VERIFY_IO(io, "ks_io_gid", "cannot fetch incorrect ks_io %p gid");
  return io->peer_gid;
}

bool ks_io_alive(ks_io* io) {
  VERIFY_IO(io, "ks_io_alive", "cannot check incorrect ks_io %p alive");
  if (io->peer_pid == 0) return true;
  if (io->sockfd < 0) return false;
  // poll, not select: a busy daemon has descriptor numbers that do not fit a select set.
  pollfd watched{.fd = io->sockfd, .events = POLLIN, .revents = 0};
  return poll(&watched, 1, 0) == 0;
}

void ks_io_set(ks_io* io, uint64_t value) {
  VERIFY_IO(io, "ks_io_set", "cannot attach incorrect ks_io %p");
  io->user_data = value;
}

uint64_t ks_io_get(ks_io* io) {
  VERIFY_IO(io, "ks_io_get", "cannot detach incorrect ks_io %p");
  return io->user_data;
}

int ks_io_fd(ks_io* io) {
  ks_io_shm(io);
  return io->memfd;
}

int ks_io_dup(ks_io* io) {
  return dup(ks_io_fd(io));
}

int ks_io_dup2(ks_io* io, int newfd) {
  return dup2(ks_io_fd(io), newfd);
}

int ks_io_dup3(ks_io* io, int newfd, int flags) {
  return dup3(ks_io_fd(io), newfd, flags);
}

FILE* ks_io_fopen(ks_io* io, const char* mode) {
  return std::fopen(MemoryFilePath(io).text, mode);
}

FILE* ks_io_freopen(ks_io* io, const char* mode, FILE* stream) {
  return std::freopen(MemoryFilePath(io).text, mode, stream);
}
