// The service framework: named local services on one machine.
//
// A service is a name, an exec callback and a number of workers. A client sends one request per connection: a request
// name of at most 256 characters, a body of any length and optionally one descriptor. Body and reply do not pass
// through the socket but through an anonymous memory file that the client sends along. The service reads the body
// there, empties the file, writes its reply into it and sends "done".
//
//     void answer(const char* request_name, ks_io* io, int extra_fd) {   // one worker runs this per request
//       if (ks_io_alive(io)) {
//         ks_io_realloc(io, 0);                                          // drop the body
//         ks_io_printf(io, "hello %s\n", request_name);                  // append the reply
//         ks_reply(io);                                                  // done; the client wakes up
//       }
//       ks_discard(extra_fd, ks_io_uid(io));                             // the callback owns the descriptor ...
//       ks_io_free(io);                                                  // ... and io
//     }
//     ks_start(ks_create("greeter", KS_PTHREAD_MODE, 2, answer));        // returns after ks_stop
//
//     void* reply = NULL; uint64_t size = 0;                             // in another process
//     int status = ks_ez_call("greeter", "world", NULL, 0, &reply, &size, 5, -1);
//
// Errors. A failed request yields a status code. An invalid record (null, released or of another type), or the lack of
// an indispensable resource, ends the process: the operation prints one line on standard error, which begins with
// [ABORT] and names the operation and the failed condition, and calls abort().
//
// Threads. The framework has no locks. Each function says which threads may call it. By default any thread may, but
// only one at a time per record.
//
// Usable from C11 and from C++.
#pragma once

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// The version of this header and of its library.
#define KS_VERSION "1.0.0"

// Longest service name in characters.
#define MAXIMUM_NAME_SIZE 64
// Longest request name in characters.
#define KS_REQUEST_NAME_SIZE 256

// Every record begins with its magic number, a 32-bit word. Operations check it first unless they say otherwise.
#define KS_IO_MAGIC 0x6B494F2Du
#define KS_HANDLE_MAGIC 0x6B53562Du
#define KS_EPOLL_MAGIC 0x6B45562Du

// ---- Requests ---------------------------------------------------------------------------------------------

// One request in flight. On the service side it arrives filled; on the client side ks_io_create makes an empty one. The
// fields are for reading; the operations below change them.
typedef struct ks_io {
  uint32_t magic;                               // KS_IO_MAGIC
  int32_t memfd;                                // the memory file, -1 until an operation needs one; owned
  int32_t sockfd;                               // the connection to the other side, -1 when none; owned
  int32_t extra_fd;                             // client side: the extra descriptor to send, or -1; the caller's
  char request_name[KS_REQUEST_NAME_SIZE + 1];  // NUL-terminated
  uint64_t user_data;                           // the owner's, see ks_io_set
  void* shared_data;                            // the whole memory file as it was when mapped, or null
  uint64_t shared_size;                         // length of that mapping in bytes, 0 when unmapped
  // The client's process, user and group, as one struct ucred; all 0 on the client side.
  int32_t peer_pid;
  uint32_t peer_uid;
  uint32_t peer_gid;
} ks_io;

// Makes an empty record without a memory file. Release it with ks_io_free. Never null.
ks_io* ks_io_create(void);

// Closes the connection, unmaps and closes the memory file, and releases the record. extra_fd belongs to the caller and
// stays open. Never waits for the other side.
void ks_io_free(ks_io* io);

// Ends the conversation without a reply, in every process that holds a copy of the connection (programs that this
// process starts inherit connections). ks_reply ends it, too. Without either, ks_io_free closes only this process's
// copy of the connection.
void ks_io_hang_up(ks_io* io);

// Unmaps and closes the memory file early, for a service that keeps a connection open without answering it.
void ks_io_drop(ks_io* io);

// Maps the whole memory file as it is now and returns its first byte, or null for an empty or absent file. *size
// (bytes) is stored when `size` is not null. The pointer is good until the next operation that maps or resizes. No NUL
// follows the last byte. The other side can still shrink the file, and access beyond its new end raises SIGBUS: code
// that must survive a hostile peer reads through ks_io_fd instead.
void* ks_io_read(ks_io* io, uint64_t* size);

