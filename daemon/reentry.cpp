// Several processes may start at the same time; each sees the others in /proc, and exactly one must continue. Processes
// are ordered by start time, then by pid. A process gives way to
//   - every process that started before it, in any state;
//   - every process that has passed this check, even if it started later. It may have looked before this process had
//     its name, which a process gets at exec; and a process in the background is a later fork of one that has passed.
// The remaining processes started later and have not passed. Such a process gives way when it sees this one, but passes
// if it looked before this one had its name. So this process waits until each of them has ended or passed. A process
// has passed if it has a handler for SIGTERM, which the daemon installs next.
#include "daemon/reentry.h"

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/text.h"
#include "common/unique_fd.h"

namespace {

constexpr std::size_t kPathSize = 512;  // bytes of the program's path that are considered
constexpr std::size_t kProcPathSize = 1000;
constexpr std::size_t kLineSize = 1024;
constexpr std::size_t kCommandLength = 15;  // the kernel's TASK_COMM_LEN less its NUL

// A later instance decides within milliseconds. One that takes longer is stopped, or is a different program.
constexpr int kMaxRounds = 100;
constexpr useconds_t kRoundMicroseconds = 10'000;

// Fields of a stat file, counted from the state, which follows the name.
constexpr std::size_t kState = 0;
constexpr std::size_t kStartTime = 19;
constexpr std::size_t kCaughtSignals = 31;

struct LiveProcess {
  std::string command;
  unsigned long long start_time = 0;  // in clock ticks
  long pid = 0;
  bool passed = false;
};

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

// The first line of a process's file that begins with `start`. Empty when the process has ended.
std::string read_line(const char* pid, const char* file_name, const std::string& start) {
  const std::string path = format_bounded(kProcPathSize, "/proc/%s/%s", pid, file_name);
  const UniqueStream file(std::fopen(path.c_str(), "re"));
  char line[kLineSize];
  while (file && std::fgets(line, sizeof line, file.get()) != nullptr) {
    if (std::string(line).starts_with(start)) return line;
  }
  return {};
}

// Any user can give a process any name. The real user must match, too: a set-user-ID program runs as root under the
// name of a link to it.
bool is_of_our_user(const char* pid) {
  const std::vector<std::string> fields = split_string(read_line(pid, "status", "Uid:"), "\t", true);
  return fields.size() > 2 && fields[1] == std::to_string(getuid()) && fields[2] == std::to_string(geteuid());
}

// Empty for a process that has ended, including zombies.
std::optional<LiveProcess> look_at(const char* pid) {
  const std::string stat = read_line(pid, "stat", "");
  // The name may itself hold parentheses.
  const std::size_t open = stat.find('(');
  const std::size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return std::nullopt;
  const std::vector<std::string> fields = split_string(stat.substr(close + 1), " ", true);
  if (fields.size() <= kCaughtSignals || fields[kState] == "Z") return std::nullopt;
  const unsigned long long caught = std::strtoull(fields[kCaughtSignals].c_str(), nullptr, 10);
  return LiveProcess{.command = stat.substr(open + 1, close - open - 1),
                     .start_time = std::strtoull(fields[kStartTime].c_str(), nullptr, 10),
                     .pid = std::strtol(stat.c_str(), nullptr, 10),
                     .passed = (caught >> (SIGTERM - 1) & 1) != 0};
}

std::vector<LiveProcess> other_instances(const std::string& name) {
  std::vector<LiveProcess> others;
  const std::string own_pid = std::to_string(getpid());
  const std::unique_ptr<DIR, CloseDirectory> processes(opendir("/proc"));
  if (processes == nullptr) return others;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread uses this directory stream
  while (const dirent* entry = readdir(processes.get())) {
    const char* const pid = entry->d_name;
    if (std::isdigit(static_cast<unsigned char>(pid[0])) == 0 || own_pid == pid) continue;
    const std::optional<LiveProcess> process = look_at(pid);
    if (!process || std::strncmp(process->command.c_str(), name.c_str(), kCommandLength) != 0) continue;
    if (is_of_our_user(pid)) others.push_back(*process);
  }
  return others;
}

}  // namespace

bool check_reentry(const char* program) {
  if (program == nullptr || program[0] == '\0') return false;
  const std::string path = format_bounded(kPathSize, "%s", program);
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::optional<LiveProcess> self = look_at("self");
  if (!self) return false;  // /proc does not show the others either
  for (int round = 0; round < kMaxRounds; ++round) {
    const std::vector<LiveProcess> others = other_instances(name);
    if (others.empty()) return false;
    for (const LiveProcess& other : others) {
      const bool earlier = std::tie(other.start_time, other.pid) < std::tie(self->start_time, self->pid);
      if (earlier || other.passed) return true;
    }
    usleep(kRoundMicroseconds);
  }
  return false;
}
