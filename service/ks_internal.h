// What the framework's own files share. Nothing outside service/ includes this.
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

// Sets bit 1 of the descriptor's status flags; false when fcntl fails. In spite of its name it leaves the
// descriptor inheritable: programs that the process starts see the framework's sockets, and always have.
bool set_fd_cloexec(int fd);

// Owner of a descriptor that user `uid` handed over, until it is released; discards it.
class handed_fd {
 public:
  explicit handed_fd(std::uint32_t uid, int fd = -1) : uid_(uid), fd_(fd) {}
  handed_fd(const handed_fd&) = delete;
  handed_fd& operator=(const handed_fd&) = delete;
  ~handed_fd() { ks_discard(fd_, uid_); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) { ks_discard(std::exchange(fd_, fd), uid_); }

 private:
  const std::uint32_t uid_;
  int fd_;
};

// The other side of a connection, as it was when it connected; all zero for what is no connection.
ucred ks_peer(int sockfd);

// Whether this user has handed over more than can be closed for now. Such a client is not asked for its request.
bool ks_has_too_many_open(std::uint32_t uid);

// The same descriptor under a number other than 0, which in a queue entry means none; `fd` itself unless it is 0,
// which then is closed.
int ks_nonzero(int fd);

// close(*fd) unless it is -1, and *fd = -1. For descriptors of our own.
void close_and_forget(int* fd);

// Closes a connection that has been shut down, without waiting for what lies unread in it.
void close_shut_down(int fd);
// The same, and *fd = -1, after shutting it down: the conversation ends even if another process holds a copy. No effect
// on -1.
void hang_up_and_forget(int* fd);

// ---- Names ------------------------------------------------------------------------------------------------

// Copies `text` into a buffer of `size` bytes, cutting what does not fit; always ends it with a NUL.
void ks_copy_text(char* buffer, std::size_t size, const char* text);

// Bytes of a socket path or stored service name, its NUL included.
inline constexpr std::size_t kSockFileSize = 64;

// Writes the socket path of service `name` (at most 64 characters): the rest of a name that begins with "@",
// else the path made of the first SHA-1 word. A failing digest aborts under `operation` with "generate
// <what>[name] SHA1 fail".
void ks_socket_path(const char* name, char (&path)[kSockFileSize], const char* operation, const char* what);

// The address of a socket path; bind and connect take the whole structure.
sockaddr_un ks_socket_address(const char* path);

// ---- Requests ---------------------------------------------------------------------------------------------

// Learns how memory files are told from others. That takes a descriptor, and a service that is being served may be out
// of them.
void ks_io_prepare();

// Makes the record of a request that a client has sent, and takes its connection and memory file over. Null when this
// is no file that can serve, or cannot be mapped, or memory is short; both stay the caller's then.
//
// A file that can serve is one of memfd_create, open for reading and writing, and not sealed against shrinking, growing
// or writing. It stays its client's all the same: resizing, seeking or writing it can fail for the client's reasons, or
// wait while the client holds its lock. A failure ends that client's connection, and the record goes on with a file of
// its own that nobody else sees.
//
// `is_mapped`: the record arrives with a mapping of the file.
ks_io* ks_io_accept(int memfd, int sockfd, bool is_mapped);

// Gives the record a new connection, or -1 where there is none to be had.
void ks_io_connect(ks_io* io, int sockfd);

// Seeks the memory file to its end and maps all of it (nothing for an empty file). A failed map aborts. No effect
// without a memory file.
void ks_io_sync(ks_io* io);
// The same for a reply, which is as long as the service says: false when it cannot be mapped and is longer than this
// machine's memory. Nobody can have written that; where it is shorter, it is this process that lacks something.
bool ks_io_sync_reply(ks_io* io);
// The length of a reply that is not mapped; false when it is longer than this machine's memory.
bool ks_io_reply_size(ks_io* io, std::uint64_t* size);
// Creates the memory file if the record has none.
void ks_io_shm(ks_io* io);
// Unmaps, closes the memory file and forgets it.
void ks_io_drop_shm(ks_io* io);

// ---- Workers ----------------------------------------------------------------------------------------------

// What the producer's poll set hands back with an event: the listening socket, a consumer or a waiting
// client.
enum ks_queue_type : std::uint32_t { LISTEN_SOCK = 1, WORKER_SOCK = 2, CLIENT_SOCK = 3 };

// An entry of the producer's poll set and, for clients, of its queue. A list is a ring through its head. A
// socket number of 0 marks an entry that has been released while its batch of events is still worked through.
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
  std::uint8_t ready;      // consumer: may receive a client. Touched atomically
  std::int32_t pollfd;     // its own poll set, -1 when closed
  std::int32_t sockfd[2];  // [0] the consumer's end, [1] the producer's; producer: [1] is the listening socket
  std::uint64_t index;
  ks_worker_id id;
  std::uint32_t type;  // consumer: the handle's mode; producer: 4 on a thread of its own, 2 in ks_start's caller
  ks_exec_fn exec;
  ks_hook_fn init_hook;
  void* init_arg;
  ks_hook_fn fini_hook;
  void* fini_arg;
  ks_queue queue;  // producer: also the head of the client queue

  // Bookkeeping for stopping and restarting without a leak.
  std::int32_t transfer_fd;      // consumer: the client handed over and not yet echoed, -1 when none
  std::uint8_t transfer_failed;  // consumer thread: has not received that client. Touched atomically
  std::int32_t client_fd;        // consumer: the client that has been asked for its request, -1 when none
  ucred client;                  // consumer: whose that is
  const ks_handle* handle;       // consumer: the service it works for
  ks_silence_fn on_silence;      // consumer: what it does about a silent client, null for nothing
  void* silence_arg;
  bool leaves_unmapped;  // consumer: see ks_leave_unmapped
  std::uint32_t phase;   // producer: ks_producer_phase. Touched atomically
};

// How far the end of a service has got. The producer's thread and the stopping thread wait for one another
// through this word.
enum ks_producer_phase : std::uint32_t {
  kProducerStarting = 0,  // the array is being set up
  kProducerRunning = 1,   // all of it stands, and the loop is entered
  kProducerLeft = 2,      // the loop has ended and touches nothing any more
  kWorkersStopped = 3,    // every consumer has ended
};

// (Re)creates one consumer of `handle`. Called while the service starts and, for a consumer process that has
// died, by the producer.
void ks_consumer_worker_init(ks_handle* handle, ks_worker* worker);
// The consumer's loop. Closes the consumer's end of the control socket; the other end is the producer's.
void ks_consumer_worker(ks_worker* worker);
// Whether the calling thread is a consumer of this service.
bool ks_is_consumer_of(const ks_handle* handle);
// The producer's loop; `workers` is the whole array. Leaves an empty client queue.
void ks_producer_worker(ks_handle* handle, ks_worker* workers);

// The one way to create a worker thread; false on failure.
bool ks_create_thread(pthread_t* tid, void* (*start)(void*), void* arg);

// Adds `fd` to the poll set `pollfd`.
bool ks_poll_add(int pollfd, int fd, std::uint32_t events, epoll_data_t data);

inline constexpr std::uint32_t kWatchEvents = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
// A waiting client is watched for loss, not for data.
inline constexpr std::uint32_t kWatchLoss = EPOLLERR | EPOLLHUP;
inline constexpr std::uint32_t kPeerClosed = EPOLLIN | EPOLLHUP | EPOLLRDHUP;
