// Resolves service names from the command line and checks whether the services can be used. The framework aborts on a
// bad name or without free descriptors; a tool should print the reason instead.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>
#include <vector>

#include "common/service_names.h"
#include "common/unique_fd.h"
#include "daemon/command_tables.h"
#include "service/ks.h"
#include "tools/cli.h"

namespace {

struct ShortName {
  const char* name;
  const char* service;
};

constexpr ShortName kShortNames[] = {
    {.name = "main", .service = kMainServiceName},
    {.name = "mail", .service = kMailServiceName},
    {.name = "notify", .service = kNotifyServiceName},
};

void never_run(const char*, ks_io*, int) {}

// ks_create would abort on any other name.
bool can_name_socket(std::string_view name) {
  return name.size() <= MAXIMUM_NAME_SIZE && (!name.starts_with('@') || name.starts_with("@/"));
}

std::string socket_path(const char* name) {
  // Only a service handle has the path, so create one without starting it.
  ks_handle* handle = ks_create(name, KS_PTHREAD_MODE, 1, never_run);
  std::string path = handle->sockfile;
  ks_free(handle);
  return path;
}

bool can_open(int descriptors) {
  std::vector<UniqueFd> opened;
  for (int i = 0; i < descriptors; ++i) {
    opened.emplace_back(open("/", O_RDONLY | O_CLOEXEC));
    if (!opened.back()) return false;
  }
  return true;
}

void occupy_standard_descriptors() {
  // open(2) takes the lowest free number, so each gap is filled in ascending order.
  const int modes[] = {O_WRONLY, O_RDONLY, O_RDONLY};
  for (int fd = 0; fd < static_cast<int>(std::size(modes)); ++fd)
    if (fcntl(fd, F_GETFD) == -1) (void)open("/dev/null", modes[fd]);
}

}  // namespace

std::string short_names_text() {
  std::string text;
  for (const ShortName& row : kShortNames)
    text += "  " + std::string(row.name) + std::string(9 - std::strlen(row.name), ' ') + row.service + "\n";
  return text + "  NAME     any other, at most " + std::to_string(MAXIMUM_NAME_SIZE) +
         " characters\n  @/PATH   by the path of its socket\n";
}

std::optional<int> find_service(const Subcommand& command, const char* operand, Service* service) {
  service->name = operand;
  for (const ShortName& row : kShortNames)
    if (std::strcmp(row.name, operand) == 0) service->name = row.service;
  if (can_name_socket(service->name)) {
    service->path = socket_path(service->name);
    return std::nullopt;
  }
  complain(std::string(command.name) + ": not a service name (at most " + std::to_string(MAXIMUM_NAME_SIZE) +
           " characters; \"@\" begins an absolute path): " + operand);
  return kExitStatusBase + KS_STATUS_ARGS;
}

std::optional<int> read_service(const Subcommand& command, std::span<const Option> options, int argc, char** argv,
                                Service* service) {
  std::span<char*> operands;
  if (const auto over = read_arguments(command, options, 1, argc, argv, &operands)) return over;
  if (operands.empty()) return wrong_usage(command, "a service is needed");
  return find_service(command, operands[0], service);
}

std::optional<int> check_service(const Subcommand& command, const Service& service, int descriptors) {
  occupy_standard_descriptors();
  if (!can_open(descriptors)) return local_trouble(command, "cannot open a descriptor");
  struct stat status {};
  std::string why;
  if (stat(service.path.c_str(), &status) != 0) {
    if (errno == ENOENT) return std::nullopt;
    why = std::generic_category().message(errno);
  } else if (!S_ISSOCK(status.st_mode)) {
    why = "not a socket";
  } else {
    return std::nullopt;
  }
  complain(std::string(command.name) + " " + service.name + ": cannot use " + service.path + ": " + why);
  return kExitStatusBase + KS_STATUS_CONNECT;
}

int try_connect(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  // Non-blocking: connecting would otherwise wait while the service's backlog is full.
  const UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (client.get() < 0) return errno;
  const int result = connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return result == 0 ? 0 : errno;
}

bool known_command(std::string_view service, std::string_view request) {
  std::span<const CommandRow> rows;
  if (service == kMainServiceName) {
    rows = main_commands();
  } else if (service == kMailServiceName) {
    rows = mail_commands();
  } else {
    return true;
  }
  return std::any_of(rows.begin(), rows.end(), [&](const CommandRow& row) { return row.name == request; });
}
