// The service framework: named local services on one machine.
//
// A service is a name, an exec callback and a number of workers. A client sends it one request at a time: a
// request name of at most 256 characters, a body of any length and, if it likes, one descriptor. Body and
// reply never pass through the socket. They live in an anonymous memory file which the client hands over; the
// service reads the body there, empties the file, writes its reply into it and says done.
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
//     ks_start(ks_create("greeter", KS_PTHREAD_MODE, 2, answer));        // returns when a thread calls
//     ks_stop
//
//     void* reply = NULL; uint64_t size = 0;                             // in another process
//     int status = ks_ez_call("greeter", "world", NULL, 0, &reply, &size, 5, -1);
//
// Errors. What goes wrong with one request is a status code. A record that is not what it should be, or a
// resource that the process cannot do without, ends the process: one line on standard error that begins with
// [ABORT] and names the operation and the failed condition, then abort().
//
// Threads. There are no locks in here. Each function says who may call it; without a word: one thread at a
// time per record, any number of threads with records of their own.
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

// The version of this header, and of the library that it came with.
#define KS_VERSION "1.0.0"

// Longest service name in characters.
#define MAXIMUM_NAME_SIZE 64
// Longest request name in characters.
#define KS_REQUEST_NAME_SIZE 256

// Every record begins with its magic, a 32-bit word that each operation tests first.
#define KS_IO_MAGIC 0x6B494F2Du
#define KS_HANDLE_MAGIC 0x6B53562Du
#define KS_EPOLL_MAGIC 0x6B45562Du

// ---- Requests ---------------------------------------------------------------------------------------------

// One request in flight. On the service side it arrives filled; on the client side ks_io_create makes an
// empty one. The fields are for reading; the operations below change them.
typedef struct ks_io {
  uint32_t magic;                               // KS_IO_MAGIC
  int32_t memfd;                                // the memory file, -1 until an operation needs one; owned
  int32_t sockfd;                               // the connection to the other side, -1 when none; owned
  int32_t extra_fd;                             // descriptor that travels beside the body, or -1; the caller's
  char request_name[KS_REQUEST_NAME_SIZE + 1];  // NUL-terminated
  uint64_t user_data;                           // the owner's, see ks_io_set
  void* shared_data;                            // the whole memory file as it was when mapped, or null
  uint64_t shared_size;                         // length of that mapping in bytes, 0 when unmapped
  int32_t peer_pid;                             // who sent the request (service side); all three 0 on the
  uint32_t peer_uid;                            // client side; together they form one struct ucred
  uint32_t peer_gid;
} ks_io;

// Makes an empty record without a memory file. Release it with ks_io_free. Never null.
ks_io* ks_io_create(void);

// Closes the connection and the memory file, unmaps, and releases the record. extra_fd stays open: it is the
// caller's. Never waits for the other side.
void ks_io_free(ks_io* io);

// Ends the conversation without a reply, for every process that holds a copy of the connection: programs that this
// process starts inherit connections. ks_reply ends it, too. A record that is freed without either closes this
// process's copy only.
void ks_io_hang_up(ks_io* io);

// Unmaps and closes the memory file early, for a service that keeps a connection open without answering it.
void ks_io_drop(ks_io* io);

// Maps the whole memory file as it is now and returns its first byte, or null for an empty or absent file.
// *size (bytes) is stored when `size` is not null. The pointer is good until the next operation that maps or
// resizes. There is no NUL behind the last byte. The other side can still shrink the file, and touching what
// was cut off raises SIGBUS: code that must survive a hostile peer reads through ks_io_fd instead.
void* ks_io_read(ks_io* io, uint64_t* size);

