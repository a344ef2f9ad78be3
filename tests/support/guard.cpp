#include "support/guard.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace {

// No test takes half of it, even under a sanitizer; the alarm ends the process and names no culprit but the
// test.
constexpr unsigned kTestSeconds = 90;

std::string read_all(int fd) {
  std::string text;
  char block[4096];
  ssize_t got;
  while ((got = read(fd, block, sizeof(block))) > 0 || (got < 0 && errno == EINTR)) {
    if (got > 0) text.append(block, static_cast<std::size_t>(got));
  }
  return text;
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::map<int, std::string> open_descriptors() {
  std::map<int, std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry, gone).string();
    // The directory that is being read shows itself.
    if (target.rfind("/proc/", 0) != 0) found[std::stoi(entry.path().filename())] = target;
  }
  return found;
}

ChildOutcome in_child(const std::function<void()>& body) {
  int ends[2];
  if (pipe(ends) != 0) return {.status = -1, .error = "no pipe"};
  const pid_t child = fork();
  if (child == 0) {
    alarm(kTestSeconds / 2);
    const rlimit no_core{.rlim_cur = 0, .rlim_max = 0};
    setrlimit(RLIMIT_CORE, &no_core);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    body();
    _exit(0);
  }
  close(ends[1]);
  ChildOutcome outcome{.status = -1, .error = read_all(ends[0])};
  close(ends[0]);
  waitpid(child, &outcome.status, 0);
  return outcome;
}

StderrCapture::StderrCapture() : saved_(dup(STDERR_FILENO)), memory_(memfd_create("stderr", MFD_CLOEXEC)) {
  dup2(memory_, STDERR_FILENO);
}

StderrCapture::~StderrCapture() {
  dup2(saved_, STDERR_FILENO);
  close(saved_);
  close(memory_);
}

std::string StderrCapture::text() const {
  lseek(memory_, 0, SEEK_SET);
  std::string all = read_all(memory_);
  lseek(memory_, 0, SEEK_END);
  return all;
}

GuardedTest::GuardedTest()
    : dir_(mkdtemp(std::string("/tmp/guardXXXXXX").data())), descriptors_(open_descriptors()) {
  alarm(kTestSeconds);
}

GuardedTest::~GuardedTest() {
  EXPECT_EQ(open_descriptors(), descriptors_);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  std::filesystem::remove_all(dir_);
  alarm(0);
}
