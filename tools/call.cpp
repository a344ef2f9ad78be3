// `ksctl call`: one request, the reply on standard output.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>

#include "service/ks.h"
#include "tools/cli.h"

namespace {

// The framework counts any shorter limit as this one.
constexpr unsigned kLeastSeconds = 5;

struct IoRelease {
  void operator()(ks_io* io) const { ks_io_free(io); }
};
using Io = std::unique_ptr<ks_io, IoRelease>;

struct Call {
  const char* service = nullptr;  // full name
  const char* request = nullptr;
  const char* body = nullptr;  // null: none; "-": standard input
  unsigned seconds = kDefaultSeconds;
  int extra_fd = -1;
};

std::string status_text(int status, const Call& call) {
  switch (status) {
    case KS_STATUS_TIMEOUT:
      return "no reply in time (limit " + std::to_string(std::max(call.seconds, kLeastSeconds)) + " s)";
    case KS_STATUS_CONNECT:
      return "no such service, or it is stopped";
    case KS_STATUS_PAUSED:
      return "the service is paused";
    case KS_STATUS_REFUSED:
      return "the service refused the request";
    case KS_STATUS_BROKEN:
      return "the connection ended without a reply";
    case KS_STATUS_BUSY:
      return "the service is busy: too many clients are waiting";
    case KS_STATUS_ARGS:
      return "a name is too long (service " + std::to_string(MAXIMUM_NAME_SIZE) + ", request " +
             std::to_string(KS_REQUEST_NAME_SIZE) + " characters)";
    default:
      return "unknown status " + std::to_string(status);
  }
}

bool append(ks_io* io, const char* data, size_t size) {
  while (size > 0) {
    const int64_t written = ks_io_write(io, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

bool append_standard_input(ks_io* io) {
  char chunk[64 * 1024];
  for (;;) {
    const ssize_t got = read(STDIN_FILENO, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    if (!append(io, chunk, static_cast<size_t>(got))) return false;
  }
}

bool append_body(ks_io* io, const char* body) {
  if (body == nullptr) return true;
  if (std::strcmp(body, "-") == 0) return append_standard_input(io);
  return append(io, body, std::strlen(body));
}

// A reply, an empty one too, leaves the record with its file and without its connection. Where the time ran
// out behind a sent request, status 0 comes with the connection still open, or with all of it torn down.
bool reply_arrived(const ks_io* io) {
  return io->sockfd == -1 && io->memfd != -1;
}

// To be called right behind what failed, for its errno.
int local_trouble(const char* what) {
  const std::string why = std::generic_category().message(errno);
  complain(std::string("call: ") + what + ": " + why);
  return kExitLocal;
}

int perform(const Call& call) {
  const Io io(ks_io_create());
  if (!append_body(io.get(), call.body)) return local_trouble("cannot take the body");

  int status = ks_call(call.service, call.request, io.get(), call.seconds, call.extra_fd);
  if (status == KS_STATUS_OK && !reply_arrived(io.get())) status = KS_STATUS_TIMEOUT;
  if (status != KS_STATUS_OK) {
    complain("call " + std::string(call.service) + " " + call.request + ": " + status_text(status, call));
    return kExitStatusBase + status;
  }
  // From the mapping straight into the kernel: a service that cuts the file short now costs an error only.
  if (!write_all(STDOUT_FILENO, io->shared_data, io->shared_size))
    return local_trouble("cannot write the reply");
  return 0;
}

int run_call(int argc, char** argv) {
  enum { kFd = UCHAR_MAX + 1 };
  const option long_options[] = {{"fd", required_argument, nullptr, kFd}, {nullptr, 0, nullptr, 0}};
  Call call;
  // '+': options end at the first operand, so that a body may begin with a dash.
  for (int option; (option = getopt_long(argc, argv, "+:t:", long_options, nullptr)) != -1;) {
    unsigned number = 0;
    if (option == 't') {
      if (!parse_number(optarg, kMaxSeconds, &call.seconds))
        return wrong_usage(kCallCommand, std::string("not a number of seconds: ") + optarg);
    } else if (option == kFd) {
      // The framework leaves out a descriptor that is not open; the user should know.
      if (!parse_number(optarg, INT_MAX, &number) || fcntl(static_cast<int>(number), F_GETFD) == -1)
        return wrong_usage(kCallCommand, std::string("not an open descriptor: ") + optarg);
      call.extra_fd = static_cast<int>(number);
    } else {
      return wrong_option(kCallCommand, option, argv);
    }
  }
  const int operands = argc - optind;
  if (operands < 2 || operands > 3)
    return wrong_usage(kCallCommand, operands < 2 ? "service and request are needed" : "too many arguments");
  call.service = service_name(argv[optind]);
  call.request = argv[optind + 1];
  if (operands == 3) call.body = argv[optind + 2];

  occupy_standard_descriptors();
  return perform(call);
}

}  // namespace

const Subcommand kCallCommand = {
    .name = "call",
    .usage = "call [-t SECONDS] [--fd N] SERVICE REQUEST [BODY | -]",
    .run = run_call,
};
