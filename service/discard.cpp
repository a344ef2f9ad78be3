// Getting rid of what clients hand over, without ever waiting for its owner.
//
// Closing such a descriptor can take as long as its owner likes: the last close of a connection that lingers, every
// close of a file whose file system is a program of the owner's, the last close of a socket in whose queue such
// descriptors lie unread. Some of these waits outlast SIGKILL. A thread that serves others therefore closes only what
// is known to be harmless: a memory file, and a connection that is shut down and has nothing unread.
//
// Everything else is marked as pending, and a closer is started: a process that shares this process's descriptor table
// and nothing else. It closes the pending numbers, one after the other, and ends. When a close waits, only the closer
// waits. A thread would not do: one that waits in the kernel keeps its process from ending.
//
// Waits that a signal can end, a timer ends soon. Only those that it cannot end keep a closer, and only while the
// owner's process is there to be waited for. Of all closers one user gets a few; what else that user has handed over
// stays open until one of them is free. A worker does not ask a user who has too much open (ks_has_too_many_open), so
// that no user can fill the table.
//
// A closer is an orphan (its parent ends at once), so neither a wait() of the program around us nor SIGCHLD sees
// it. What closers and process share lies in one mapping, made by the first discard of a process; its forks make
// another, for their numbers are others.

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
// The sanitizer takes the clone for a fork and loses track of all threads: closers are threads.
constexpr bool kProcessesWork = false;
#else
constexpr bool kProcessesWork = true;
#endif

constexpr int kMostClosers = 256;
constexpr int kMostClosersOfAUser = 8;
constexpr int kMostOpenOfAUser = 16;  // a conforming client has two, for the moment that a closer takes
// Users of the system are counted one by one, others as one if their ids are equal modulo kOtherUsers.
constexpr std::uint32_t kSystemUsers = 1000;
constexpr std::uint32_t kOtherUsers = 3096;
// No process of ours has so many descriptors. A larger number is not remembered, and stays open.
constexpr std::size_t kMostNumbers = 65536;
constexpr std::size_t kStackSize = 16384;
constexpr char kCloserName[] = "ks-close";     // what ps shows
constexpr suseconds_t kLongestWait = 100'000;  // microseconds, for one wait that a signal can end
constexpr int kMostInterruptions = 50;         // of a delivery: a reader has five seconds

// What is to be done about a descriptor number, and who handed it over (the user's index): kStranger is to be closed,
// kConnection to be emptied first.
using Mark = std::uint32_t;
constexpr Mark kNothing = 0;
constexpr Mark kStranger = 0x10000;
constexpr Mark kConnection = 0x20000;
constexpr Mark kUserMask = 0xffff;

struct User {
  std::atomic<int> open;  // descriptors that have been discarded and not been closed yet
  // How many closers are busy with a stranger, and with a connection. Apart from each other: emptying a connection
  // hardly ever waits, and one that waited for the closers of strangers would keep its descriptor.
  std::atomic<int> closers[2];
};

// Shared by a process and its closers. Zero when new.
struct Pending {
  pid_t owner;  // whose descriptor numbers these are: a fork of it inherits the page, but not the table
  std::atomic<int> closers;
  std::atomic<std::size_t> end;  // all marks lie below
  std::atomic<Mark> marks[kMostNumbers];
  User users[kSystemUsers + kOtherUsers];

  User& user_of(Mark mark) { return users[mark & kUserMask]; }
  std::atomic<int>& closers_of(Mark mark) { return user_of(mark).closers[(mark & kConnection) != 0 ? 1 : 0]; }
};
static_assert(std::atomic<std::size_t>::is_always_lock_free && std::atomic<Mark>::is_always_lock_free &&
                  std::atomic<int>::is_always_lock_free,
              "processes share them");

std::atomic<Pending*> g_pending{nullptr};

// The mapping of this very process, or null.
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

// One more of something that is limited; false when there are enough.
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

// Takes a number whose user has not enough closers yet, and counts as one of them; -1 when there is none.
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

// After one descriptor of the user has been closed.
void finish(Pending* pending, Mark taken) {
  pending->user_of(taken).open.fetch_sub(1);
  pending->closers_of(taken).fetch_sub(1);
}

// What a closer does before it looks at the pending numbers: passes the bytes of one file on to a client's descriptor.
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
// Bare system calls, and what is safe in a signal handler. The closer was made while other threads ran, and any of them
// may have held a lock of the C library or of a sanitizer.

void close_bare(int fd) {
  if (kProcessesWork) {
    syscall(SYS_close, fd);
  } else {
    close(fd);
  }
}

// The producer may hold a copy of the connection a moment longer. Once it is empty, no close of it can wait.
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
    if ((taken & kConnection) != 0) empty_connection(fd);
    close_bare(fd);
  }
}

void work_off(const Plan& plan) {
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
    // What was marked a moment ago may have found no room for a closer of its own.
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
  work_off(plan);
  while (true) syscall(SYS_exit_group, 0);
}

// Runs in a process that ends at once and is waited for: the closer is then an orphan. It borrows the memory of the
// thread that made it, which stands still; the closer has a copy.
int make_orphan(void* arg) {
  auto* plan = static_cast<Plan*>(arg);
  const long closer = syscall(SYS_clone, CLONE_FILES, nullptr, nullptr, nullptr, nullptr);
  if (closer == 0) run_closer(*plan);
  plan->started = closer > 0;
  return 0;
}

// No signal handler of the program may run in a process that shares its memory, nor in the closer.
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
  work_off(*plan);
  delete plan;
  return nullptr;
}

// Where no process can be made, and under an emulator that knows no shared table, a thread has to do.
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

// Starts a closer unless too many are alive. False when none could be started; what is pending then waits for the next.
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
  if (shared == nullptr || static_cast<std::size_t>(fd) >= kMostNumbers) return;  // it stays open
  const Mark handed = mark_of(kind, uid);
  mark(shared, fd, handed);
  if (shared->closers_of(handed).load() < kMostClosersOfAUser) start_closer(shared, {});
}

bool start_delivery(int from, int to, std::uint32_t uid) {
  Pending* const shared = pending();
  if (shared == nullptr) return false;
  const Delivery delivery{.from = from, .to = to, .mark = mark_of(kStranger, uid)};
  if (!enter(shared->closers_of(delivery.mark), kMostClosersOfAUser)) return false;
  shared->user_of(delivery.mark).open.fetch_add(1);
  if (start_closer(shared, delivery)) return true;
  finish(shared, delivery.mark);
  return false;
}

// Memory files alone have seals.
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
    hand_to_closer(fd, kStranger, uid);
  }
}

void ks_deliver(int from, int to, uint32_t uid) {
  if (start_delivery(from, to, uid)) return;
  close(from);
  ks_discard(to, uid);
}

bool ks_has_too_many_open(std::uint32_t uid) {
  Pending* const shared = known_pending();
  if (shared == nullptr || shared->user_of(mark_of(kStranger, uid)).open.load() < kMostOpenOfAUser) return false;
  // When no closer could be started, this user's next descriptor would have started one, but none is to come.
  if (holds_any_to_take(shared)) start_closer(shared, {});
  return true;
}

void hang_up_and_forget(int* fd) {
  if (*fd < 0) return;
  shutdown(*fd, SHUT_RDWR);
  close_shut_down(std::exchange(*fd, -1));
}

// Nothing can arrive on it any more: what is found empty stays empty.
void close_shut_down(int fd) {
  if (has_unread(fd)) {
    hand_to_closer(fd, kConnection, ks_peer(fd).uid);
  } else {
    close(fd);
  }
}
