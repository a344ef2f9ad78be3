#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>

#include "daemon/msg_queue_listener.h"

int msg_queue_send(std::uint32_t key, const void* msgp, std::size_t msgsz) {
  const int queue = msgget(static_cast<key_t>(key), 0);
  if (queue == -1) return errno == ENOENT ? kQueueMissing : kQueueUnusable;
  return msgsnd(queue, msgp, msgsz, IPC_NOWAIT) == 0 ? 0 : kQueueRefuses;
}
