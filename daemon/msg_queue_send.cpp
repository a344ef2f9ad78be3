#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>

#include "daemon/msg_queue_listener.h"

namespace {

constexpr int kNoQueue = 101;
constexpr int kUnusableQueue = 100;
constexpr int kNotSent = 102;

}  // namespace

int msg_queue_send(std::uint32_t key, const void* msgp, std::size_t msgsz) {
  const int queue = msgget(static_cast<key_t>(key), 0);
  if (queue == -1) return errno == ENOENT ? kNoQueue : kUnusableQueue;
  return msgsnd(queue, msgp, msgsz, IPC_NOWAIT) == 0 ? 0 : kNotSent;
}
