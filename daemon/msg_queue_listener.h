// System V message queues: a receiver with a thread of its own, and the sender's side.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

// Receives the messages of one queue, one at a time, and passes each to a callback on its own thread.
//
// The queue is created or opened by the constructor and removed by Stop(), with whatever it still holds. A
// queue that another user made first, or that others may write to, is replaced by an empty one of our own, after a
// line in the log. A queue that another process removes ends the thread in silence. Any other failure to receive (among
// them a message longer than `msg_size`, which stays in the queue) is one line on standard error and another try at
// once.
//
// The thread that makes the object starts and stops it.
class MsgQueueListener {
 public:
  // Gets the whole block: 8 bytes of message type, then `msg_size` bytes of payload. What a shorter message
  // lacks is zero, and the byte behind the block is a NUL, so that a text in it always ends. The block is the
  // listener's; it holds the next message after the callback has returned. The result is ignored. A callback
  // that throws drops its message, with a line in the log.
  using Callback = int (*)(void* message);

  // A failure to open the queue is not reported here; the thread will say so.
  MsgQueueListener(std::uint32_t key, Callback callback, std::uint64_t msg_size);
  MsgQueueListener(const MsgQueueListener&) = delete;
  MsgQueueListener& operator=(const MsgQueueListener&) = delete;

  // Starts the thread. Always 0.
  int Start();
  // Removes the queue without waiting. Only a message that has been received already is still passed on.
  void Close();
  // Closes and waits until the callback that may be running has returned. Always 0.
  int Stop();

 private:
  static void* run(void* self);
  void receive();
  void deliver(void* message);

  pthread_t thread_ = 0;  // 0: none
  std::uint64_t msg_size_;
  std::vector<char> block_;  // the message, and a NUL behind it
  std::int32_t queue_id_;    // -1: the queue could not be had
  std::uint32_t key_;
  std::atomic<bool> stop_{false};
  Callback callback_;
};

// Why a message could not be put into a queue.
enum : int {
  kQueueUnusable = 100,
  kQueueMissing = 101,
  kQueueRefuses = 102,  // it is full, or the size is wrong
};

// Puts a message into the queue `key` without waiting. `msgp` points at a long, the message type, and `msgsz`
// bytes of payload behind it. 0, or why not. Any thread.
int msg_queue_send(std::uint32_t key, const void* msgp, std::size_t msgsz);
