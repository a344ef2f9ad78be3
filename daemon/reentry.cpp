#include "daemon/reentry.h"

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/text.h"

namespace {

constexpr std::size_t kPathSize = 512;  // bytes of the program's path that are looked at
constexpr std::size_t kStatPathSize = 1000;
constexpr std::size_t kStatLineSize = 256;
constexpr std::size_t kCommandLength = 15;  // the kernel's TASK_COMM_LEN less its NUL

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};

// The first line of a process's stat file: "pid (name) state ...". Empty when the process has ended.
std::string read_stat(const char* pid) {
  const std::string path = format_bounded(kStatPathSize, "/proc/%s/stat", pid);
  const std::unique_ptr<FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
  char line[kStatLineSize];
  return file != nullptr && std::fgets(line, sizeof(line), file.get()) != nullptr ? line : "";
}

bool is_live_instance(const std::string& stat, const std::string& name) {
  // The name may itself hold parentheses.
  const std::size_t open = stat.find('(');
  const std::size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  const std::string command = stat.substr(open + 1, close - open - 1);
  if (std::strncmp(command.c_str(), name.c_str(), kCommandLength) != 0) return false;
  const std::size_t state = stat.find_first_not_of(' ', close + 1);
  return state != std::string::npos && stat.compare(state, stat.find(' ', state) - state, "Z") != 0;
}

}  // namespace

bool check_reentry(const char* program) {
  if (program == nullptr || program[0] == '\0') return false;
  const std::string path = format_bounded(kPathSize, "%s", program);
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::string own_pid = std::to_string(getpid());
  const std::unique_ptr<DIR, CloseDirectory> processes(opendir("/proc"));
  if (processes == nullptr) return false;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): a directory stream of its own
  while (const dirent* entry = readdir(processes.get())) {
    if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0 || own_pid == entry->d_name) continue;
    if (is_live_instance(read_stat(entry->d_name), name) && std::strtol(entry->d_name, nullptr, 10) > 0)
      return true;
  }
  return false;
}
