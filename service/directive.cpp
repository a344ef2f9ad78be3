#include "service/directive.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "service/ks_internal.h"

namespace {

// The kernel's limit for one message. With a smaller buffer the kernel would close the surplus in the receiving thread,
// which may have to wait: see discard.cpp.
constexpr std::size_t kMostDescriptors = 253;
// Clients may rely on this number: a buffer for one descriptor has always had room for two, because of its alignment.
constexpr std::size_t kMostTaken = 2;

using Clock = std::chrono::steady_clock;

// A message of `size` bytes with a control buffer for descriptors. Contains pointers to itself.
struct Message {
  Message(void* bytes, std::size_t size, std::size_t control_size) : payload{.iov_base = bytes, .iov_len = size} {
    header.msg_iov = &payload;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = control_size;
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  iovec payload;
  msghdr header{};
  alignas(cmsghdr) char control[CMSG_SPACE(kMostDescriptors * sizeof(int))];
};

// Waits until the socket is readable (true) or the deadline has passed (false). A null deadline means no limit.
bool wait_readable(int sockfd, const Clock::time_point* deadline) {
  pollfd watched{.fd = sockfd, .events = POLLIN, .revents = 0};
  while (true) {
    int timeout = -1;
    if (deadline != nullptr) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
      if (left <= 0) return false;
      timeout = static_cast<int>(left);
    }
    const int ready = poll(&watched, 1, timeout);
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

// Calls `take` with each descriptor that came with the message.
template <typename Take>
void for_each_descriptor(msghdr* header, const Take& take) {
  if (header->msg_controllen == 0) return;
  for (cmsghdr* part = CMSG_FIRSTHDR(header); part != nullptr; part = CMSG_NXTHDR(header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
      take(fd);
    }
  }
}

// Returns the first descriptor of a message from `sockfd` and discards the others. Discards all and returns -1 if there
// are too many.
int take_first_descriptor(int sockfd, msghdr* header) {
  int first = -1;
  std::size_t count = 0;
  for_each_descriptor(header, [&](int fd) {
    if (count++ == 0) {
      first = fd;
    } else {
      ks_discard(fd, ks_peer(sockfd).uid);
    }
  });
  if (count <= kMostTaken && (header->msg_flags & MSG_CTRUNC) == 0) return first;
  ks_discard(first, ks_peer(sockfd).uid);
  return -1;
}

int receive(int sockfd, int flags, const Clock::time_point* deadline) {
  char byte;
  Message message(&byte, sizeof(byte), sizeof(message.control));
  ssize_t got;
  do {
    got = recvmsg(sockfd, &message.header, flags | MSG_DONTWAIT);  // usually it has already arrived
  } while (got < 0 && (errno == EINTR || (errno == EAGAIN && wait_readable(sockfd, deadline))));
  return got < 1 ? -1 : take_first_descriptor(sockfd, &message.header);
}

}  // namespace

directive make_directive(ks_directive_type type) {
  directive record{};
  record.type = type;
  return record;
}

bool send_directive(int sockfd, const directive& record) {
  return send(sockfd, &record, sizeof(record), MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof(record);
}

bool send_directive(int sockfd, ks_directive_type type) {
  return send_directive(sockfd, make_directive(type));
}

bool read_directive(int sockfd, directive* record) {
  Message message(record, sizeof(*record), sizeof(message.control));
  ssize_t got;
  do {
    got = recvmsg(sockfd, &message.header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return false;
  std::size_t count = 0;
  for_each_descriptor(&message.header, [sockfd, &count](int fd) {
    ks_discard(fd, ks_peer(sockfd).uid);
    ++count;
  });
  return got == sizeof(*record) && count <= kMostTaken;
}

bool send_descriptor(int sockfd, int fd) {
  char byte = 0;
  Message message(&byte, sizeof(byte), CMSG_LEN(sizeof(int)));
  cmsghdr* header = CMSG_FIRSTHDR(&message.header);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
  return sendmsg(sockfd, &message.header, MSG_NOSIGNAL) == 1;
}

void send_no_descriptor(int sockfd) {
  const char byte = 0;
  send(sockfd, &byte, sizeof(byte), MSG_DONTWAIT | MSG_NOSIGNAL);
}

int receive_descriptor(int sockfd, Clock::time_point deadline) {
  return receive(sockfd, MSG_CMSG_CLOEXEC, &deadline);
}

int receive_connection(int sockfd) {
  return receive(sockfd, 0, nullptr);
}
