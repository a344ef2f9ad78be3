// Declarations shared by the framework's own files. Nothing outside service/ includes this.
#pragma once

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <utility>

#include "service/directive.h"
#include "service/ks.h"

// ---- Fatal errors -----------------------------------------------------------------------------------------

// Prints "[ABORT] @<operation>() <description>: `<condition>'" as one line on standard error and aborts.
[[noreturn]] void ks_abort(const char* operation, const char* condition, const char* description, ...)
    __attribute__((format(printf, 3, 4)));

// Each aborts under `operation` unless `record` is non-null and begins with its magic. Reads the first four bytes only.
// `description` shows the pointer with one %p.
void ks_verify_io(const ks_io* record, const char* operation, const char* description);
void ks_verify_epoll(const ks_epoll* record, const char* operation, const char* description);
void ks_verify_handle(const ks_handle* record, const char* operation, const char* description);

// ---- Descriptors ------------------------------------------------------------------------------------------

// Sets the lowest bit of the descriptor's status flags; false when fcntl fails. Despite its name it leaves the
// descriptor inheritable: programs started by the process have always inherited the framework's sockets.
bool set_fd_cloexec(int fd);

// Owns a descriptor received from user `uid`. Discards it unless it is released.
class received_fd {
 public:
  explicit received_fd(std::uint32_t uid, int fd = -1) : uid_(uid), fd_(fd) {}
  received_fd(const received_fd&) = delete;
  received_fd& operator=(const received_fd&) = delete;
  ~received_fd() { ks_discard(fd_, uid_); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) { ks_discard(std::exchange(fd_, fd), uid_); }

 private:
  const std::uint32_t uid_;
  int fd_;
};

// The credentials that the peer had when it connected; all zero if `sockfd` is not a connected socket.
ucred ks_peer(int sockfd);

// Whether too many descriptors from this user are still waiting to be closed (discard.cpp). Consumers do not ask
// clients of such a user for requests.
bool ks_has_too_many_open(std::uint32_t uid);

// For a process that was cloned without CLONE_VM: unmaps all data but the mappings that contain the `kept` addresses.
// Code and initialised static data stay. Afterwards the caller can use its own stack, what it kept, and system calls.
// Atomics need the static data of this library on some machines: keep one of its zero-initialised variables.
void ks_drop_memory(std::initializer_list<const void*> kept);

// Returns `fd`, but replaces descriptor 0 by a duplicate with another number: 0 in a queue entry means "no socket".
int ks_nonzero(int fd);

// Closes *fd unless it is -1, and sets it to -1. Only for descriptors that this process created.
void close_and_forget(int* fd);

// Closes a connection that has been shut down. Never waits, even if it contains unread descriptors (discard.cpp).
void close_shut_down(int fd);
// Shuts *fd down, closes it in this way and sets it to -1. The shutdown ends the conversation even if another process
// holds a copy. No effect on -1.
void hang_up_and_forget(int* fd);

// ---- Names ------------------------------------------------------------------------------------------------

// Copies `text` into a buffer of `size` bytes, truncated if necessary and always NUL-terminated.
void ks_copy_text(char* buffer, std::size_t size, const char* text);

// Size of a socket path or stored service name in bytes, including the NUL.
inline constexpr std::size_t kSockFileSize = 64;

// Writes the socket path of service `name` (at most 64 characters): for a name that begins with "@" the rest of the
// name, otherwise a path made from the first word of its SHA-1. If the digest fails, aborts under `operation` with
// "generate <what>[name] SHA1 fail".
void ks_socket_path(const char* name, char (&path)[kSockFileSize], const char* operation, const char* what);

// The address for a socket path. Pass the whole structure to bind and connect.
sockaddr_un ks_socket_address(const char* path);

// ---- Requests ---------------------------------------------------------------------------------------------

// Looks up the device of memory files. Called before the service starts, because it needs a free descriptor.
void ks_io_prepare();

// Makes the record of a client's request; it owns the connection and the memory file from then on. Returns null, and
// the caller keeps both, if the file is unsuitable or cannot be mapped, or if memory is short.
//
// A suitable file was made by memfd_create, is open for reading and writing, and is not sealed against shrinking,
// growing or writing. The client still shares it and can make every resize, seek or write fail, or wait by holding the
// file's lock. After a failure the client is hung up on and the record continues with a private file.
//
// `is_mapped`: map the file at once.
ks_io* ks_io_accept(int memfd, int sockfd, bool is_mapped);

// Gives the record a new connection, or -1 if there is none.
void ks_io_connect(ks_io* io, int sockfd);

