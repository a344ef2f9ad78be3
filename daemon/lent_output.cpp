// A client's descriptor may refer to anything, and writing to it or closing a duplicate of it may wait as long as its
// owner likes. Only pipes and sockets are therefore duplicated to descriptor 1: closing such a duplicate never waits.
// For anything else a private file collects the output. At the end a closer (ks_deliver) copies that file, and the data
// still in stdout's buffer, to the client's descriptor.
#include "daemon/lent_output.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <string_view>

#include "service/ks.h"

namespace {

constexpr char kNullDevice[] = "/dev/null";
constexpr char kCollectedName[] = "stdout";  // name of the memory file, shown in /proc

// Open for the life of the process, so that standard output can always be reset to it.
int g_null_device = -1;
char g_stdout_buffer[BUFSIZ];

// Checks the kernel's name for the file, because fstat would ask a user-space file system.
bool is_pipe_or_socket(int fd) {
  char link[32];
  char target[32];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, target, sizeof(target));
  if (length <= 0) return false;
  const std::string_view name(target, static_cast<std::size_t>(length));
  return name.starts_with("pipe:") || name.starts_with("socket:");
}

UniqueFd make_collected() {
  return UniqueFd(memfd_create(kCollectedName, MFD_CLOEXEC));
}

// Moves the stream's unwritten data to `*collected`. Does not wait for the stream's lock, whose holder may hang in a
// write to a client.
void take_unwritten(UniqueFd* collected) {
  if (ftrylockfile(stdout) != 0) return;
  const std::size_t size = __fpending(stdout);
  if (size > 0) {
    if (!*collected) *collected = make_collected();
    [[maybe_unused]] const ssize_t written = write(collected->get(), g_stdout_buffer, size);
    __fpurge(stdout);
  }
  funlockfile(stdout);
}

bool holds_any(const UniqueFd& file) {
  return file && lseek(file.get(), 0, SEEK_END) > 0;
}

}  // namespace

void prepare_lent_output() {
  g_null_device = open(kNullDevice, O_RDWR | O_CLOEXEC);
  std::fflush(stdout);
  std::setvbuf(stdout, g_stdout_buffer, _IOFBF, sizeof(g_stdout_buffer));
}

LentOutput::LentOutput(int client_fd, uid_t user) : client_fd_(client_fd), user_(user) {
  if (client_fd_ < 0) return;
  if (is_pipe_or_socket(client_fd_)) {
    dup2(client_fd_, STDOUT_FILENO);
  } else if ((collected_ = make_collected())) {
    dup2(collected_.get(), STDOUT_FILENO);
  }
}

LentOutput::~LentOutput() {
  take_unwritten(&collected_);
  dup2(g_null_device, STDOUT_FILENO);
  if (client_fd_ >= 0 && holds_any(collected_)) {
    ks_deliver(collected_.release(), client_fd_, user_);
  } else {
    ks_discard(client_fd_, user_);
  }
}
