#include "harness.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

namespace {

// Two producers, two and five workers, parked requests. Workers open their poll sets after the socket accepts already.
constexpr std::ptrdiff_t kPollSets = 10;

}  // namespace

// Not with std::regex, for which GCC 12 prints warnings in sanitized builds.
std::string without_numbers(const std::string& log) {
  std::istringstream lines(log);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t time = line.find(" ] ");
    if (line.starts_with('[') && time != std::string::npos) {
      line.erase(0, time + 3);
      const std::size_t function = line.find(']');
      if (line.find("][") == function && function != std::string::npos)
        line.erase(function, line.find(']', function + 1) - function);
    }
    text += line + "\n";
  }
  return text;
}

Process::Process(const std::string& command) : pid_(fork()) {
  if (pid_ != 0) return;
  execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
  _exit(127);
}

Process::~Process() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

int Process::wait() {
  int status = -1;
  EXPECT_TRUE(eventually([&] { return waitpid(pid_, &status, WNOHANG) != 0; })) << "does not end";
  if (status != -1) pid_ = -1;
  return status;
}

Daemon::Daemon(const std::string& command) : Process(command) {
  for (const char* service : {kMain, kMail}) {
    EXPECT_EQ(Process("ksctl wait " + std::string(service)).wait(), 0);
  }
  EXPECT_TRUE(eventually([this] {
    const auto descriptors = open_descriptors(pid());
    return std::count_if(descriptors.begin(), descriptors.end(), [](const auto& descriptor) {
             return descriptor.second == "anon_inode:[eventpoll]";
           }) == kPollSets;
  }));
}

int Daemon::stop() {
  kill(pid(), SIGTERM);
  return wait();
}

StandIn::StandIn(std::string path) : path_(std::move(path)) {
  plays("");
}

StandIn::~StandIn() {
  std::error_code not_away;
  fs::rename(path_ + ".away", path_, not_away);
  plays("");
}

void StandIn::plays(const std::string& script) const {
  fs::create_directories("/tmp/stand_in" + fs::path(path_).parent_path().string());
  write_file("/tmp/stand_in" + path_ + ".outcome", script);
  fs::remove("/tmp/stand_in" + path_ + ".calls");
}

std::vector<StandInCall> StandIn::calls() const {
  std::vector<StandInCall> calls;
  std::istringstream record(read_file("/tmp/stand_in" + path_ + ".calls"));
  for (std::string line; std::getline(record, line);) {
    const std::string text = line.substr(line.find(' ') + 1);
    if (line == "call") calls.emplace_back();
    if (line.starts_with("argv0 ")) calls.back().line = text;
    if (line.starts_with("arg ")) calls.back().line += "|" + text;
    if (line.starts_with("stdin ")) calls.back().input = text;
  }
  return calls;
}

void StandIn::remove() const {
  fs::rename(path_, path_ + ".away");
}

void DaemonTest::SetUpTestSuite() {
  daemon_ = std::make_unique<Daemon>();
}

void DaemonTest::TearDownTestSuite() {
  EXPECT_EQ(daemon_->stop(), 0);
  daemon_.reset();
}

void DaemonTest::SetUp() {
  // One request first, so that the daemon has opened its permanent descriptors and released earlier parked requests.
  ASSERT_EQ(call(kMain, "test", std::nullopt, STDERR_FILENO).status, KS_STATUS_OK);
  log_size_ = read_file(kLogFile).size();
  // A request that has been answered may not be released yet.
  descriptors_ = open_descriptors(daemon_->pid()).size();
  for (int look = 0; look < 20; ++look) {
    usleep(1000);
    descriptors_ = std::min(descriptors_, open_descriptors(daemon_->pid()).size());
  }
}

void DaemonTest::TearDown() {
  expect_as_before();
}

void DaemonTest::expect_as_before() const {
  EXPECT_EQ(call(kMail, "test").status, KS_STATUS_OK);
  EXPECT_TRUE(eventually([this] {
    return call(kMain, "test").status == KS_STATUS_OK && open_descriptors(daemon_->pid()).size() <= descriptors_;
  })) << "no answer, or descriptors leaked: "
      << testing::PrintToString(open_descriptors(daemon_->pid()));
  EXPECT_TRUE(eventually([] { return WEXITSTATUS(Process("pgrep -P " + std::to_string(daemon_->pid())).wait()) == 1; }))
      << "children left";
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("file")) << entry;
  }
}

std::string DaemonTest::new_log() const {
  return read_file(kLogFile).substr(log_size_);
}
