#include "daemon/parked_requests.h"

#include <pthread.h>
#include <sys/epoll.h>

#include <cerrno>
#include <utility>

namespace {

// No client sends more after its request, so a readable connection means that the client has left.
constexpr std::uint32_t kLeft = EPOLLIN | EPOLLRDHUP;

}  // namespace

ParkedRequests::ParkedRequests() : pollfd_(epoll_create1(EPOLL_CLOEXEC)) {}

void ParkedRequests::park(UniqueIo io) {
  ks_io_drop(io.get());
  UniqueIo given_up, unwatched;  // released without the lock
  const std::lock_guard lock(mutex_);
  if (waiting_.size() == kMost) given_up = take(waiting_.begin()->first);
  const int sockfd = io->sockfd;
  waiting_.emplace(++last_, std::move(io));
  epoll_event left{.events = kLeft, .data = {.u64 = last_}};
  if (!is_watched() || epoll_ctl(pollfd_, EPOLL_CTL_ADD, sockfd, &left) != 0) unwatched = take(last_);
}

// Starts the thread with the first request: most daemons never see an unknown one.
bool ParkedRequests::is_watched() {
  pthread_t thread;
  if (!watched_ && pthread_create(&thread, nullptr, watch, this) == 0) {
    pthread_detach(thread);
    watched_ = true;
  }
  return watched_;
}

void* ParkedRequests::watch(void* self) {
  static_cast<ParkedRequests*>(self)->release_abandoned();
  return nullptr;
}

void ParkedRequests::release_abandoned() {
  epoll_event event{};
  while (epoll_wait(pollfd_, &event, 1, -1) > 0 || errno == EINTR) {
    UniqueIo io;  // released without the lock
    const std::lock_guard lock(mutex_);
    io = take(event.data.u64);
  }
}

// Stops watching this request and returns it; null if it was released meanwhile.
UniqueIo ParkedRequests::take(std::uint64_t number) {
  const auto found = waiting_.find(number);
  if (found == waiting_.end()) return nullptr;
  UniqueIo io = std::move(found->second);
  waiting_.erase(found);
  epoll_ctl(pollfd_, EPOLL_CTL_DEL, io->sockfd, nullptr);
  return io;
}
