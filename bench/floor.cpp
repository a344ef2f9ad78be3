#include "bench/floor.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "bench/child_process.h"

namespace {

// A message of one byte and one descriptor.
struct DescriptorMessage {
  DescriptorMessage() {
    header.msg_iov = &payload;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
  }
  char byte = 0;
  iovec payload{.iov_base = &byte, .iov_len = 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{};
};

void send_memory_file(int sockfd, int memfd) {
  DescriptorMessage message;
  cmsghdr* part = CMSG_FIRSTHDR(&message.header);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(part), &memfd, sizeof(memfd));
  if (sendmsg(sockfd, &message.header, MSG_NOSIGNAL) != 1) give_up("floor sendmsg");
}

int receive_memory_file(int sockfd) {
  DescriptorMessage message;
  if (recvmsg(sockfd, &message.header, 0) != 1) give_up("floor recvmsg");
  const cmsghdr* part = CMSG_FIRSTHDR(&message.header);
  if (part == nullptr) give_up("floor receives no descriptor");
  int memfd;
  std::memcpy(&memfd, CMSG_DATA(part), sizeof(memfd));
  return memfd;
}

std::size_t file_size(int memfd) {
  struct stat status {};
  if (fstat(memfd, &status) != 0) give_up("floor fstat");
  return static_cast<std::size_t>(status.st_size);
}

sockaddr_un address_of(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  return address;
}

void answer(int listener, std::vector<char>& buffer) {
  const Descriptor client(accept(listener, nullptr, nullptr));
  const Descriptor memfd(receive_memory_file(client.get()));
  const ssize_t got = pread(memfd.get(), buffer.data(), buffer.size(), 0);
  if (got < 0 || ftruncate(memfd.get(), 0) != 0) give_up("floor empties the file");
  if (pwrite(memfd.get(), buffer.data(), static_cast<std::size_t>(got), 0) != got) give_up("floor writes");
  if (send(client.get(), "", 1, MSG_NOSIGNAL) != 1) give_up("floor answers");
}

}  // namespace

void serve_floor(const char* path, std::size_t body_capacity, int control) {
  std::vector<char> buffer(body_capacity);
  const Descriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
  const sockaddr_un address = address_of(path);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener.get(), SOMAXCONN) != 0 || write(control, "", 1) != 1) {
    give_up("floor starts");
  }
  while (true) answer(listener.get(), buffer);
}

std::size_t call_floor(const char* path, const char* body, std::size_t size) {
  const Descriptor memfd(memfd_create("floor", MFD_CLOEXEC));
  if (size > 0 && write(memfd.get(), body, size) != static_cast<ssize_t>(size)) give_up("floor fills");
  const Descriptor server(socket(AF_UNIX, SOCK_STREAM, 0));
  const sockaddr_un address = address_of(path);
  if (connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    give_up("floor connect");
  }
  send_memory_file(server.get(), memfd.get());
  char done;
  if (read(server.get(), &done, 1) != 1) give_up("floor waits");
  const std::size_t reply = file_size(memfd.get());
  if (reply == 0) return 0;
  void* data = mmap(nullptr, reply, PROT_READ | PROT_WRITE, MAP_SHARED, memfd.get(), 0);
  if (data == MAP_FAILED) give_up("floor maps");
  munmap(data, reply);
  return reply;
}
