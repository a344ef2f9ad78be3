// The request record. Request and reply use one memory file. The record holds its descriptor, at most one mapping of
// the whole file, and the connection to the other side. Every operation that resizes or maps leaves the file's offset
// at its end, so that writes append.
//
// On the service's side the client shares the file. The framework's own threads use only calls that never wait for the
// client: they read the file's flags, seals and status, and map it. A seek can wait for the client, so it is postponed
// until an operation of the callback needs it (seek_due).

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "service/ks_internal.h"

namespace {

constexpr char kMemoryFileName[] = "kservice";

// A record as allocated: the public part, followed by private fields.
struct Record {
  ks_io io;
  bool from_client;  // the memory file came from a client: see ks_io_accept
  bool shut;         // the connection has been shut down
  bool seek_due;     // the offset must still be moved to the end
};

Record* record_of(ks_io* io) {
  return reinterpret_cast<Record*>(io);
}

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

void seek_to_end(ks_io* io) {
  lseek(io->memfd, 0, SEEK_END);
  record_of(io)->seek_due = false;
}

// The longest file that a client can have filled. Mapping a few longer, sparse files would exhaust our address space.
std::uint64_t physical_memory() {
  static const auto bytes =
      static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

// Maps the whole file unless it is mapped already; stores its length in *size.
bool sync(ks_io* io, std::uint64_t* size) {
  record_of(io)->seek_due = true;
  if (!record_of(io)->from_client) seek_to_end(io);
  *size = ks_io_size(io);
  if (io->shared_data != nullptr && *size == io->shared_size) return true;
  unmap(io);
  if (record_of(io)->from_client && *size > physical_memory()) return false;
  return *size == 0 || map(io, *size);
}

// Called when an operation on the file has failed. If it is a client's, hangs up on that client and replaces the file
// by an empty private one. False if the file is our own.
bool replace_client_file(ks_io* io) {
  Record* const record = record_of(io);
  if (!record->from_client) return false;
  ks_io_hang_up(io);
  record->from_client = false;
  record->seek_due = false;
  ks_io_drop_shm(io);
  ks_io_shm(io);
  return true;
}

// The device number of memfd_create files. No other files have it.
dev_t memory_device() {
  static const dev_t device = [] {
    struct stat status {};
    ks_io* own = ks_io_create();
    fstat(ks_io_fd(own), &status);
    ks_io_free(own);
    return status.st_dev;
  }();
  return device;
}

// Whether this file is suitable for requests; stores its length in *size. Checks the seals before the status: only
// memory files have seals, and fstat of other files can make the caller wait.
bool is_suitable(int memfd, std::uint64_t* size) {
  constexpr int kForbidding = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_FUTURE_WRITE;
  const int flags = fcntl(memfd, F_GETFL);
  if (flags == -1 || (flags & O_ACCMODE) != O_RDWR) return false;
  const int seals = fcntl(memfd, F_GET_SEALS);
  if (seals == -1 || (seals & kForbidding) != 0) return false;
  struct stat status {};
  if (fstat(memfd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_dev != memory_device()) return false;
  *size = static_cast<std::uint64_t>(status.st_size);
  return *size <= physical_memory();
}

[[noreturn]] void abort_unmapped() {
  ks_abort("ks_io_sync", "io->shared_data != MAP_FAILED", "create memory map fail");
}

ks_io* make_record() {
  auto* record = static_cast<Record*>(std::calloc(1, sizeof(Record)));
  if (record == nullptr) return nullptr;
  record->io.magic = KS_IO_MAGIC;
  record->io.memfd = -1;
  record->io.sockfd = -1;
  record->io.extra_fd = -1;
  return &record->io;
}

// The memory file with its offset at the end, created if absent.
int file_at_end(ks_io* io) {
  ks_io_shm(io);
  if (record_of(io)->seek_due) seek_to_end(io);
  return io->memfd;
}

// A path by which the memory file can be opened again.
struct MemoryFilePath {
  explicit MemoryFilePath(ks_io* io) { std::snprintf(text, sizeof(text), "/proc/self/fd/%d", ks_io_fd(io)); }
  char text[32];
};

}  // namespace

void ks_io_prepare() {
  memory_device();
}

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

void ks_io_sync(ks_io* io) {
  std::uint64_t size;
  if (io->memfd >= 0 && !sync(io, &size) && !replace_client_file(io)) abort_unmapped();
}

bool ks_io_reply_size(ks_io* io, std::uint64_t* size) {
  *size = ks_io_size(io);
  return *size <= physical_memory();
}

bool ks_io_sync_reply(ks_io* io) {
  std::uint64_t size;
  if (sync(io, &size)) return true;
  if (size > physical_memory()) return false;
  abort_unmapped();
}

ks_io* ks_io_accept(int memfd, int sockfd, bool is_mapped) {
  std::uint64_t size;
  if (!is_suitable(memfd, &size)) return nullptr;
  ks_io* io = make_record();
  if (io == nullptr) return nullptr;
  io->memfd = memfd;
  record_of(io)->from_client = true;
  record_of(io)->seek_due = true;
  if (is_mapped && size != 0 && !map(io, size)) {
    std::free(io);
    return nullptr;
  }
  io->sockfd = sockfd;
  return io;
}

ks_io* ks_io_create(void) {
  ks_io* io = make_record();
  if (io == nullptr) ks_abort("ks_io_create", "io", "alloc ks_io memory fail");
  return io;
}

void ks_io_free(ks_io* io) {
  ks_verify_io(io, "ks_io_free", "cannot free incorrect ks_io %p");
  if (record_of(io)->shut) {
    close_shut_down(io->sockfd);
  } else if (io->sockfd >= 0) {
    ks_discard(io->sockfd, ks_peer(io->sockfd).uid);  // another process may continue with a copy
  }
  ks_io_drop_shm(io);
  io->magic = 0;  // a second release aborts instead of closing unrelated descriptors
  std::free(io);
}

void ks_io_hang_up(ks_io* io) {
  ks_verify_io(io, "ks_io_hang_up", "cannot hang up incorrect ks_io %p");
  if (io->sockfd >= 0 && !record_of(io)->shut) {
    shutdown(io->sockfd, SHUT_RDWR);
    record_of(io)->shut = true;
  }
}

void ks_io_connect(ks_io* io, int sockfd) {
  io->sockfd = sockfd;
  record_of(io)->shut = false;
}

void ks_io_drop(ks_io* io) {
  ks_verify_io(io, "ks_io_drop", "cannot drop incorrect ks_io %p");
  ks_io_drop_shm(io);
}

void* ks_io_read(ks_io* io, uint64_t* size) {
  ks_verify_io(io, "ks_io_read", "cannot read incorrect ks_io %p");
  ks_io_sync(io);
  if (size != nullptr) *size = io->shared_size;
  return io->shared_data;
}

void* ks_io_realloc(ks_io* io, uint64_t size) {
  ks_verify_io(io, "ks_io_realloc", "cannot alloc incorrect ks_io %p");
  ks_io_shm(io);
  unmap(io);
  if (ftruncate(io->memfd, static_cast<off_t>(size)) != 0) {
    if (replace_client_file(io)) return ks_io_realloc(io, size);
    ks_abort("ks_io_realloc", "ftruncate(io->memfd, size) == 0", "ftruncate memory file fail");
  }
  seek_to_end(io);
  if (size == 0) return nullptr;
  if (!map(io, size)) {
    if (replace_client_file(io)) return ks_io_realloc(io, size);
    ks_abort("ks_io_realloc", "io->shared_data != MAP_FAILED", "create memory map fail");
  }
  return io->shared_data;
}

int64_t ks_io_write(ks_io* io, const void* buf, uint64_t len) {
  ks_verify_io(io, "ks_io_write", "cannot read incorrect ks_io %p");
  return write(file_at_end(io), buf, len);
}

void ks_io_printf(ks_io* io, const char* fmt, ...) {
  ks_verify_io(io, "ks_io_printf", "cannot printf incorrect ks_io %p");
  va_list args;
  va_start(args, fmt);
  vdprintf(file_at_end(io), fmt, args);
  va_end(args);
}

int64_t ks_io_splice(ks_io* io, int32_t fdin, uint64_t len) {
  ks_verify_io(io, "ks_io_splice", "cannot read incorrect ks_io %p");
  return splice(fdin, nullptr, file_at_end(io), nullptr, len, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
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
  ks_verify_io(io, "ks_io_pid", "cannot fetch incorrect ks_io %p pid");
  return io->peer_pid;
}

uint32_t ks_io_uid(ks_io* io) {
  ks_verify_io(io, "ks_io_uid", "cannot fetch incorrect ks_io %p uid");
  return io->peer_uid;
}

uint32_t ks_io_gid(ks_io* io) {
  ks_verify_io(io, "ks_io_gid", "cannot fetch incorrect ks_io %p gid");
  return io->peer_gid;
}

bool ks_io_alive(ks_io* io) {
  ks_verify_io(io, "ks_io_alive", "cannot check incorrect ks_io %p alive");
  if (io->peer_pid == 0) return true;
  if (io->sockfd < 0) return false;
  // Not select: descriptor numbers of a busy daemon can exceed its limit.
  pollfd watched{.fd = io->sockfd, .events = POLLIN, .revents = 0};
  int ready;
  while ((ready = poll(&watched, 1, 0)) < 0 && errno == EINTR) continue;
  return ready == 0;
}

void ks_io_set(ks_io* io, uint64_t value) {
  ks_verify_io(io, "ks_io_set", "cannot attach incorrect ks_io %p");
  io->user_data = value;
}

uint64_t ks_io_get(ks_io* io) {
  ks_verify_io(io, "ks_io_get", "cannot detach incorrect ks_io %p");
  return io->user_data;
}

int ks_io_fd(ks_io* io) {
  return file_at_end(io);
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

int ks_reply(ks_io* io) {
  ks_verify_io(io, "ks_reply", "cannot response incorrect ks_io %p");
  static const directive kDone = make_directive(KS_DIR_DONE);
  send_directive(io->sockfd, kDone);
  ks_io_hang_up(io);
  return 0;
}