// Makes the memory file exactly `size` bytes long, creating it if absent, and returns its mapping; null when
// `size` is 0, and then nothing is mapped. Earlier pointers are void.
//
// On the service's side the file is the client's. When it cannot be resized or mapped, because the client has sealed
// it, for instance, the client is hung up on and the record goes on with a file of its own. A hostile client can hold
// the file's lock: this call, those that append and ks_io_fd then wait until that client is gone. A service that must
// survive that makes them on a thread which it can leave behind.
void* ks_io_realloc(ks_io* io, uint64_t size);

// Append to the memory file, creating it if absent. ks_io_write writes once and returns what write(2)
// returned. ks_io_splice moves at most `len` bytes from the descriptor `fdin`, one end of which must be a
// pipe, without waiting, and returns what splice(2) returned. A failed ks_io_printf is not reported.
int64_t ks_io_write(ks_io* io, const void* buf, uint64_t len);
void ks_io_printf(ks_io* io, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int64_t ks_io_splice(ks_io* io, int32_t fdin, uint64_t len);

// ks_io_write for serialisers: the bytes written minus `size`, so 0 when all of it was written.
int32_t ks_io_fwrite(const void* data, uint64_t size, ks_io* io);

// The size of the memory file now, in bytes; 0 when there is none. Maps nothing, tests no magic.
uint64_t ks_io_size(ks_io* io);

// Who sent the request, as the kernel saw it when the client connected.
int32_t ks_io_pid(ks_io* io);
uint32_t ks_io_uid(ks_io* io);
uint32_t ks_io_gid(ks_io* io);

// Whether the client still waits for its reply. False once its end is closed or has sent anything more (a
// client has nothing to say after its request). Always true on the client side.
bool ks_io_alive(ks_io* io);

// A word of the owner's choosing that travels with the record; the framework never looks at it.
void ks_io_set(ks_io* io, uint64_t value);
uint64_t ks_io_get(ks_io* io);

// The memory file as a descriptor or a stream, created if absent; these test no magic. ks_io_fd lends the
// record's own descriptor. The three dup forms return a new one with the results of dup(2), dup2(2) and
// dup3(2). ks_io_fopen opens an independent stream on the same file, ks_io_freopen turns `stream` into one;
// null on failure, and the caller closes it.
int ks_io_fd(ks_io* io);
int ks_io_dup(ks_io* io);
int ks_io_dup2(ks_io* io, int newfd);
int ks_io_dup3(ks_io* io, int newfd, int flags);
FILE* ks_io_fopen(ks_io* io, const char* mode);
FILE* ks_io_freopen(ks_io* io, const char* mode, FILE* stream);

// Gets rid of a descriptor that a client handed over, without ever waiting for its owner; -1 is ignored. `uid` is the
// client's user (ks_io_uid). A plain close can wait for as long as the owner likes: for a connection that lingers, for
// a file in user space. A memory file is closed at once. Anything else is closed by a closer: a process that shares
// this one's descriptor table, is an orphan and is called "ks-close". It ends when its closes have returned, and can
// outlive this process; one that is process 1, or adopts orphans, has to wait for closers, too.
//
// 256 closers live at a time, 8 of them for one user; while all of them wait, a further descriptor stays open. A user
// of whom 16 descriptors are open in this way is not asked for requests: its clients are hung up on. Any thread.
void ks_discard(int fd, uint32_t uid);
// Writes what the file `from` holds to `to`, a descriptor of a client of user `uid`, and closes both. A closer does all
// of it. When there can be no more closers, nothing is written. Any thread.
void ks_deliver(int from, int to, uint32_t uid);

// ---- Services ---------------------------------------------------------------------------------------------
//
// A worker asks one client at a time for its request. A client that sends nothing for 60 seconds, or whose descriptors
// do not follow its request within 5, is hung up on, and so is one whose memory file cannot serve: it must be a file of
// memfd_create, open for reading and writing, and not sealed against shrinking, growing or writing.

// Mode bits: exactly one of the two kinds of worker, with or without KS_STANDALONE.
#define KS_STANDALONE 1u    // ks_start puts the producer on a thread of its own and returns at once
#define KS_PROCESS_MODE 2u  // workers are child processes; one that dies is replaced
#define KS_PTHREAD_MODE 4u  // workers are threads

// Called once per request, in a worker. It owns `io` (ks_io_free) and `extra_fd` (-1, or a descriptor to get rid of
// with ks_discard). The memory file and `extra_fd` are close-on-exec: a program that is to use one of them gets a copy
// (dup2). `request_name` points into `io`. In KS_PTHREAD_MODE several workers are in it at once; in KS_PROCESS_MODE it
// runs with the client's environment.
typedef void (*ks_exec_fn)(const char* request_name, ks_io* io, int extra_fd);

// Called in each worker before its first and after its last request.
typedef void (*ks_hook_fn)(void* arg);

// Called in a worker, once for each client that it has asked for its request and that has been silent for 30 seconds.
// The worker serves no other client until that one speaks or leaves, or is hung up on after 60.
typedef void (*ks_silence_fn)(void* arg, int32_t peer_pid);

struct ks_worker;

// One named service. `paused`, `stopping` and `worker` change while other threads look at them: they are only
// ever touched atomically.
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

// Makes a service of `workers` workers; nothing is started and no file is touched. `name` has at most 64
// characters. A name that begins with "@/" is the path of the socket file; any other name is hashed into
// "/var/run/ks/%X.sock". Release it with ks_free. Never null: wrong arguments abort.
ks_handle* ks_create(const char* name, uint32_t mode, uint64_t workers, ks_exec_fn exec);

// Set the hooks. Before ks_start.
void ks_worker_init(ks_handle* handle, ks_hook_fn fn, void* arg);
void ks_worker_fini(ks_handle* handle, ks_hook_fn fn, void* arg);

// Sets what the calling worker does about silent clients; for the hook of ks_worker_init. Aborts in any other thread.
void ks_on_silence(ks_silence_fn fn, void* arg);

// The requests of the calling worker arrive unmapped: shared_data is null until ks_io_read. Saves a service that reads
// bodies through ks_io_fd what a mapping costs. For the hook of ks_worker_init. Aborts in any other thread.
void ks_leave_unmapped(void);

// Publishes the socket and starts the workers. SIGPIPE is ignored in the whole process from here on. With
// KS_STANDALONE returns at once; otherwise this thread is the producer until the service ends. `worker` is
// non-null from the first moment until all of the service is gone; a stop meanwhile is not lost. Worker processes are
// killed when the thread that made them ends: with KS_STANDALONE | KS_PROCESS_MODE that is this one.
void ks_start(ks_handle* handle);

// Refuse and accept new connections; clients already waiting are served all the same. Any thread.
void ks_pause(ks_handle* handle);
void ks_resume(ks_handle* handle);

// Removes the socket file, hangs up on the clients that still wait or have not been accepted yet, and returns when
// every worker has finished the request it was in. No effect on a service that is not running. Any thread but the
// service's own workers, for which it waits: a call from one of them aborts. When several threads call it, one does the
// work.
void ks_stop(ks_handle* handle);

// ks_stop, then waits until ks_start has let go of the handle, and releases it.
void ks_free(ks_handle* handle);

// Service side, last step: tells the client that the reply is in the memory file, and ends the conversation
// on the socket for every process that may hold a copy of it. Returns 0.
int ks_reply(ks_io* io);

// ---- Clients ----------------------------------------------------------------------------------------------

enum {
  KS_STATUS_OK = 0,       // reply received (from ks_epoll_perform also: sent, still pending)
  KS_STATUS_TIMEOUT = 1,  // nothing happened in the time allowed
  KS_STATUS_CONNECT = 2,  // no such service, or it is stopped, or it has accepted no client for seconds
  KS_STATUS_PAUSED = 3,   // the service is paused
  KS_STATUS_REFUSED = 4,  // reserved: no service sends it today
  KS_STATUS_BROKEN = 5,   // the connection ended without a reply
  KS_STATUS_BUSY = 6,     // 1000 clients are waiting already, or the service is short of descriptors
  KS_STATUS_ARGS = 7,     // a name is missing or too long
};

// One request on a record of the caller's, from start to reply. Waits max(timeout_s, 5) seconds at most. On 0
// the reply is mapped in `io` (shared_data, shared_size); when the time ran out after the request was sent, 0
// comes with nothing mapped. On any other status `io` holds no descriptors and can be used again. `extra_fd`
// (-1 for none) is lent: the service gets a copy.
int ks_call(const char* name, const char* request_name, ks_io* io, uint32_t timeout_s, int extra_fd);

// The same on plain buffers. `*recv` must be null; on 0 it becomes a malloc'ed buffer of `*rsize` bytes (no
// NUL behind them; not null, even for an empty reply) that the caller frees; on any other status both stay as
// they are. `recv` and `rsize` may be null.
int ks_ez_call(const char* name, const char* request_name, const void* data, uint64_t dsize, void** recv,
               uint64_t* rsize, uint32_t timeout_s, int extra_fd);

// Several requests at once on one poll set.
typedef struct ks_epoll {
  uint32_t magic;  // KS_EPOLL_MAGIC
  int32_t fd;      // the poll set
} ks_epoll;

ks_epoll* ks_epoll_create(void);
// Connects and starts one request; returns a status. The poll set keeps a pointer to `io` until it is
// finished or cancelled, and `extra_fd` must stay open as long. After KS_STATUS_CONNECT the socket is still in
// `io`: cancel or free it. The request itself is sent by ks_epoll_perform, which has to be called within 60 seconds of
// the service's asking for it.
int ks_epoll_call(ks_epoll* epoll, const char* name, const char* request_name, ks_io* io, int extra_fd);
// Advances the requests by one event, waiting at most `timeout_ms`. Returns the record that has finished (empty
// unless it holds a reply), or null while none has. `*status`, when given, holds the code: for a finished
// request its own, for a pending one 0, and 1 when nothing happened.
ks_io* ks_epoll_perform(ks_epoll* epoll, uint32_t timeout_ms, int* status);
// Gives one request up; the record and its memory file stay the caller's.
void ks_epoll_cancel(ks_epoll* epoll, ks_io* io);
// Releases the poll set; the records stay the caller's.
void ks_epoll_free(ks_epoll* epoll);

// ---- Signals ----------------------------------------------------------------------------------------------

// Signal numbers are 1 to MAX_SIGNAL_SIZE - 1.
#define MAX_SIGNAL_SIZE 32

typedef void (*ks_signal_fn)(int signum);

// Sets the handler of one signal for the process; null restores the default action. During start-up.
void ks_signal(int signum, ks_signal_fn handler);
// The action behind every handler set by ks_signal: calls the one in the table, if there is one.
void ks_sig_dispatch(int signum);
// Makes SIGABRT, SIGBUS, SIGFPE and SIGSEGV report to the kernel log (ks_crash_report) and re-installs every
// handler of the table so that a second delivery takes the default action.
void ks_crash_install(void);
// Writes the signal's name to standard error and a numbered backtrace to /dev/kmsg, then _exit(1).
void ks_crash_report(int signum) __attribute__((noreturn));

// Programs that a screening of callers would refuse: shells and script interpreters, as a POSIX extended
// regular expression on a path. Compiled before main by ks_init; no caller is screened today.
#define BLOCKED_PROGRAM_LIST \
  "(\\b|/)(ash|bash|csh|jsh|ksh|ksh93|pfcsh|pfksh|pfsh|pfsh|rbash|rksh93|sh|tcsh|zsh|busybox|php|python.*)$"
void ks_init(void) __attribute__((constructor));

#ifdef __cplusplus
}
#endif
