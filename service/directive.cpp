#include "service/directive.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

// Room for one descriptor by the rules of alignment; on 64-bit machines that admits a second one.
constexpr std::size_t kControlSize = CMSG_SPACE(sizeof(int));
static_assert(kControlSize == 24);
// The least control length that can hold a header.
constexpr std::size_t kControlMinimum = 16;

using Clock = std::chrono::steady_clock;

// One byte of payload, whose value nobody looks at, and room for a descriptor beside it. Points into itself.
struct DescriptorMessage {
  explicit DescriptorMessage(std::size_t control_length) {
    header.msg_iov = &payload;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = control_length;
  }
  DescriptorMessage(const DescriptorMessage&) = delete;
  DescriptorMessage& operator=(const DescriptorMessage&) = delete;

  char byte = 0;
  iovec payload{.iov_base = &byte, .iov_len = 1};
  alignas(cmsghdr) char control[kControlSize] = {};
  msghdr header{};
};

// Waits until there is something to read or the time is over.
bool wait_readable(int sockfd, Clock::time_point deadline) {
  pollfd watched{.fd = sockfd, .events = POLLIN, .revents = 0};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    const int ready = poll(&watched, 1, static_cast<int>(left));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

// A connection that lingers makes its last close wait for as long as its owner likes, and ours may be the last. What is
// no socket refuses, and does not linger.
void take_linger_away(int fd) {
  const linger none{};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
}

// Keeps the first descriptor of all that `message` carries and closes the others.
int take_first_descriptor(msghdr* message) {
  int first = -1;
  for (cmsghdr* header = CMSG_FIRSTHDR(message); header != nullptr; header = CMSG_NXTHDR(message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
      take_linger_away(fd);
      if (first < 0) {
        first = fd;
      } else {
        close(fd);
      }
    }
  }
  return first;
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
  ssize_t got;
  do {
    got = recv(sockfd, record, sizeof(*record), MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  return got == sizeof(*record);
}

bool send_descriptor(int sockfd, int fd) {
  DescriptorMessage message(CMSG_LEN(sizeof(int)));
  cmsghdr* header = CMSG_FIRSTHDR(&message.header);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
  return sendmsg(sockfd, &message.header, MSG_NOSIGNAL) == 1;
}

int receive_descriptor(int sockfd, Clock::time_point deadline) {
  DescriptorMessage message(kControlSize);
  ssize_t got;
  do {
    got = recvmsg(sockfd, &message.header, MSG_DONTWAIT);  // as a rule it is there already
  } while (got < 0 && (errno == EINTR || (errno == EAGAIN && wait_readable(sockfd, deadline))));
  if (got < 1 || message.header.msg_controllen < kControlMinimum) return -1;
  const int fd = take_first_descriptor(&message.header);
  if ((message.header.msg_flags & MSG_CTRUNC) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}
