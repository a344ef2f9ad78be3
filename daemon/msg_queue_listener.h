// System V message queues: a receiver with a thread of its own, and the sender's side.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

// Receives the messages of one queue, one at a time, and passes each to a callback on its own thread.
//
// The constructor opens or creates the queue; Stop() removes it with its content. A queue that another user made, or
// that others may write to, is replaced by a new one, and this is logged. If another process removes the queue, the
// thread ends silently. After any other failure to receive, the thread prints one line on standard error and retries at
// once; a message longer than `msg_size`, for instance, stays in the queue.
//
// The thread that makes the object starts and stops it.
class MsgQueueListener {
 public:
  // Receives the whole block: 8 bytes of message type, then `msg_size` bytes of payload. A shorter message is padded
  // with zeros, and a NUL follows the block, so that texts are always terminated. The block belongs to the listener and
  // is valid until the callback returns. The result is ignored. If the callback throws, the listener drops the message
  // and logs a line.
  using Callback = int (*)(void* message);

  // Does not report a failure to open the queue; the thread does.
  MsgQueueListener(std::uint32_t key, Callback callback, std::uint64_t msg_size);
  MsgQueueListener(const MsgQueueListener&) = delete;
  MsgQueueListener& operator=(const MsgQueueListener&) = delete;

  // Starts the thread. Always 0.
  int Start();
  // Removes the queue without waiting. A message that was already received is still passed on.
  void Close();
  // Closes, and waits until a running callback has returned. Always 0.
  int Stop();

 private:
  static void* run(void* self);
  void receive();
  void deliver(void* message);

  pthread_t thread_ = 0;  // 0: none
  std::uint64_t msg_size_;
  std::vector<char> block_;  // the message and a terminating NUL
  std::int32_t queue_id_;    // -1: the queue could not be opened
  std::uint32_t key_;
  std::atomic<bool> stop_{false};
  Callback callback_;
};

// Reasons why a message could not be put into a queue.
enum : int {
  kQueueUnusable = 100,
  kQueueMissing = 101,
  kQueueRefuses = 102,  // it is full, or the size is wrong
};

// Puts a message into the queue `key` without waiting. `msgp` points to a long, the message type, followed by `msgsz`
// bytes of payload. Returns 0 or a reason above. Any thread.
int msg_queue_send(std::uint32_t key, const void* msgp, std::size_t msgsz);
