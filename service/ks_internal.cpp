#include "service/ks_internal.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "service/sha1.h"

namespace {

// As a status flag this bit has no meaning, so the framework's descriptors stay inheritable.
constexpr int kFlagBit = 1;

constexpr char kHashedSockFile[] = "/var/run/ks/%X.sock";

void verify(const void* record, std::uint32_t magic, const char* operation, const char* condition,
            const char* description) {
  std::uint32_t found = 0;
  if (record != nullptr) std::memcpy(&found, record, sizeof(found));
  if (found != magic) ks_abort(operation, condition, description, record);
}

}  // namespace

void ks_abort(const char* operation, const char* condition, const char* description, ...) {
  char detail[512];
  va_list args;
  va_start(args, description);
  std::vsnprintf(detail, sizeof(detail), description, args);
  va_end(args);
  char line[1024];
  int length = std::snprintf(line, sizeof(line), "[ABORT] @%s() %s: `%s'\n", operation, detail, condition);
  if (length >= static_cast<int>(sizeof(line))) length = sizeof(line) - 1;
  // One write, so that the lines of two failing threads do not mix. A failure is ignored: the process ends anyway.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<std::size_t>(length));
  std::abort();
}

void ks_verify_io(const ks_io* record, const char* operation, const char* description) {
  verify(record, KS_IO_MAGIC, operation, "io && (*(u_int32_t*) io == KS_IO_MAGIC)", description);
}

void ks_verify_epoll(const ks_epoll* record, const char* operation, const char* description) {
  verify(record, KS_EPOLL_MAGIC, operation, "epoll && (*(u_int32_t*) epoll == KS_EPOLL_MAGIC)", description);
}

void ks_verify_handle(const ks_handle* record, const char* operation, const char* description) {
  verify(record, KS_HANDLE_MAGIC, operation, "service_handle && (*(u_int32_t*) service_handle == KS_HANDLE_MAGIC)",
         description);
}

bool set_fd_cloexec(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags != -1 && fcntl(fd, F_SETFL, flags | kFlagBit) != -1;
}

ucred ks_peer(int sockfd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  getsockopt(sockfd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return peer;
}

int ks_nonzero(int fd) {
  if (fd != 0) return fd;
  const int other = fcntl(fd, F_DUPFD, 1);
  close(fd);
  return other;
}

void close_and_forget(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

void ks_copy_text(char* buffer, std::size_t size, const char* text) {
  const std::size_t length = strnlen(text, size - 1);
  std::memcpy(buffer, text, length);
  buffer[length] = '\0';
}

void ks_socket_path(const char* name, char (&path)[kSockFileSize], const char* operation, const char* what) {
  if (name[0] == '@') {
    ks_copy_text(path, sizeof(path), name + 1);
    return;
  }
  SHA1Context sha1;
  SHA1Reset(&sha1);
  SHA1Input(&sha1, reinterpret_cast<const std::uint8_t*>(name), std::strlen(name));
  if (SHA1Result(&sha1) == 0) {
    ks_abort(operation, "SHA1Result(&sha1)", "generate %s[%s] SHA1 fail", what, name);
  }
  std::snprintf(path, sizeof(path), kHashedSockFile, sha1.state[0]);
}

sockaddr_un ks_socket_address(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ks_copy_text(address.sun_path, kSockFileSize, path);
  return address;
}

bool ks_create_thread(pthread_t* tid, void* (*start)(void*), void* arg) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM);
  // No effect without PTHREAD_EXPLICIT_SCHED: the thread inherits its creator's policy, as it should.
  pthread_attr_setschedpolicy(&attributes, SCHED_RR);
  const bool created = pthread_create(tid, &attributes, start, arg) == 0;
  pthread_attr_destroy(&attributes);
  return created;
}

bool ks_poll_add(int pollfd, int fd, std::uint32_t events, epoll_data_t data) {
  epoll_event event{.events = events, .data = data};
  return epoll_ctl(pollfd, EPOLL_CTL_ADD, fd, &event) == 0;
}
