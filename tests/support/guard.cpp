#include "support/guard.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

// No test needs half of it, even under a sanitizer. The alarm ends the process; the last test named is the culprit.
static constexpr unsigned kTestSeconds = 90;

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string content_of(int fd) {
  struct stat status {};
  fstat(fd, &status);
  constexpr off_t kMost = 1 << 24;  // a client's file may have any size
  std::string text(static_cast<std::size_t>(std::min(status.st_size, kMost)), '\0');
  const ssize_t got = pread(fd, text.data(), text.size(), 0);
  text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return text;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::map<int, std::string> open_descriptors(pid_t process) {
  std::map<int, std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry, gone).string();
    // The directory that is being read shows itself, and so does what a closer reads.
    if (!gone && target.rfind("/proc/", 0) != 0) found[std::stoi(entry.path().filename())] = target;
  }
  return found;
}

bool emulated() {
  return std::getenv("EMULATED") != nullptr;
}

ChildOutcome in_child(const std::function<void()>& body) {
  const StderrCapture error;
  const pid_t child = fork();
  if (child == 0) {
    alarm(kTestSeconds / 2);
    const rlimit no_core{.rlim_cur = 0, .rlim_max = 0};
    setrlimit(RLIMIT_CORE, &no_core);
    body();
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  std::string said = error.text();
  if (emulated()) said.resize(std::min(said.size(), said.find("qemu: uncaught target signal")));
  return {.status = status, .error = said};
}

StderrCapture::StderrCapture() : saved_(dup(STDERR_FILENO)), memory_(memfd_create("stderr", MFD_CLOEXEC)) {
  dup2(memory_.get(), STDERR_FILENO);
}

GuardedTest::GuardedTest() : dir_(mkdtemp(std::string("/tmp/guardXXXXXX").data())), descriptors_(open_descriptors()) {
  alarm(kTestSeconds);
}

GuardedTest::~GuardedTest() {
  // What clients have handed over may be closed a moment later.
  EXPECT_TRUE(eventually([this] { return open_descriptors() == descriptors_; }))
      << ::testing::PrintToString(open_descriptors());
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  std::filesystem::remove_all(dir_);
  alarm(0);
}
