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
// owner's process is there to be waited for. kMostClosers are alive at a time; what comes while they all wait stays
// open until one of them is free.
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

#include <bit>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <new>

#include "service/ks_internal.h"

namespace {

constexpr int kMostClosers = 64;
// No process of ours has so many descriptors. A larger number is not remembered: its closer must start.
constexpr std::size_t kMostNumbers = 65536;
constexpr std::size_t kBitsPerWord = 64;
constexpr std::size_t kStackSize = 16384;
constexpr char kCloserName[] = "ks-close";     // what ps shows
constexpr suseconds_t kLongestWait = 100'000;  // microseconds, for one wait that a signal can end
constexpr int kMostInterruptions = 50;         // of a delivery: a reader has five seconds

// A set of descriptor numbers.
struct Numbers {
  std::atomic<std::uint64_t> words[kMostNumbers / kBitsPerWord];

  void add(int fd) { words[index(fd)].fetch_or(bit(fd)); }

  // Takes one number out; -1 when there is none.
  int take() {
    for (std::size_t i = 0; i < std::size(words); ++i) {
      std::uint64_t word = words[i].load();
      while (word != 0) {
        const std::uint64_t lowest = word & (~word + 1);
        if ((words[i].fetch_and(~lowest) & lowest) != 0) {
          return static_cast<int>(i * kBitsPerWord) + std::countr_zero(lowest);
        }
        word = words[i].load();
      }
    }
    return -1;
  }

  bool empty() const {
    for (const auto& word : words) {
      if (word.load() != 0) return false;
    }
    return true;
  }

 private:
  static std::size_t index(int fd) { return static_cast<std::size_t>(fd) / kBitsPerWord; }
  static std::uint64_t bit(int fd) { return std::uint64_t{1} << (static_cast<std::size_t>(fd) % kBitsPerWord); }
};

// Shared by a process and its closers.
struct Pending {
  pid_t owner;  // whose descriptor numbers these are: a fork of it inherits the page, but not the table
  std::atomic<int> closers;
  Numbers strangers;    // to be closed
  Numbers connections;  // to be emptied, then closed

  bool holds_any() const { return !strangers.empty() || !connections.empty(); }
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "processes share them");

std::atomic<Pending*> g_pending{nullptr};

Pending* pending() {
  const pid_t self = getpid();
  Pending* known = g_pending.load();
  if (known != nullptr && known->owner == self) return known;
  void* page = mmap(nullptr, sizeof(Pending), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  auto* made = static_cast<Pending*>(page);
  made->owner = self;
  if (g_pending.compare_exchange_strong(known, made)) return made;
  munmap(page, sizeof(Pending));
  return known;
}

// One more closer; false when there are too many.
bool enter(Pending* pending) {
  if (pending->closers.fetch_add(1) < kMostClosers) return true;
  pending->closers.fetch_sub(1);
  return false;
}

void leave(Pending* pending) {
  pending->closers.fetch_sub(1);
}

// What a closer does before it looks at the pending numbers: passes the bytes of one file on to a client's descriptor.
struct Delivery {
  int from = -1;
  int to = -1;
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
  syscall(SYS_close, fd);
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
  while (true) {
    int fd = pending->strangers.take();
    if (fd < 0) {
      fd = pending->connections.take();
      if (fd < 0) return;
      empty_connection(fd);
    }
    close_bare(fd);
  }
}

void work_off(const Plan& plan) {
  if (plan.delivery.from >= 0) {
    deliver(plan.delivery);
    close_bare(plan.delivery.from);
    close_bare(plan.delivery.to);
  }
  do {
    close_pending(plan.pending);
    leave(plan.pending);
    // What was marked a moment ago may have found no room for a closer of its own.
  } while (plan.pending->holds_any() && enter(plan.pending));
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
bool start_closer(Pending* pending, Delivery delivery) {
  if (!enter(pending)) return false;
  Plan plan{.pending = pending, .delivery = delivery, .started = false};
  if (start_process(&plan) || start_thread(plan)) return true;
  leave(pending);
  return false;
}

void hand_to_closer(int fd, Numbers Pending::*set) {
  Pending* const shared = pending();
  if (shared == nullptr || static_cast<std::size_t>(fd) >= kMostNumbers) return;  // it stays open
  (shared->*set).add(fd);
  start_closer(shared, {});
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

void ks_discard(int fd) {
  if (fd < 0) return;
  if (is_memory_file(fd)) {
    close(fd);
  } else {
    hand_to_closer(fd, &Pending::strangers);
  }
}

void ks_deliver(int from, int to) {
  Pending* const shared = pending();
  if (shared != nullptr && start_closer(shared, {.from = from, .to = to})) return;
  close(from);
  ks_discard(to);
}

void hang_up_and_forget(int* fd) {
  if (*fd < 0) return;
  shutdown(*fd, SHUT_RDWR);
  close_shut_down(std::exchange(*fd, -1));
}

// Nothing can arrive on it any more: what is found empty stays empty.
void close_shut_down(int fd) {
  if (has_unread(fd)) {
    hand_to_closer(fd, &Pending::connections);
  } else {
    close(fd);
  }
}