// Makes the memory file exactly `size` bytes long, creating it if absent, and returns its mapping. If `size` is 0,
// nothing is mapped and null is returned. Earlier pointers become invalid.
//
// On the service's side the client shares the file. If it cannot be resized or mapped, for instance because the client
// has sealed it, the client is hung up on and the record continues with a private file. A hostile client can hold the
// file's lock: this call, the appending calls and ks_io_fd then wait until that client is gone. A service that must
// survive that makes these calls on a thread that it can abandon.
void* ks_io_realloc(ks_io* io, uint64_t size);

// Append to the memory file, creating it if absent. ks_io_write writes once and returns the result of write(2).
// ks_io_splice moves at most `len` bytes from the pipe `fdin` without waiting and returns the result of splice(2). A
// failed ks_io_printf is not reported.
int64_t ks_io_write(ks_io* io, const void* buf, uint64_t len);
void ks_io_printf(ks_io* io, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int64_t ks_io_splice(ks_io* io, int32_t fdin, uint64_t len);

// ks_io_write for serialisers: the bytes written minus `size`, so 0 when all of it was written.
int32_t ks_io_fwrite(const void* data, uint64_t size, ks_io* io);

// The current size of the memory file in bytes; 0 when there is none. Maps nothing and does not check the magic.
uint64_t ks_io_size(ks_io* io);

// The client's process, user and group, as the kernel recorded them when the client connected.
int32_t ks_io_pid(ks_io* io);
uint32_t ks_io_uid(ks_io* io);
uint32_t ks_io_gid(ks_io* io);

// Whether the client still waits for its reply. False once the client has closed its end or sent more data (no client
// sends anything after its request). Always true on the client side.
bool ks_io_alive(ks_io* io);

// A value stored with the record for its owner. The framework does not use it.
void ks_io_set(ks_io* io, uint64_t value);
uint64_t ks_io_get(ks_io* io);

// The memory file as a descriptor or a stream, created if absent; the magic is not checked. ks_io_fd returns the
// record's own descriptor, which the caller must not close. The three dup forms return what dup(2), dup2(2) and dup3(2)
// return. ks_io_fopen opens an independent stream on the same file, ks_io_freopen reopens `stream` on it; both return
// null on failure, and the caller closes the stream.
int ks_io_fd(ks_io* io);
int ks_io_dup(ks_io* io);
int ks_io_dup2(ks_io* io, int newfd);
int ks_io_dup3(ks_io* io, int newfd, int flags);
FILE* ks_io_fopen(ks_io* io, const char* mode);
FILE* ks_io_freopen(ks_io* io, const char* mode, FILE* stream);

// Closes a descriptor that a client sent, without ever waiting for the client; -1 is ignored. `uid` is the client's
// user (ks_io_uid). A plain close can wait as long as the client likes, for instance on a lingering connection or a
// file of a user-space file system. Memory files are closed at once. A closer closes everything else: an orphan process
// named "ks-close" that shares this process's descriptor table. It ends when its closes have returned, and can outlive
// this process. A program that is process 1 or a child subreaper also has to reap closers.
//
// At most 256 closers live at a time, 8 of them for one user. While all of them wait, further descriptors stay open.
// When 16 discarded descriptors of one user are still open, workers hang up on that user's clients instead of asking
// them for their requests. Any thread.
void ks_discard(int fd, uint32_t uid);
// Writes the content of the file `from` to `to`, a descriptor from a client of user `uid`, and closes both. A closer
// does the work. If no closer can be started, nothing is written. Any thread.
void ks_deliver(int from, int to, uint32_t uid);

// ---- Services ---------------------------------------------------------------------------------------------
//
// A worker asks one client at a time for its request. It hangs up on a client that sends nothing for 60 seconds, whose
// descriptors do not follow its request within 5 seconds, or whose memory file is unsuitable. The file must be made by
// memfd_create, open for reading and writing, and not sealed against shrinking, growing or writing.

// Mode bits: exactly one of the two kinds of worker, with or without KS_STANDALONE.
#define KS_STANDALONE 1u    // ks_start puts the producer on a thread of its own and returns at once
#define KS_PROCESS_MODE 2u  // workers are child processes; one that dies is replaced
#define KS_PTHREAD_MODE 4u  // workers are threads

// Called once per request, in a worker. It owns `io` (release with ks_io_free) and `extra_fd` (-1, or close with
// ks_discard). The memory file and `extra_fd` are close-on-exec: give a program that needs one of them a copy (dup2).
// `request_name` points into `io`. In KS_PTHREAD_MODE several workers call it at once; in KS_PROCESS_MODE it runs with
// the client's environment.
typedef void (*ks_exec_fn)(const char* request_name, ks_io* io, int extra_fd);

// Called in each worker before its first and after its last request.
typedef void (*ks_hook_fn)(void* arg);

// Called in a worker when a client has not sent its request within 30 seconds after the worker asked for it, once for
// each such client. The worker serves no other client until this one sends something or leaves, at the latest until the
// worker hangs up on it after 60 seconds.
typedef void (*ks_silence_fn)(void* arg, int32_t peer_pid);

struct ks_worker;

// One named service. `paused`, `stopping` and `worker` are shared between threads and accessed atomically only.
typedef struct ks_handle {
  uint32_t magic;                        // KS_HANDLE_MAGIC
  uint8_t paused;                        // 1 while new connections are refused
  uint8_t stopping;                      // 1 once ks_stop has begun
  char sockfile[MAXIMUM_NAME_SIZE + 1];  // path of the socket file, at most 63 characters
  char name[MAXIMUM_NAME_SIZE + 1];      // the service name, its first 63 characters
  uint32_t mode;
  uint64_t service_size;  // number of workers
  ks_exec_fn exec;
  ks_hook_fn init_hook;
  void* init_arg;
  ks_hook_fn fini_hook;
  void* fini_arg;
  struct ks_worker* worker;  // the workers, then the producer; null unless running
} ks_handle;

// Creates a service with `workers` workers; starts nothing and touches no file. `name` has at most 64 characters. A
// name that begins with "@/" gives the path of the socket file; any other name is hashed into "/var/run/ks/%X.sock".
// Release it with ks_free. Never null: wrong arguments abort.
ks_handle* ks_create(const char* name, uint32_t mode, uint64_t workers, ks_exec_fn exec);

// Set the hooks. Before ks_start.
void ks_worker_init(ks_handle* handle, ks_hook_fn fn, void* arg);
void ks_worker_fini(ks_handle* handle, ks_hook_fn fn, void* arg);

// Sets the calling worker's callback for silent clients. For use in the hook of ks_worker_init; aborts in threads that
// are not workers.
void ks_on_silence(ks_silence_fn fn, void* arg);

// Leaves the requests of the calling worker unmapped: shared_data is null until ks_io_read. Saves the cost of a mapping
// if the service reads bodies through ks_io_fd. For use in the hook of ks_worker_init; aborts in other threads.
void ks_leave_unmapped(void);

// Publishes the socket and starts the workers. SIGPIPE is ignored in the whole process from here on. With KS_STANDALONE
// returns at once; otherwise the calling thread is the producer until the service ends. handle->worker is set before
// anything else and cleared when the service has ended completely; a stop in between is not lost. A worker process
// is killed when the thread that created it ends. The first ones are created by the thread that calls ks_start, also
// with KS_STANDALONE.
void ks_start(ks_handle* handle);

// ks_pause refuses new connections, ks_resume accepts them again. Clients that wait already are served. Any thread.
void ks_pause(ks_handle* handle);
void ks_resume(ks_handle* handle);

// Removes the socket file, hangs up on clients that wait or have not been accepted yet, and returns when every worker
// has finished its current request. No effect on a service that is not running. Any thread but the service's own
// workers, for which it waits: a call from a worker aborts. If several threads call it, one does the work.
void ks_stop(ks_handle* handle);

// Stops the service like ks_stop, waits until ks_start no longer uses the handle, and releases it.
void ks_free(ks_handle* handle);

// Service side, last step: tells the client that the reply is in the memory file, and ends the conversation in every
// process that holds a copy of the socket. Returns 0.
int ks_reply(ks_io* io);

// ---- Clients ----------------------------------------------------------------------------------------------

enum {
  KS_STATUS_OK = 0,       // reply received (from ks_epoll_perform also: sent, still pending)
  KS_STATUS_TIMEOUT = 1,  // nothing happened in the time allowed
  KS_STATUS_CONNECT = 2,  // no such service, or it is stopped, or it has not accepted the connection within 5 seconds
  KS_STATUS_PAUSED = 3,   // the service is paused
  KS_STATUS_REFUSED = 4,  // reserved: no service sends it today
  KS_STATUS_BROKEN = 5,   // the connection ended without a reply
  KS_STATUS_BUSY = 6,     // 1000 clients are waiting already, or the service is short of descriptors
  KS_STATUS_ARGS = 7,     // a name is missing or too long
};

// Makes one complete request with the caller's record. Waits max(timeout_s, 5) seconds at most. On 0 the reply is
// mapped in `io` (shared_data, shared_size); if the time runs out after the request was sent, it returns 0 with nothing
// mapped. On any other status `io` holds no descriptors and can be used again. The service gets a copy of `extra_fd`
// (-1 for none); the caller keeps its own.
int ks_call(const char* name, const char* request_name, ks_io* io, uint32_t timeout_s, int extra_fd);

// The same with plain buffers. `*recv` must be null. On 0 it is set to a malloc'ed buffer of `*rsize` bytes that the
// caller frees; it has no terminating NUL and is non-null even for an empty reply. On any other status both stay
// unchanged. `recv` and `rsize` may be null.
int ks_ez_call(const char* name, const char* request_name, const void* data, uint64_t dsize, void** recv,
               uint64_t* rsize, uint32_t timeout_s, int extra_fd);

// Several requests at once on one poll set.
typedef struct ks_epoll {
  uint32_t magic;  // KS_EPOLL_MAGIC
  int32_t fd;      // the poll set
} ks_epoll;

ks_epoll* ks_epoll_create(void);
// Connects and starts one request; returns a status. The poll set keeps a pointer to `io` until the request is finished
// or cancelled, and `extra_fd` must stay open until then. After KS_STATUS_CONNECT the socket is still in `io`: cancel
// the request or free `io`. ks_epoll_perform sends the request; call it within 60 seconds after the service has asked
// for the request.
int ks_epoll_call(ks_epoll* epoll, const char* name, const char* request_name, ks_io* io, int extra_fd);
// Processes one event, waiting at most `timeout_ms`. Returns the record of a finished request (empty unless it holds a
// reply), or null. `*status`, unless `status` is null, is set to the status of the finished request, to 0 if a request
// was advanced but is still pending, or to 1 if nothing happened.
ks_io* ks_epoll_perform(ks_epoll* epoll, uint32_t timeout_ms, int* status);
// Cancels one request; the record and its memory file stay the caller's.
void ks_epoll_cancel(ks_epoll* epoll, ks_io* io);
// Releases the poll set; the records stay the caller's.
void ks_epoll_free(ks_epoll* epoll);

// ---- Signals ----------------------------------------------------------------------------------------------

// Signal numbers are 1 to MAX_SIGNAL_SIZE - 1.
#define MAX_SIGNAL_SIZE 32

typedef void (*ks_signal_fn)(int signum);

// Sets the process's handler of one signal; null restores the default action. Call it during start-up.
void ks_signal(int signum, ks_signal_fn handler);
// The action that ks_signal installs: calls the handler in the table, if any.
void ks_sig_dispatch(int signum);
// Makes ks_crash_report the handler of SIGABRT, SIGBUS, SIGFPE and SIGSEGV. Installs every handler in the table anew,
// for one delivery only: a second one takes the default action.
void ks_crash_install(void);
// Writes the signal's name to standard error and a numbered backtrace to /dev/kmsg, then _exit(1).
void ks_crash_report(int signum) __attribute__((noreturn));

// Shells and script interpreters, as a POSIX extended regular expression for program paths. Meant for screening callers
// by their program. ks_init compiles it before main; no caller is screened today.
#define BLOCKED_PROGRAM_LIST \
  "(\\b|/)(ash|bash|csh|jsh|ksh|ksh93|pfcsh|pfksh|pfsh|pfsh|rbash|rksh93|sh|tcsh|zsh|busybox|php|python.*)$"
void ks_init(void) __attribute__((constructor));

#ifdef __cplusplus
}
#endif
