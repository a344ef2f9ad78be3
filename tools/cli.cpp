#include "tools/cli.h"

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "service/ks.h"

namespace {

struct ShortName {
  const char* name;
  const char* service;
};

constexpr ShortName kShortNames[] = {
    {.name = "main", .service = "VistalServer-vistalprod"},
    {.name = "mail", .service = "VistalServer_send_mail-vistalprod"},
    {.name = "notify", .service = "VistalServer_notify-vistalprod"},
};

void never_run(const char*, ks_io*, int) {}

}  // namespace

void complain(std::string_view text) {
  std::string line = "ksctl: ";
  for (const char c : text) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    line += control ? '?' : c;
  }
  line += '\n';
  write_all(STDERR_FILENO, line.data(), line.size());  // there is nowhere to report a failure to
}

int wrong_usage(const Subcommand& command, std::string_view why) {
  complain(std::string(command.name) + ": " + std::string(why));
  std::fprintf(stderr, "usage: ksctl %s\n", command.usage);
  return kExitUsage;
}

int wrong_option(const Subcommand& command, int result, char** argv) {
  const std::string option = optopt > 0 && optopt <= UCHAR_MAX ? std::string("-") + static_cast<char>(optopt)
                                                               : std::string(argv[optind - 1]);
  return wrong_usage(command, (result == ':' ? "no value for option " : "unknown option ") + option);
}

bool parse_number(std::string_view text, unsigned max, unsigned* value) {
  unsigned number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number > max) return false;
  *value = number;
  return true;
}

bool parse_signed(std::string_view text, std::int64_t min, std::int64_t max, std::int64_t* value) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < min || number > max) return false;
  *value = number;
  return true;
}

const char* service_name(const char* name) {
  for (const ShortName& row : kShortNames)
    if (std::strcmp(row.name, name) == 0) return row.service;
  return name;
}

bool can_name_socket(std::string_view name) {
  return name.size() <= MAXIMUM_NAME_SIZE && (!name.starts_with('@') || name.starts_with("@/"));
}

std::string socket_path(const char* name) {
  // The framework tells the path to nobody but the owner of a service, so own one that is never started.
  ks_handle* handle = ks_create(name, KS_PTHREAD_MODE, 1, never_run);
  std::string path = handle->sockfile;
  ks_free(handle);
  return path;
}

bool write_all(int fd, const void* data, size_t size) {
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = write(fd, next, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    next += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

void occupy_standard_descriptors() {
  // open(2) takes the lowest free number, so walking upwards fills each gap with itself.
  const int modes[] = {O_WRONLY, O_RDONLY, O_RDONLY};
  for (int fd = 0; fd < static_cast<int>(std::size(modes)); ++fd)
    if (fcntl(fd, F_GETFD) == -1) (void)open("/dev/null", modes[fd]);
}

const char* only_service(const Subcommand& command, int operands, char** operand) {
  if (operands != 1) {
    wrong_usage(command, operands < 1 ? "a service is needed" : "too many arguments");
    return nullptr;
  }
  const char* name = service_name(*operand);
  if (!can_name_socket(name)) {
    wrong_usage(command, "not a service name (at most " + std::to_string(MAXIMUM_NAME_SIZE) +
                             " characters; \"@\" begins an absolute path): " + name);
    return nullptr;
  }
  return name;
}
