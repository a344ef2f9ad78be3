#include "common/captured_run.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "common/process.h"
#include "common/unique_fd.h"

namespace {

constexpr std::size_t kReadSize = 16 * 1024;
constexpr std::size_t kPieceSize = 1023;

// A null-terminated argument vector of pointers into `arguments`.
std::vector<char*> pointers_to(std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  return pointers;
}

struct ProgramWaiter {
  void operator()(FILE* stream) const { pclose_cmd(stream); }
};

// Holds a stream of popen_cmd.
using UniqueProgram = std::unique_ptr<FILE, ProgramWaiter>;

UniqueProgram start_piped(const std::string& path, std::vector<std::string>& arguments) {
  return UniqueProgram(popen_cmd(nullptr, nullptr, nullptr, "r", path.c_str(), pointers_to(arguments).data()));
}

}  // namespace

std::string base_name(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string rootless_path(const std::string& path) {
  return path.substr(path.find('/') + 1);
}

std::vector<std::string> argument_vector(std::string name, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), std::move(name));
  return arguments;
}

int exit_status(int status) {
  if (status == -1) return -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int run_quietly(const std::string& path, std::vector<std::string> arguments) {
  return exec_cmd(nullptr, nullptr, nullptr, path.c_str(), pointers_to(arguments).data());
}

CapturedRun::CapturedRun(const std::string& path, std::vector<std::string> arguments, Streams streams) {
  if (!file_.valid()) return;
  const char* const output = file_.path().c_str();
  const char* const error = streams == Streams::both ? output : nullptr;
  status_ = exec_cmd(output, error, nullptr, path.c_str(), pointers_to(arguments).data());
}

std::string CapturedRun::output(std::size_t limit) const {
  std::string text;
  // The program may have put a pipe or a link in place of the file.
  const UniqueFd fd(open(file_.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  char chunk[kReadSize];
  while (fd && text.size() < limit) {
    const ssize_t got = read(fd.get(), chunk, std::min(sizeof(chunk), limit - text.size()));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text.append(chunk, static_cast<std::size_t>(got));
  }
  return text;
}

std::optional<std::string> piped_output(const std::string& path, std::vector<std::string> arguments, int* status) {
  UniqueProgram program = start_piped(path, arguments);
  if (!program) return std::nullopt;
  std::string text;
  char piece[kPieceSize];
  for (std::size_t got = sizeof piece; got == sizeof piece;) {
    got = std::fread(piece, 1, sizeof piece, program.get());
    text.append(piece, strnlen(piece, got));
  }
  const int ended = pclose_cmd(program.release());
  if (status != nullptr) *status = ended;
  return text;
}

std::optional<std::string> piped_bytes(const std::string& path, std::vector<std::string> arguments, std::size_t limit) {
  const UniqueProgram program = start_piped(path, arguments);
  if (!program) return std::nullopt;
  std::string bytes;
  char chunk[kReadSize];
  while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, program.get())) {
    bytes.append(chunk, std::min(got, limit - bytes.size()));
  }
  return bytes;
}
