// Shared by all subcommands of ksctl: exit statuses, messages, arguments, services, output. Not thread-safe. Text
// arguments are used only during the call.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// Exit statuses. The client status codes of service/ks.h (1 to 7) appear as kExitStatusBase + code.
constexpr int kExitLocal = 1;  // a local error: standard input unreadable, no descriptor, output closed
constexpr int kExitUsage = 2;
constexpr int kExitFailed = 3;  // `call --fail`: the reply reports a failure
constexpr int kExitStatusBase = 10;

// Longest time limit in seconds: in milliseconds it fits the int of epoll_wait.
constexpr unsigned kMaxSeconds = INT_MAX / 1000;
constexpr unsigned kDefaultSeconds = 10;

// One option of a subcommand. Every subcommand also has `-h` and `--help`.
struct Option {
  const char* name;             // without the dashes
  char letter = 0;              // its short form, 0: none
  const char* value = nullptr;  // the value's name in --help, null: the option takes none
  const char* help;
  // Stores the value (null if the option takes none); false if it is invalid.
  std::function<bool(const char* value)> store;
};

// One subcommand: `ksctl NAME ...`. `run` gets the arguments beginning with the name (argv[0]) and returns the exit
// status. --help shows the other fields.
struct Subcommand {
  const char* name;
  const char* operands;  // as in a synopsis
  const char* summary;   // one line
  const char* statuses;  // exit statuses, one a line
  const char* example;   // a command line
  int (*run)(int argc, char** argv);
};

// The subcommands. Each may be called once per process, because getopt(3) keeps state.
extern const Subcommand kCallCommand;
extern const Subcommand kListCommand;
extern const Subcommand kPathCommand;
extern const Subcommand kPostLogCommand;
extern const Subcommand kPostNotifyCommand;
extern const Subcommand kServeCommand;
extern const Subcommand kWaitCommand;

// Parses a subcommand's arguments. Options may be anywhere before "--", even after operands. Returns nullopt if all
// options have been stored and *operands contains the rest, at most `most`. Otherwise the program must end with the
// returned status: 0 after --help, kExitUsage after an error message.
std::optional<int> read_arguments(const Subcommand& command, std::span<const Option> options, std::size_t most,
                                  int argc, char** argv, std::span<char*>* operands);

// The `store` functions for options with a number from 0 to `max`, and for flags.
std::function<bool(const char*)> store_number(unsigned* number, unsigned max);
std::function<bool(const char*)> store_flag(bool* flag);

// The option for a subcommand's time limit.
Option timeout_option(unsigned* seconds);

// The short names of services, as --help shows them.
std::string short_names_text();

// Writes "ksctl: " and the text as one line to standard error, with '?' in place of control characters.
void complain(std::string_view text);

// Prints an error message that mentions --help, and returns kExitUsage.
int wrong_usage(const Subcommand& command, std::string_view why);

// Prints an error message for a failed system call, from errno, and returns kExitLocal.
int local_trouble(const Subcommand& command, std::string_view what);

// Parses `text` as a decimal number from 0 to `max`. Otherwise returns false and leaves *value unchanged.
bool parse_number(std::string_view text, unsigned max, unsigned* value);

// The same for numbers that can be negative.
bool parse_signed(std::string_view text, std::int64_t min, std::int64_t max, std::int64_t* value);

// A service as named on the command line.
struct Service {
  const char* name = nullptr;  // the full name: "main", "mail" and "notify" are replaced
  std::string path;            // of its socket
};

// Resolves `operand` to a service. Returns nullopt if the framework accepts its name, otherwise prints an error message
// and returns the exit status. Accesses no file.
std::optional<int> find_service(const Subcommand& command, const char* operand, Service* service);

// Parses the arguments of a subcommand whose only operand is a service. Nullopt on success, otherwise the exit status.
std::optional<int> read_service(const Subcommand& command, std::span<const Option> options, int argc, char** argv,
                                Service* service);

// Checks the conditions under which the framework would abort or report a misleading reason. Returns nullopt if the
// service can be used, otherwise prints an error message and returns the exit status. A missing socket is not an error.
// `descriptors` is the number of descriptors that must be free. Also occupies closed standard descriptors, so that no
// socket or memory file gets such a number and swallows the output; reading or writing these descriptors fails.
std::optional<int> check_service(const Subcommand& command, const Service& service, int descriptors);

// Tries once to connect to a socket, without waiting, and hangs up. Returns 0 or an errno. EAGAIN means that the
// service's backlog is full.
int try_connect(const std::string& path);

// Whether the daemon has a command with this name; true for services of other programs.
bool known_command(std::string_view service, std::string_view request);

// The content of a memory file, as far as it can be read. Reads through the descriptor, because the other process can
// truncate a mapped file.
std::string read_whole(int fd);