// Seeks the memory file to its end and maps all of it, or nothing if it is empty. Aborts if mapping our own file fails.
// No effect without a memory file.
void ks_io_sync(ks_io* io);
// The same for a reply, whose length the service controls. Returns false if mapping fails and the reply is longer than
// this machine's memory: no service can have written that. If a shorter reply cannot be mapped, this process is short
// of a resource, and it aborts.
bool ks_io_sync_reply(ks_io* io);
// The length of a reply that is not mapped; false when it is longer than this machine's memory.
bool ks_io_reply_size(ks_io* io, std::uint64_t* size);
// Creates the memory file if the record has none.
void ks_io_shm(ks_io* io);
// Unmaps, closes the memory file and forgets it.
void ks_io_drop_shm(ks_io* io);

// ---- Workers ----------------------------------------------------------------------------------------------

// What an entry of the producer's poll set stands for: the listening socket, a consumer or a waiting client.
enum ks_queue_type : std::uint32_t { LISTEN_SOCK = 1, WORKER_SOCK = 2, CLIENT_SOCK = 3 };

// An entry of the producer's poll set and, for clients, of its queue. Lists are circular and include their head. Socket
// number 0 marks an entry that was released while its batch of events is still being processed.
struct ks_queue {
  std::uint32_t type;
  std::int32_t sockfd;
  ks_queue* next;
  ks_queue* prev;
};
static_assert(sizeof(ks_queue) == 8 + 2 * sizeof(void*), "a waiting client costs one small entry");

union ks_worker_id {
  pid_t pid;
  pthread_t tid;
};

// One consumer, or the producer as the last element of the handle's array.
struct ks_worker {
  std::uint8_t ready;      // consumer: may receive a client. Accessed atomically
  std::int32_t pollfd;     // its own poll set, -1 when closed
  std::int32_t sockfd[2];  // [0] the consumer's end, [1] the producer's; producer: [1] is the listening socket
  std::uint64_t index;
  ks_worker_id id;
  std::uint32_t type;  // consumer: the handle's mode; producer: KS_PTHREAD_MODE if it has a thread of its own
  ks_exec_fn exec;
  ks_hook_fn init_hook;
  void* init_arg;
  ks_hook_fn fini_hook;
  void* fini_arg;
  ks_queue queue;  // producer: also the head of the client queue

  // Bookkeeping for stopping and restarting without a leak.
  std::int32_t transfer_fd;      // consumer: the client whose transfer it has not echoed yet, or -1
  std::uint8_t transfer_failed;  // consumer thread: it failed to receive that client. Accessed atomically
  std::int32_t client_fd;        // consumer: the client that was asked for its request, or -1
  ucred client;                  // consumer: that client's credentials
  const ks_handle* handle;       // consumer: the service it works for
  ks_silence_fn on_silence;      // consumer: called for a silent client, or null
  void* silence_arg;
  bool leaves_unmapped;  // consumer: see ks_leave_unmapped
  std::uint32_t phase;   // producer: ks_producer_phase. Accessed atomically
};

// How far a service has started or stopped. The producer's thread and the stopping thread wait for each other on it.
enum ks_producer_phase : std::uint32_t {
  kProducerStarting = 0,  // the array is being set up
  kProducerRunning = 1,   // the array is complete and the loop runs
  kProducerLeft = 2,      // the loop has ended and uses the array no longer
  kWorkersStopped = 3,    // every consumer has ended
};

// Creates or replaces one consumer of `handle`. Called when the service starts and by the producer when a consumer
// process has died.
void ks_consumer_worker_init(ks_handle* handle, ks_worker* worker);
// The consumer's loop. Closes the consumer's end of the control socket; the producer closes the other.
void ks_consumer_worker(ks_worker* worker);
// Whether the calling thread is a consumer of this service.
bool ks_is_consumer_of(const ks_handle* handle);
// The producer's loop; `workers` is the whole array. The client queue is empty when it returns.
void ks_producer_worker(ks_handle* handle, ks_worker* workers);

// Creates a worker thread; false on failure.
bool ks_create_thread(pthread_t* tid, void* (*start)(void*), void* arg);

// Adds `fd` to the poll set `pollfd`.
bool ks_poll_add(int pollfd, int fd, std::uint32_t events, epoll_data_t data);

inline constexpr std::uint32_t kWatchEvents = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
// Events of a waiting client: only the loss of its connection, not data.
inline constexpr std::uint32_t kWatchLoss = EPOLLERR | EPOLLHUP;
inline constexpr std::uint32_t kPeerClosed = EPOLLIN | EPOLLHUP | EPOLLRDHUP;
