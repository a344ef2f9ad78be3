// What every subcommand of ksctl shares: exit statuses, messages, arguments, output. All of it serves a
// single-threaded program; texts are borrowed for the call only.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Exit statuses. The client status codes of service/ks.h (1 to 7) appear as kExitStatusBase + code.
constexpr int kExitLocal = 1;  // ksctl's own trouble: standard input unreadable, no space, output closed
constexpr int kExitUsage = 2;
constexpr int kExitStatusBase = 10;

// Longest time limit in seconds: as milliseconds it still fits the int that epoll_wait takes.
constexpr unsigned kMaxSeconds = INT_MAX / 1000;
constexpr unsigned kDefaultSeconds = 10;

// One row of the command line: `ksctl NAME ...`. `run` gets the arguments from the name on (argv[0] is the
// name) and returns the exit status.
struct Subcommand {
  const char* name;
  const char* usage;  // synopsis without the leading "ksctl "
  int (*run)(int argc, char** argv);
};

// The subcommands. Each may be called once per process, because getopt(3) keeps its place.
extern const Subcommand kCallCommand;
extern const Subcommand kPathCommand;
extern const Subcommand kPostLogCommand;
extern const Subcommand kPostNotifyCommand;
extern const Subcommand kServeCommand;
extern const Subcommand kWaitCommand;

// Writes "ksctl: " and the text as one line to standard error; control characters, which arguments may hold,
// become '?'.
void complain(std::string_view text);

// Complains, adds the synopsis, and returns kExitUsage.
int wrong_usage(const Subcommand& command, std::string_view why);

// The complaint for what getopt_long returned as '?' or ':'; to be called right behind it.
int wrong_option(const Subcommand& command, int result, char** argv);

// Stores the whole of `text` as a decimal number from 0 to `max`; false leaves *value alone.
bool parse_number(std::string_view text, unsigned max, unsigned* value);

// The same for numbers that may be negative.
bool parse_signed(std::string_view text, std::int64_t min, std::int64_t max, std::int64_t* value);

// The one operand of a subcommand as a full service name for which can_name_socket holds; null after a
// complaint.
const char* only_service(const Subcommand& command, int operands, char** operand);

// The service that a name on the command line means: the short names "main", "mail" and "notify" are
// replaced, any other is taken as it is. The result points to a constant or is `name` itself.
const char* service_name(const char* name);

// Whether ks_create takes the name; it would end the process over one that is too long or holds an "@"
// without an absolute path.
bool can_name_socket(std::string_view name);

// The socket path of a service for which can_name_socket holds. Touches no file.
std::string socket_path(const char* name);

// Writes all bytes to a descriptor; false with errno set. Memory that vanishes meanwhile (a mapped file that
// is cut short) is an error (EFAULT), not a signal.
bool write_all(int fd, const void* data, size_t size);

// Occupies whichever of the descriptors 0, 1 and 2 the caller left closed, so that no socket or memory file
// lands there and swallows the output. What is put there fails on reading and writing alike.
void occupy_standard_descriptors();
