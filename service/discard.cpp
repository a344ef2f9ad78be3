// Closes descriptors that clients have sent, without ever waiting for their owner.
//
// Closing such a descriptor can take as long as its owner likes. Examples are the last close of a lingering connection,
// any close of a file whose file system is a program of the owner's, and the last close of a socket whose queue
// contains such descriptors. Some of these waits outlast SIGKILL. A thread that serves others therefore closes only
// what is harmless: memory files, and connections that are shut down and have no unread data.
//
// Everything else is marked as pending, and a closer is started: a process that shares only this process's descriptor
// table, and drops the memory that it copied. It closes the pending numbers one by one and ends. If a close waits, only
// the closer waits. A closer is not a thread, because a thread that waits in the kernel keeps its process from ending.
//
// A timer interrupts every wait that a signal can end. Only uninterruptible waits keep a closer, and only while the
// owner's process exists. One user gets only a few of all closers; the user's other descriptors stay open until one of
// these closers is free. Workers do not ask clients of a user with too many open descriptors (ks_has_too_many_open), so
// that no user can fill the table.
//
// A closer is an orphan (its parent ends at once), so the surrounding program sees it neither in wait() nor by SIGCHLD.
// The process and its closers share one mapping, made by the first discard in the process. A fork makes its own
// mapping, because its descriptor numbers differ.

#include <fcntl.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>

#include "service/ks_internal.h"

namespace {

#ifdef __SANITIZE_THREAD__
// The sanitizer takes the clone for a fork and loses track of all threads, so closers are threads here.
constexpr bool kProcessesWork = false;
#else
constexpr bool kProcessesWork = true;
#endif

constexpr int kMostClosers = 256;
constexpr int kMostClosersOfAUser = 8;
constexpr int kMostOpenOfAUser = 16;  // a conforming client has two, for the moment a closer needs
// System users are counted one by one. Other users whose ids are equal modulo kOtherUsers count as one user.
constexpr std::uint32_t kSystemUsers = 1000;
constexpr std::uint32_t kOtherUsers = 3096;
// No process of ours has this many descriptors. A descriptor with a larger number stays open.
constexpr std::size_t kMostNumbers = 65536;
constexpr std::size_t kStackSize = 16384;
constexpr char kCloserName[] = "ks-close";     // what ps shows
constexpr suseconds_t kLongestWait = 100'000;  // microseconds, for one interruptible wait
constexpr int kMostInterruptions = 50;         // of a delivery: the reader gets five seconds

// How to close a descriptor number, and the index of the user who sent it. kClose: close it. kEmptyAndClose: read the
// connection empty first.
using Mark = std::uint32_t;
constexpr Mark kNothing = 0;
constexpr Mark kClose = 0x10000;
constexpr Mark kEmptyAndClose = 0x20000;
constexpr Mark kUserMask = 0xffff;

struct User {
  std::atomic<int> open;  // descriptors that were discarded and are not closed yet
  // Closers that are busy with a kClose and with a kEmptyAndClose descriptor. They are counted separately: emptying a
  // connection hardly ever waits, and must not wait for the user's other closers.
  std::atomic<int> closers[2];
};

// Shared by a process and its closers. All zero at first.
struct Pending {
  pid_t owner;  // the process these numbers belong to: a fork inherits the page, but has its own table
  std::atomic<int> closers;
  std::atomic<std::size_t> end;  // all marked numbers are below this
  std::atomic<Mark> marks[kMostNumbers];
  User users[kSystemUsers + kOtherUsers];

