// Clients of a hostile service. The input is a list of steps of the service, which alternate with steps of the clients.
// A finished request must leave nothing but its reply, and no client may hang or abort.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>

#include "common/unique_fd.h"
#include "fuzz/input.h"
#include "support/peer.h"

namespace {

constexpr int kMaxSteps = 32;
const std::string name = "@/tmp/client_fuzz." + std::to_string(getpid());

struct Client {
  ks_io* io = nullptr;
  UniqueFd service;  // the other end of its socket
  UniqueFd memory;   // its memory file, once the service has received it
};
using Clients = std::array<Client, 3>;

void check_finished(const ks_io* io, int status) {
  require(io->sockfd == -1 && status >= KS_STATUS_OK && status <= KS_STATUS_BUSY, "finished");
  struct stat file {};
  if (io->memfd == -1) {
    require(io->shared_data == nullptr && io->extra_fd == -1, "empty");
  } else {
    require(status == KS_STATUS_OK && fstat(io->memfd, &file) == 0, "a reply");
    require(io->shared_size == static_cast<std::uint64_t>(file.st_size), "all of it is mapped");
  }
}

// False when nothing happened.
bool perform(ks_epoll* epoll) {
  int status = -1;
  const ks_io* finished = ks_epoll_perform(epoll, 0, &status);
  if (finished != nullptr) {
    check_finished(finished, status);
  } else {
    require(status == KS_STATUS_OK || status == KS_STATUS_TIMEOUT, "pending");
  }
  return finished != nullptr || status == KS_STATUS_OK;
}

void attack(Input& input, Client& client, ks_epoll* epoll) {
  const int fd = client.service.get();
  directive record = make_directive(static_cast<ks_directive_type>(input.below(9) + 1));
  switch (input.below(8)) {
    case 0:
      perform(epoll);
      break;
    case 1:
      send_directive(fd, record);
      break;
    case 2: {
      const std::string bytes = input.text();
      send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT | (input.flag() ? MSG_OOB : 0));
      break;
    }
    case 3:  // its request
      if (read_directive(fd, &record)) client.memory.reset(receive_descriptor(fd, {}));
      break;
    case 4:
      if (ftruncate(client.memory.get(), static_cast<off_t>(input.flag()) << input.below(63)) != 0) break;
      fcntl(client.memory.get(), F_ADD_SEALS, static_cast<int>(input.number(1)));
      break;
    case 5:
      send_descriptor(fd, input.flag() ? fd : STDERR_FILENO);  // clients accept none
      break;
    case 6:
      shutdown(fd, static_cast<int>(input.below(3)));
      if (input.flag()) client.service.reset();
      break;
    default:
      ks_epoll_cancel(epoll, client.io);
  }
}

// Requests on one set.
void perform_all(Input& input, int listener) {
  ks_epoll* const epoll = ks_epoll_create();
  Clients clients;
  for (Client& client : clients) {
    client.io = ks_io_create();
    if (input.flag()) ks_io_write(client.io, "body", 4);
    const int extras[] = {-1, STDERR_FILENO, 1 << 20};
    const std::string request = input.text();
    const int extra = extras[input.below(3)];
    require(ks_epoll_call(epoll, name.c_str(), request.c_str(), client.io, extra) == KS_STATUS_OK, "connect");
    client.service.reset(accept(listener, nullptr, nullptr));
  }
  for (int step = 0; step < kMaxSteps && !input.empty(); ++step) {
    attack(input, clients[input.below(clients.size())], epoll);
  }
  while (perform(epoll)) {
  }
  for (Client& client : clients) ks_io_free(client.io);
  ks_epoll_free(epoll);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const UniqueFd listener = [] {
    std::atexit([] { unlink(name.c_str() + 1); });
    return listen_at(name.substr(1));
  }();
  GTEST_FLAG_SET(break_on_failure, true);
  const auto before = open_descriptors();
  Input input(data, size);
  perform_all(input, listener.get());
  // A closer closes connections that have unread data.
  require(eventually([&before] { return open_descriptors() == before; }), "a descriptor is left");
  return 0;
}
