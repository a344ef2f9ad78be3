#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "bench/peers.h"
#include "service/directive.h"

namespace {

// A socket that has been bound or connected to the socket file.
UniqueFd socket_at(const std::string& path, int (*attach)(int, const sockaddr*, socklen_t)) {
  UniqueFd sockfd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  check(attach(sockfd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, path.c_str());
  return sockfd;
}

// Waits for `size` bytes and returns the descriptor that comes with the last byte. One system call, unlike in the
// framework, which reads a record and its descriptor separately and without waiting.
UniqueFd receive(int sockfd, void* data, std::size_t size) {
  iovec payload{.iov_base = data, .iov_len = size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr message{};
  message.msg_iov = &payload;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  check(recvmsg(sockfd, &message, MSG_WAITALL) > 0 && message.msg_controllen > 0, "receive a descriptor");
  int fd;
  std::memcpy(&fd, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(fd));
  return UniqueFd(fd);
}

void await_records(int sockfd, std::size_t count) {
  directive records[2];
  const std::size_t size = count * sizeof(directive);
  check(recv(sockfd, records, size, MSG_WAITALL) == static_cast<ssize_t>(size), "await records");
}

// A record, followed by the byte that carries a descriptor.
struct Handover {
  directive record;
  char byte;
};

// Reads the body and writes it back as the reply. Each serving thread has its own buffer.
class Echo {
 public:
  void operator()(int memfd) {
    const ssize_t got = pread(memfd, buffer_.get(), kLargestBody, 0);
    check(got >= 0 && ftruncate(memfd, 0) == 0, "empty the file");
    check(pwrite(memfd, buffer_.get(), static_cast<std::size_t>(got), 0) == got, "write the reply");
  }

 private:
  std::unique_ptr<char[]> buffer_ = std::make_unique<char[]>(kLargestBody);
};

UniqueFd make_body(const std::string& body) {
  UniqueFd memfd(memfd_create("floor", MFD_CLOEXEC));
  if (body.empty()) return memfd;
  check(write(memfd.get(), body.data(), body.size()) == static_cast<ssize_t>(body.size()), "write the body");
  return memfd;
}

std::size_t map_reply(int memfd) {
  struct stat status {};
  check(fstat(memfd, &status) == 0, "fstat");
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size == 0) return 0;
  void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memfd, 0);
  check(data != MAP_FAILED, "map the reply");
  munmap(data, size);
  return size;
}

[[noreturn]] void consume(int control) {
  Echo echo;
  while (true) {
    {
      Handover transfer;
      const UniqueFd client = receive(control, &transfer, sizeof(transfer));
      send_directive(control, transfer.record);
      send_directive(client.get(), KS_DIR_ASK);
      Handover request;
      const UniqueFd memfd = receive(client.get(), &request, sizeof(request));
      echo(memfd.get());
      send_directive(client.get(), KS_DIR_DONE);
      shutdown(client.get(), SHUT_RDWR);
    }
    send_directive(control, KS_DIR_READY);
  }
}

}  // namespace

UniqueFd listen_at(const std::string& path) {
  UniqueFd listener = socket_at(path, bind);
  check(listen(listener.get(), SOMAXCONN) == 0, "listen");
  return listener;
}

void serve_floor(const std::string& path) {
  Echo echo;
  const UniqueFd listener = listen_at(path);
  report_ready();
  while (true) {
    const UniqueFd client(accept(listener.get(), nullptr, nullptr));
    char byte;
    const UniqueFd memfd = receive(client.get(), &byte, sizeof(byte));
    echo(memfd.get());
    send(client.get(), &byte, sizeof(byte), MSG_NOSIGNAL);
  }
}

std::size_t call_floor(const std::string& path, const std::string& body) {
  const UniqueFd memfd = make_body(body);
  const UniqueFd server = socket_at(path, connect);
  send_descriptor(server.get(), memfd.get());
  char done;
  check(read(server.get(), &done, sizeof(done)) == sizeof(done), "await the reply");
  return map_reply(memfd.get());
}

void serve_conversation(const std::string& path) {
  int pair[2];
  check(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
  std::thread(consume, pair[0]).detach();
  const UniqueFd listener = listen_at(path);
  report_ready();
  UniqueFd served;
  while (true) {
    UniqueFd client(accept(listener.get(), nullptr, nullptr));
    // The echo and the ready record for the previous client; they have arrived, so this costs no wake-up.
    if (served) await_records(pair[1], 2);
    send_directive(pair[1], KS_DIR_TRANSFER);
    send_descriptor(pair[1], client.get());
    served = std::move(client);
  }
}

std::size_t call_conversation(const std::string& path, const std::string& body) {
  const UniqueFd memfd = make_body(body);
  const UniqueFd server = socket_at(path, connect);
  await_records(server.get(), 1);
  send_directive(server.get(), KS_DIR_REQUEST);
  send_descriptor(server.get(), memfd.get());
  await_records(server.get(), 1);
  return map_reply(memfd.get());
}