  User& user_of(Mark mark) { return users[mark & kUserMask]; }
  std::atomic<int>& closers_of(Mark mark) { return user_of(mark).closers[(mark & kEmptyAndClose) != 0 ? 1 : 0]; }
};
static_assert(std::atomic<std::size_t>::is_always_lock_free && std::atomic<Mark>::is_always_lock_free &&
                  std::atomic<int>::is_always_lock_free,
              "processes share them");

std::atomic<Pending*> g_pending{nullptr};

// The mapping of this process, or null. A mapping inherited by fork does not count.
Pending* known_pending() {
  Pending* const known = g_pending.load();
  return known != nullptr && known->owner == getpid() ? known : nullptr;
}

Pending* pending() {
  Pending* known = g_pending.load();
  if (known != nullptr && known->owner == getpid()) return known;
  void* page = mmap(nullptr, sizeof(Pending), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  auto* made = static_cast<Pending*>(page);
  made->owner = getpid();
  if (g_pending.compare_exchange_strong(known, made)) return made;
  munmap(page, sizeof(Pending));
  return known;
}

// Increments `count`; false if it has reached `most`.
bool enter(std::atomic<int>& count, int most) {
  if (count.fetch_add(1) < most) return true;
  count.fetch_sub(1);
  return false;
}

void mark(Pending* pending, int fd, Mark mark) {
  const auto number = static_cast<std::size_t>(fd);
  pending->user_of(mark).open.fetch_add(1);
  pending->marks[number].store(mark);
  std::size_t end = pending->end.load();
  while (end <= number && !pending->end.compare_exchange_weak(end, number + 1)) continue;
}

// Takes one pending number whose user may have another closer, and counts the caller as that closer. Returns -1 if no
// such number is pending.
int take(Pending* pending, Mark* taken) {
  const std::size_t end = pending->end.load();
  for (std::size_t number = 0; number < end; ++number) {
    const Mark mark = pending->marks[number].load();
    if (mark == kNothing || !enter(pending->closers_of(mark), kMostClosersOfAUser)) continue;
    Mark expected = mark;
    if (pending->marks[number].compare_exchange_strong(expected, kNothing)) {
      *taken = mark;
      return static_cast<int>(number);
    }
    pending->closers_of(mark).fetch_sub(1);
  }
  return -1;
}

bool holds_any_to_take(Pending* pending) {
  const std::size_t end = pending->end.load();
  for (std::size_t number = 0; number < end; ++number) {
    const Mark mark = pending->marks[number].load();
    if (mark != kNothing && pending->closers_of(mark).load() < kMostClosersOfAUser) return true;
  }
  return false;
}

// Updates the user's counts after one descriptor has been closed.
void finish(Pending* pending, Mark taken) {
  pending->user_of(taken).open.fetch_sub(1);
  pending->closers_of(taken).fetch_sub(1);
}

// Copies the content of one file to a client's descriptor. A closer does this before it handles the pending numbers.
struct Delivery {
  int from = -1;
  int to = -1;
  Mark mark = kNothing;  // of `to`
};

struct Plan {
  Pending* pending;
  Delivery delivery;
  bool started;
};

// ---- The closer ---------------------------------------------------------------------------------------------
//
// Only system calls and async-signal-safe functions are used here. Other threads ran when the closer was created, and
// any of them may have held a lock of the C library or of a sanitizer. Once a closer process has dropped its memory, it
// uses system calls only: static data of the C library is gone.

void close_bare(int fd) {
  if (kProcessesWork) {
    syscall(SYS_close, fd);
  } else {
    close(fd);
  }
}

// Once the connection is empty, no close of it can wait, not even that of a copy which the producer still holds.
void empty_connection(int fd) {
  char bytes[4096];
  while (syscall(SYS_recvfrom, fd, bytes, sizeof(bytes), MSG_DONTWAIT, nullptr, nullptr) > 0) continue;
}

void deliver(const Delivery& delivery) {
  char bytes[4096];
  off_t offset = 0;
  int interrupted = 0;
  long got;
  while ((got = syscall(SYS_pread64, delivery.from, bytes, sizeof(bytes), offset)) > 0) {
    const long written = syscall(SYS_write, delivery.to, bytes, got);
    if (written < 0 && errno == EINTR && ++interrupted < kMostInterruptions) continue;
    if (written <= 0) break;
    offset += written;
  }
}

void close_pending(Pending* pending) {
  Mark taken;
  for (int fd; (fd = take(pending, &taken)) >= 0; finish(pending, taken)) {
    if ((taken & kEmptyAndClose) != 0) empty_connection(fd);
    close_bare(fd);
  }
}

void run_plan(const Plan& plan) {
  Pending* const pending = plan.pending;
  if (plan.delivery.from >= 0) {
    deliver(plan.delivery);
    close_bare(plan.delivery.from);
    close_bare(plan.delivery.to);
    finish(pending, plan.delivery.mark);
  }
  do {
    close_pending(pending);
    pending->closers.fetch_sub(1);
    // A number marked just before the decrement may not have got a closer.
  } while (holds_any_to_take(pending) && enter(pending->closers, kMostClosers));
}

void end_waits_soon() {
  struct sigaction nothing {};
  nothing.sa_handler = [](int) {};
  sigaction(SIGALRM, &nothing, nullptr);
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
  const itimerval again{.it_interval = {.tv_sec = 0, .tv_usec = kLongestWait},
                        .it_value = {.tv_sec = 0, .tv_usec = kLongestWait}};
  setitimer(ITIMER_REAL, &again, nullptr);
}

[[noreturn]] void run_closer(const Plan& plan) {
  syscall(SYS_prctl, PR_SET_NAME, kCloserName, 0, 0, 0);
  end_waits_soon();
  ks_drop_memory({&plan, plan.pending, &errno, &g_pending});
  run_plan(plan);
  while (true) syscall(SYS_exit_group, 0);
}

// Runs in a short-lived process, so that the closer it creates becomes an orphan. This process shares memory with its
// creator, which is suspended meanwhile; the closer has a copy.
int make_orphan(void* arg) {
  auto* plan = static_cast<Plan*>(arg);
  const long closer = syscall(SYS_clone, CLONE_FILES, nullptr, nullptr, nullptr, nullptr);
  if (closer == 0) run_closer(*plan);
  plan->started = closer > 0;
  return 0;
}

// Blocks all signals: no signal handler of the program may run in the short-lived process or in the closer.
bool start_process(Plan* plan) {
  if (!kProcessesWork) return false;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  alignas(16) char stack[kStackSize];
  const int parent = clone(make_orphan, stack + sizeof(stack), CLONE_VM | CLONE_VFORK | CLONE_FILES, plan);
  if (parent > 0) {
    while (waitpid(parent, nullptr, __WALL) < 0 && errno == EINTR) continue;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return plan->started;
}

void* closer_thread(void* arg) {
  const auto* plan = static_cast<Plan*>(arg);
  run_plan(*plan);
  delete plan;
  return nullptr;
}

// The fallback when no process can be created, and under an emulator without shared descriptor tables.
bool start_thread(const Plan& plan) {
  auto* copy = new (std::nothrow) Plan(plan);
  pthread_t thread;
  if (copy == nullptr) return false;
  if (!ks_create_thread(&thread, closer_thread, copy)) {
    delete copy;
    return false;
  }
  pthread_detach(thread);
  return true;
}

// Starts a closer unless too many are alive. False if none was started; pending numbers then wait for the next closer.
bool start_closer(Pending* pending, const Delivery& delivery) {
  if (!enter(pending->closers, kMostClosers)) return false;
  Plan plan{.pending = pending, .delivery = delivery, .started = false};
  if (start_process(&plan) || start_thread(plan)) return true;
  pending->closers.fetch_sub(1);
  return false;
}

Mark mark_of(Mark kind, std::uint32_t uid) {
  return kind | (uid < kSystemUsers ? uid : kSystemUsers + uid % kOtherUsers);
}

void hand_to_closer(int fd, Mark kind, std::uint32_t uid) {
  Pending* const shared = pending();
  if (shared == nullptr || static_cast<std::size_t>(fd) >= kMostNumbers) return;  // leave it open
  const Mark handed = mark_of(kind, uid);
  mark(shared, fd, handed);
  if (shared->closers_of(handed).load() < kMostClosersOfAUser) start_closer(shared, {});
}

bool start_delivery(int from, int to, std::uint32_t uid) {
  Pending* const shared = pending();
  if (shared == nullptr) return false;
  const Delivery delivery{.from = from, .to = to, .mark = mark_of(kClose, uid)};
  if (!enter(shared->closers_of(delivery.mark), kMostClosersOfAUser)) return false;
  shared->user_of(delivery.mark).open.fetch_add(1);
  if (start_closer(shared, delivery)) return true;
  finish(shared, delivery.mark);
  return false;
}

// Only memory files have seals.
bool is_memory_file(int fd) {
  return fcntl(fd, F_GET_SEALS) != -1;
}

bool has_unread(int connection) {
  int bytes = 0;
  return ioctl(connection, SIOCINQ, &bytes) != 0 || bytes != 0;
}

}  // namespace

void ks_discard(int fd, uint32_t uid) {
  if (fd < 0) return;
  if (is_memory_file(fd)) {
    close(fd);
  } else {
    hand_to_closer(fd, kClose, uid);
  }
}

void ks_deliver(int from, int to, uint32_t uid) {
  if (start_delivery(from, to, uid)) return;
  close(from);
  ks_discard(to, uid);
}

bool ks_has_too_many_open(std::uint32_t uid) {
  Pending* const shared = known_pending();
  if (shared == nullptr || shared->user_of(mark_of(kClose, uid)).open.load() < kMostOpenOfAUser) return false;
  // The system may have refused a closer earlier. The user's next descriptor would start one, but none arrives: the
  // user's clients are hung up on.
  if (holds_any_to_take(shared)) start_closer(shared, {});
  return true;
}

void hang_up_and_forget(int* fd) {
  if (*fd < 0) return;
  shutdown(*fd, SHUT_RDWR);
  close_shut_down(std::exchange(*fd, -1));
}

// Nothing can arrive after the shutdown: an empty connection stays empty.
void close_shut_down(int fd) {
  if (has_unread(fd)) {
    hand_to_closer(fd, kEmptyAndClose, ks_peer(fd).uid);
  } else {
    close(fd);
  }
}
