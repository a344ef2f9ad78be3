// Stands in for a platform program, at its absolute path in the simulated appliance: records how it was called, then
// carries out the script that a test wrote for it.
//
// The files for the program at PATH are under /tmp/stand_in. PATH is the path of the running file, because the caller
// can choose any argument 0:
//
//   /tmp/stand_in/PATH.outcome   the script, read once at the start; without it the program prints nothing and exits 0
//   /tmp/stand_in/PATH.calls     the record, one block appended per call
//
// The script has one step per line, carried out in order; after the last one the program exits with status 0:
//
//   stdout TEXT      write TEXT to standard output (escapes: \n \\ \xHH); `stderr TEXT` likewise
//   stdout-file F    write the content of file F to standard output
//   bytes N          write N filler bytes to standard output
//   delay MS         wait
//   linger MS        close the three standard streams, then wait
//   run N            run argument N as the daemon manager does: remove its quotes as a shell would, run the result
//                    as a command, and wait for its end; end with its status if that is not 0
//   exit N           end with status N
//   signal N         die from signal N
//
// The record has one item per line. Bytes outside printable ASCII and backslashes are escaped as in the script:
//
//   call
//   argv0 TEXT       then `arg TEXT` per further argument, `env NAME=VALUE` per variable of the environment
//   stdin TEXT       all of standard input, if it is a regular file or a pipe
//   end
//
// A block is appended by one write before the first step. So blocks of simultaneous calls do not mix, and a test that
// sees the block knows that the program has started.

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

namespace {

constexpr char kRecordRoot[] = "/tmp/stand_in";
constexpr int kBadScript = 125;  // an exit status that scripts do not use

// A failure of the stand-in must not look like the scripted outcome, so it has its own status.
[[noreturn]] void give_up(const std::string& what) {
  fprintf(stderr, "stand_in: %s\n", what.c_str());
  _exit(kBadScript);
}

std::string own_path() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0) give_up("cannot read its own path");
  return std::string(path, static_cast<std::size_t>(length));
}

void write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // the reader has left; a real tool continues or dies from SIGPIPE
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string read_all(int fd) {
  std::string content;
  char buffer[65536];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return content;
    content.append(buffer, static_cast<std::size_t>(got));
  }
}

// False when the file cannot be opened.
bool read_file(const std::string& path, std::string* content) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  *content = read_all(fd);
  close(fd);
  return true;
}

void append_escaped(std::string* out, std::string_view bytes) {
  constexpr char kHex[] = "0123456789ABCDEF";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      *out += "\\n";
    } else if (c == '\\') {
      *out += "\\\\";
    } else if (byte < 0x20 || byte > 0x7E) {
      *out += {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
    } else {
      *out += c;
    }
  }
}

std::string unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    const char kind = ++i < text.size() ? text[i] : '\0';
    if (kind == 'n') {
      out += '\n';
    } else if (kind == '\\') {
      out += '\\';
    } else if (kind == 'x' && i + 2 < text.size()) {
      out += static_cast<char>(strtol(std::string(text.substr(i + 1, 2)).c_str(), nullptr, 16));
      i += 2;
    } else {
      give_up("unknown escape in: " + std::string(text));
    }
  }
  return out;
}

void append_item(std::string* record, const char* item, std::string_view value) {
  *record += item;
  *record += ' ';
  append_escaped(record, value);
  *record += '\n';
}

std::string compose_record(char** argv, char** environment) {
  std::string record = "call\n";
  for (char** arg = argv; *arg != nullptr; ++arg) append_item(&record, arg == argv ? "argv0" : "arg", *arg);
  for (char** variable = environment; *variable != nullptr; ++variable) append_item(&record, "env", *variable);
  struct stat input {};
  if (fstat(STDIN_FILENO, &input) == 0 && (S_ISREG(input.st_mode) || S_ISFIFO(input.st_mode))) {
    append_item(&record, "stdin", read_all(STDIN_FILENO));
  }
  return record + "end\n";
}

void append_record(const std::string& path, const std::string& record) {
  umask(0);  // other users may run the tool later
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0777);
  }
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) give_up("cannot record in " + path);
  if (write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size())) give_up("short record");
  close(fd);
}

long number_of(std::string_view line, const std::string& value) {
  char* end = nullptr;
  errno = 0;
  const long number = strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || number < 0) give_up("bad number in: " + std::string(line));
  return number;
}

void wait_ms(long ms) {
  timespec left{.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1000000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

[[noreturn]] void die_from(int number) {
  const rlimit no_core{};
  setrlimit(RLIMIT_CORE, &no_core);
  signal(number, SIG_DFL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, number);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  raise(number);
  give_up("survived signal " + std::to_string(number));
}

// The outer shell removes the quotes from `quoted`, the inner one splits the result.
void run_as_command(const char* quoted) {
  const int status = std::system((std::string("exec /bin/sh -c ") + quoted).c_str());
  if (status == -1 || WIFSIGNALED(status)) give_up("cannot run " + std::string(quoted));
  if (status != 0) _exit(WEXITSTATUS(status));
}

void play(std::string_view line, int argc, char** argv) {
  const std::size_t blank = line.find(' ');
  const std::string_view step = line.substr(0, blank);
  const std::string value(blank == std::string_view::npos ? std::string_view{} : line.substr(blank + 1));
  if (step == "stdout") {
    write_all(STDOUT_FILENO, unescaped(value));
  } else if (step == "stderr") {
    write_all(STDERR_FILENO, unescaped(value));
  } else if (step == "stdout-file") {
    std::string content;
    if (!read_file(value, &content)) give_up("cannot read " + value);
    write_all(STDOUT_FILENO, content);
  } else if (step == "bytes") {
    write_all(STDOUT_FILENO, std::string(static_cast<std::size_t>(number_of(line, value)), '#'));
  } else if (step == "delay") {
    wait_ms(number_of(line, value));
  } else if (step == "linger") {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(fd);
    wait_ms(number_of(line, value));
  } else if (step == "run") {
    const long index = number_of(line, value);
    if (index >= argc) give_up("no such argument: " + value);
    run_as_command(argv[index]);
  } else if (step == "exit") {
    _exit(static_cast<int>(number_of(line, value)));
  } else if (step == "signal") {
    die_from(static_cast<int>(number_of(line, value)));
  } else if (!line.empty()) {
    give_up("unknown step: " + std::string(line));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string place = kRecordRoot + own_path();
  std::string script;
  read_file(place + ".outcome", &script);
  append_record(place + ".calls", compose_record(argv, environ));
  for (std::size_t start = 0; start < script.size();) {
    const std::size_t end = std::min(script.find('\n', start), script.size());
    play(std::string_view(script).substr(start, end - start), argc, argv);
    start = end + 1;
  }
  return 0;
}
