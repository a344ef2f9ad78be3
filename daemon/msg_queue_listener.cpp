#include "daemon/msg_queue_listener.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <utility>
#include <vector>

#include "common/log.h"

namespace {

constexpr int kQueueMode = 0644;
constexpr unsigned kAllModeBits = 0777;
constexpr unsigned kTooOpen = kAllModeBits - kQueueMode;
constexpr int kMaxAttempts = 1000;  // another user who keeps making the queue may win many times in a row

// Checks the creator as well as the owner: both may receive, change the mode and remove the queue.
bool is_ours(const ipc_perm& permissions) {
  const uid_t self = geteuid();
  return permissions.uid == self && permissions.cuid == self && (permissions.mode & kTooOpen) == 0;
}

// Opens or makes the queue; -1 on failure. Replaces a queue that another user made or that others may write to.
int open_own_queue(key_t key) {
  bool logged = false;
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const int queue = msgget(key, IPC_CREAT | kQueueMode);
    if (queue == -1) return -1;
    msqid_ds state{};
    if (msgctl(queue, IPC_STAT, &state) != 0) continue;  // removed by its owner meanwhile
    const ipc_perm& permissions = state.msg_perm;
    if (is_ours(permissions)) return queue;
    if (!std::exchange(logged, true)) {
      LOG_AT("MsgQueueListener", "queue %d of user %d, made by %d, mode %o: removed.", key,
             static_cast<int>(permissions.uid), static_cast<int>(permissions.cuid), permissions.mode & kAllModeBits);
    }
    msgctl(queue, IPC_RMID, nullptr);
  }
  return -1;
}

}  // namespace

MsgQueueListener::MsgQueueListener(std::uint32_t key, Callback callback, std::uint64_t msg_size)
    : msg_size_(msg_size),
      block_(sizeof(long) + msg_size + 1),
      queue_id_(open_own_queue(static_cast<key_t>(key))),
      key_(key),
      callback_(callback) {}

int MsgQueueListener::Start() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
  if (pthread_create(&thread_, &attributes, run, this) != 0) thread_ = 0;
  pthread_attr_destroy(&attributes);
  return 0;
}

void MsgQueueListener::Close() {
  if (!stop_.exchange(true) && queue_id_ != -1) msgctl(queue_id_, IPC_RMID, nullptr);
}

int MsgQueueListener::Stop() {
  Close();
  if (thread_ != 0) pthread_join(thread_, nullptr);
  thread_ = 0;
  return 0;
}

void* MsgQueueListener::run(void* self) {
  static_cast<MsgQueueListener*>(self)->receive();
  return nullptr;
}

// If memory is short, only this record is lost.
void MsgQueueListener::deliver(void* message) {
  try {
    callback_(message);
  } catch (const std::exception& error) {
    LOG_AT("MsgQueueListener", "a record of queue %u was dropped: %s", key_, error.what());
  }
}

void MsgQueueListener::receive() {
  while (!stop_) {
    const ssize_t received = msgrcv(queue_id_, block_.data(), msg_size_, 0, 0);
    if (received >= 0) {
      std::memset(block_.data() + sizeof(long) + received, 0, msg_size_ - static_cast<std::size_t>(received));
      deliver(block_.data());
      continue;
    }
    // EINVAL for a once valid identifier: the queue was removed while this thread was not waiting on it.
    if (errno == EIDRM || (errno == EINVAL && queue_id_ != -1)) return;
    const int error = errno;
    char text[128];
    std::fprintf(stderr, "msgrcv Error：%s(%d), msgid:%d\n", strerror_r(error, text, sizeof(text)), error, queue_id_);
  }
}
