// What a client may do to a running service: the input is read as a list of steps. Whatever they are, the next
// client is served, and nothing that the service holds piles up.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/unique_fd.h"
#include "fuzz/input.h"
#include "service/directive.h"
#include "service/ks.h"
#include "service/ks_internal.h"

namespace {

constexpr int kGlimpseMs = 2;  // what a client waits for a record that need not come
constexpr int kMaxSteps = 16;
constexpr std::size_t kMaxAttached = 4;
constexpr int kMaxOpen = 48;  // the service's own descriptors, and clients that are just being released
const std::string name = "@/tmp/conversation_fuzz." + std::to_string(getpid());

void echo(const char*, ks_io* io, int extra_fd) {
  const UniqueFd extra(extra_fd);
  char body[64];
  const ssize_t got = std::max<ssize_t>(pread(ks_io_fd(io), body, sizeof(body), 0), 0);
  ks_io_realloc(io, 0);
  ks_io_write(io, body, static_cast<std::uint64_t>(got));
  ks_reply(io);
  ks_io_free(io);
}

// A memory file that serves, one that may not, or something else in its place.
UniqueFd make_descriptor(Input& input) {
  if (input.flag()) return UniqueFd(open(input.flag() ? "/dev/zero" : "/tmp", O_RDONLY));
  if (input.flag()) return UniqueFd(socket(AF_UNIX, SOCK_STREAM, 0));
  UniqueFd file(memfd_create("body", MFD_ALLOW_SEALING));
  const off_t size = (static_cast<off_t>(input.below(3)) - 1) << input.below(63);
  const bool resized = ftruncate(file.get(), size) == 0;
  require(resized || write(file.get(), "b", 1) == 1, "memory file");
  if (input.flag()) fcntl(file.get(), F_ADD_SEALS, static_cast<int>(input.below(0x20)));
  return file;
}

// One message of one byte with `count` copies of the descriptor.
void attach(int client, int fd, std::size_t count) {
  alignas(cmsghdr) char control[CMSG_SPACE(kMaxAttached * sizeof(int))] = {};
  char byte = 0;
  iovec payload{.iov_base = &byte, .iov_len = 1};
  msghdr message{};
  message.msg_iov = &payload;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(count * sizeof(int));
  auto* part = reinterpret_cast<cmsghdr*>(control);
  *part = {.cmsg_len = CMSG_LEN(count * sizeof(int)), .cmsg_level = SOL_SOCKET, .cmsg_type = SCM_RIGHTS};
  std::fill_n(reinterpret_cast<int*>(CMSG_DATA(part)), count, fd);
  sendmsg(client, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool glimpse(int client, int wait_ms) {
  pollfd watched{.fd = client, .events = POLLIN, .revents = 0};
  directive record;
  int ready;
  while ((ready = poll(&watched, 1, wait_ms)) < 0 && errno == EINTR) {
  }  // the engine's timer
  return ready == 1 && recv(client, &record, sizeof(record), MSG_DONTWAIT) > 0;
}

void converse(Input& input) {
  const UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int fd = client.get();
  const sockaddr_un address = ks_socket_address(name.c_str() + 1);
  require(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
  if (input.flag()) require(glimpse(fd, 10'000), "not asked");
  UniqueFd file = make_descriptor(input);
  for (int step = 0; step < kMaxSteps && !input.empty(); ++step) {
    const std::size_t what = input.below(7);
    if (what == 0) {
      const std::string bytes = input.text();
      send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } else if (what == 1) {
      directive record = make_directive(KS_DIR_REQUEST);
      if (input.flag()) record.type = static_cast<std::uint8_t>(input.number(1));
      record.flag = static_cast<std::uint8_t>(input.number(1));
      const std::string data = input.text();
      std::copy(data.begin(), data.end(), record.data);
      send_directive(fd, record);
      if (!input.flag()) attach(fd, file.get(), 1);  // an input that ends here is a whole request
    } else if (what == 2) {
      file = make_descriptor(input);
    } else if (what == 3) {
      attach(fd, file.get(), input.below(kMaxAttached + 1));
    } else if (what == 4) {
      glimpse(fd, kGlimpseMs);
    } else if (what == 5) {
      if (ftruncate(file.get(), static_cast<off_t>(input.number(4))) != 0) continue;  // cannot be cut
    } else {
      shutdown(fd, input.flag() ? SHUT_WR : SHUT_RD);
    }
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // One worker, so that the next client meets the same one. It goes with the process.
  static ks_handle* const service = ks_create(name.c_str(), KS_PTHREAD_MODE | KS_STANDALONE, 1, echo);
  if (service->worker == nullptr) ks_start(service);
  Input input(data, size);
  converse(input);
  void* reply = nullptr;
  std::uint64_t length = 0;
  const int status = ks_ez_call(name.c_str(), "echo", "next", 4, &reply, &length, 5, -1);
  require(status == KS_STATUS_OK && length == 4 && std::memcmp(reply, "next", 4) == 0, "the next client");
  std::free(reply);
  require(lowest_free() < kMaxOpen, "descriptors pile up");
  return 0;
}
