#include "harness.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "service/ks.h"

namespace fs = std::filesystem;

namespace {

constexpr auto kPatience = std::chrono::seconds(10);
constexpr auto kPause = std::chrono::milliseconds(2);

// Two producers, two and five workers.
constexpr std::size_t kPollSets = 9;

std::unique_ptr<Daemon> suite_daemon;

bool accepts(const char* service) {
  return Process("ksctl", {"wait", service}).wait() == 0;
}

// Workers open their poll sets after the socket accepts already.
std::size_t poll_set_count(pid_t pid) {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) == "anon_inode:[eventpoll]") ++count;
  }
  return count;
}

std::string unescape(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      result += text[i];
    } else if (text[++i] == 'n') {
      result += '\n';
    } else if (text[i] == 'x') {
      result += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      result += text[i];
    }
  }
  return result;
}

std::size_t temporary_files() {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    if (entry.path().filename().string().starts_with("file")) ++count;
  }
  return count;
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void write_file(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text;
}

Process::Process(const std::string& program, const std::vector<std::string>& args,
                 const std::string& error_file) {
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ != 0) return;
  if (!error_file.empty()) dup2(open(error_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
  execvp(argv[0], argv.data());
  _exit(127);
}

Process::~Process() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Process::signal(int signum) const {
  kill(pid_, signum);
}

int Process::wait() {
  int status = -1;
  if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) != 0; })) {
    ADD_FAILURE() << "process " << pid_ << " does not end";
    return -1;
  }
  pid_ = -1;
  return status;
}

Daemon::Daemon() : process_("vistalprod") {
  EXPECT_TRUE(accepts(kMain));
  EXPECT_TRUE(accepts(kMail));
  EXPECT_TRUE(eventually([this] { return poll_set_count(pid()) == kPollSets; }));
}

int Daemon::stop() {
  process_.signal(SIGTERM);
  return process_.wait();
}

std::size_t descriptor_count(pid_t pid) {
  const fs::directory_iterator descriptors("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

std::size_t child_count(pid_t pid) {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string stat = read_file(entry.path() / "stat");
    const std::size_t name_end = stat.rfind(')');
    if (name_end == std::string::npos) continue;
    std::istringstream fields(stat.substr(name_end + 1));
    std::string state;
    pid_t parent = 0;
    fields >> state >> parent;
    if (parent == pid) ++count;
  }
  return count;
}

Json::Value Reply::json() const {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

Reply call(const char* service, const std::string& request, const std::optional<std::string>& body,
           int extra_fd) {
  void* data = nullptr;
  uint64_t size = 0;
  const int status = ks_ez_call(service, request.c_str(), body ? body->data() : nullptr,
                                body ? body->size() : 0, &data, &size, 10, extra_fd);
  const std::unique_ptr<void, decltype(&std::free)> owner(data, std::free);
  return {status, std::string(static_cast<const char*>(data), size)};
}

void StandIn::plays(const std::string& script) const {
  write_file("/tmp/stand_in" + path_ + ".outcome", script);
}

std::vector<StandInCall> StandIn::calls() const {
  std::vector<StandInCall> calls;
  std::istringstream record(read_file("/tmp/stand_in" + path_ + ".calls"));
  for (std::string line; std::getline(record, line);) {
    const std::size_t blank = line.find(' ');
    const std::string item = line.substr(0, blank);
    const std::string text = blank == std::string::npos ? "" : unescape(line.substr(blank + 1));
    if (item == "call") calls.emplace_back();
    if (item == "argv0" || item == "arg") calls.back().argv.push_back(text);
    if (item == "env") calls.back().environment.push_back(text);
    if (item == "stdin") calls.back().input = text;
  }
  return calls;
}

void StandIn::forget() const {
  fs::remove("/tmp/stand_in" + path_ + ".calls");
  fs::remove("/tmp/stand_in" + path_ + ".outcome");
}

void StandIn::remove() const {
  fs::rename(path_, path_ + ".away");
}

void StandIn::restore() const {
  fs::rename(path_ + ".away", path_);
}

void DaemonTest::SetUpTestSuite() {
  suite_daemon = std::make_unique<Daemon>();
}

void DaemonTest::TearDownTestSuite() {
  EXPECT_EQ(suite_daemon->stop(), 0);
  suite_daemon.reset();
}

void DaemonTest::SetUp() {
  ASSERT_NE(suite_daemon, nullptr);
  // One request, so that whatever the daemon opens once is open, and a parked request of the test before is
  // gone.
  ASSERT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  log_size_ = read_file(kLogFile).size();
  descriptors_ = descriptor_count(daemon().pid());
}

void DaemonTest::TearDown() {
  EXPECT_TRUE(eventually([this] {
    call(kMain, "test");
    return descriptor_count(daemon().pid()) <= descriptors_;
  })) << "descriptors leaked: "
      << descriptor_count(daemon().pid()) << " instead of " << descriptors_;
  EXPECT_TRUE(eventually([] { return child_count(daemon().pid()) == 0; })) << "children left";
  EXPECT_EQ(temporary_files(), 0u);
}

std::vector<std::string> DaemonTest::new_log_lines() const {
  std::vector<std::string> lines;
  std::istringstream text(read_file(kLogFile).substr(log_size_));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

Daemon& DaemonTest::daemon() {
  return *suite_daemon;
}
