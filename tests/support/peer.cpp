#include "support/peer.h"

#include <json/reader.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "service/ks_internal.h"

Json::Value Reply::json() const {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

Reply call(const std::string& service, const std::string& request, const std::optional<std::string>& body,
           int extra_fd) {
  constexpr std::uint32_t kSeconds = 20;
  void* data = nullptr;
  std::uint64_t size = 0;
  const int status = ks_ez_call(service.c_str(), request.c_str(), body ? body->data() : nullptr,
                                body ? body->size() : 0, &data, &size, kSeconds, extra_fd);
  const std::unique_ptr<void, decltype(&std::free)> owner(data, std::free);
  return {status, std::string(static_cast<const char*>(data), size)};
}

UniqueFd listen_at(const std::string& path) {
  UniqueFd listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = ks_socket_address(path.c_str());
  EXPECT_EQ(bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(listen(listening.get(), 9), 0);
  return listening;
}

void limit_descriptors(int number) {
  const rlimit limit{.rlim_cur = static_cast<rlim_t>(number), .rlim_max = 4096};
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

bool readable(int fd, int timeout_ms) {
  pollfd watched{.fd = fd, .events = POLLIN, .revents = 0};
  return TEMP_FAILURE_RETRY(poll(&watched, 1, timeout_ms)) > 0;
}

std::string record_of(int type, int flag, std::string_view data) {
  std::string record(sizeof(directive), '\0');
  record[0] = static_cast<char>(type);
  record[1] = static_cast<char>(flag);
  return record.replace(2, data.size(), data);
}

Peer::Peer(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  connect_to(path);
}

void Peer::connect_to(const std::string& path) const {
  const sockaddr_un address = ks_socket_address(path.c_str());
  EXPECT_EQ(connect(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << strerror(errno);
}

// A service that has hung up already is a legitimate answer to whatever is sent here.
Peer& Peer::bytes(std::string_view bytes) {
  EXPECT_TRUE(send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0 || errno == EPIPE);
  return *this;
}

Peer& Peer::message(std::string_view bytes, const std::vector<int>& fds, int flags) {
  const std::size_t size = fds.size() * sizeof(int);
  alignas(cmsghdr) char control[CMSG_SPACE(253 * sizeof(int))] = {};  // no message can carry more
  iovec payload{.iov_base = const_cast<char*>(bytes.data()), .iov_len = bytes.size()};
  msghdr message{};
  message.msg_iov = &payload;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_LEN(size);
  *CMSG_FIRSTHDR(&message) = {.cmsg_len = CMSG_LEN(size), .cmsg_level = SOL_SOCKET, .cmsg_type = SCM_RIGHTS};
  std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), fds.data(), size);
  EXPECT_TRUE(sendmsg(fd(), &message, flags | MSG_NOSIGNAL) >= 0 || errno == EPIPE);
  return *this;
}

int Peer::next() const {
  directive record;
  if (!readable(fd())) return -1;
  return read_directive(fd(), &record) ? record.type : 0;
}

std::vector<int> Peer::rest() const {
  std::vector<int> types;
  do types.push_back(next());
  while (types.back() > 0);
  return types;
}

UniqueFd memory_file(std::string_view content, unsigned flags) {
  UniqueFd file(memfd_create("test", flags | MFD_CLOEXEC));
  EXPECT_EQ(write(file.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
  return file;
}
