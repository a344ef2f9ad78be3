/* Preloaded into the daemon: calls that fail if a test wants it (see faults.h), and otherwise call the next function of
 * the same name, in the C library or in a sanitizer's runtime, which must be preloaded before this library. Calls
 * inside the C library, for a stack or a heap, do not come here. */
#include "support/faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

static struct fault* faults;
static pid_t owner; /* a forked child is not the daemon */

__attribute__((constructor)) static void map_faults(void) {
  const int fd = open(FAULTS_FILE, O_RDWR | O_CLOEXEC);
  void* const data = mmap(NULL, FAULT_KINDS * sizeof(struct fault), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (data == MAP_FAILED) abort();
  faults = data;
  owner = getpid();
  unsetenv("LD_PRELOAD"); /* not for the programs that the daemon runs */
}

static int fails(enum fault_kind kind) {
  struct fault* const fault = &faults[kind];
  if (faults == NULL || kind == FAULT_KINDS || __atomic_load_n(&fault->left, __ATOMIC_ACQUIRE) == 0) return 0;
  if (getpid() != owner) return 0;
  if (__atomic_load_n(&fault->skip, __ATOMIC_SEQ_CST) > 0 && __atomic_fetch_sub(&fault->skip, 1, __ATOMIC_SEQ_CST) > 0)
    return 0;
  int left = __atomic_load_n(&fault->left, __ATOMIC_SEQ_CST);
  do { /* of two threads that call at once, one may be the last to fail */
    if (left == 0) return 0;
  } while (left > 0 &&
           !__atomic_compare_exchange_n(&fault->left, &left, left - 1, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
  __atomic_add_fetch(&fault->hits, 1, __ATOMIC_SEQ_CST);
  errno = fault->error;
  return 1;
}

/* Defines NAME so that it yields FAILED when KIND fails, and else calls the next NAME. */
#define CALL(kind, type, failed, name, parameters, arguments)   \
  type name parameters {                                        \
    static type(*next) parameters;                              \
    if (fails(kind)) return failed;                             \
    if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, #name); \
    return next arguments;                                      \
  }

CALL(FAULT_ACCEPT, int, -1, accept, (int fd, __SOCKADDR_ARG address, socklen_t* size), (fd, address, size))
CALL(op == EPOLL_CTL_ADD ? FAULT_EPOLL_ADD : FAULT_KINDS, int, -1, epoll_ctl,
     (int set, int op, int fd, struct epoll_event* event), (set, op, fd, event))
CALL(FAULT_FORK, pid_t, -1, fork, (void), ())
CALL(FAULT_OPEN, FILE*, NULL, fopen, (const char* path, const char* mode), (path, mode))
CALL(FAULT_OPEN, FILE*, NULL, freopen, (const char* path, const char* mode, FILE* stream), (path, mode, stream))
CALL(FAULT_OPEN, int, -1, mkostemp, (char* path, int flags), (path, flags))
CALL(FAULT_PTHREAD_CREATE, int, errno, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* arg),
     (thread, attributes, start, arg))
CALL(FAULT_SENDMSG, ssize_t, -1, sendmsg, (int fd, const struct msghdr* message, int flags), (fd, message, flags))

/* A wrapper of vfork cannot return while the child uses its stack frame, so vfork is a fork here. */
pid_t vfork(void) {
  return fork();
}

int open(const char* path, int flags, ...) {
  static int (*next)(const char*, int, ...);
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = va_arg(rest, mode_t); /* undefined if there is none, and then unused */
  va_end(rest);
  if (fails(FAULT_OPEN)) return -1;
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "open");
  return next(path, flags, mode);
}
