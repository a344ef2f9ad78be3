// What every subcommand of ksctl shares: exit statuses, messages, arguments, services, output. All of it serves a
// single-threaded program; texts are borrowed for the call only.
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
constexpr int kExitLocal = 1;  // ksctl's own trouble: standard input unreadable, no descriptor, output closed
constexpr int kExitUsage = 2;
constexpr int kExitFailed = 3;  // `call --fail`: the reply reports a failure
constexpr int kExitStatusBase = 10;

// Longest time limit in seconds: as milliseconds it still fits the int that epoll_wait takes.
constexpr unsigned kMaxSeconds = INT_MAX / 1000;
constexpr unsigned kDefaultSeconds = 10;

// One option of a subcommand. Each subcommand has `-h` and `--help` besides.
struct Option {
  const char* name;             // without the dashes
  char letter = 0;              // its short form, 0: none
  const char* value = nullptr;  // the value's name in --help, null: the option takes none
  const char* help;
  // Takes the value (null where the option takes none); false for a value that does not fit.
  std::function<bool(const char* value)> store;
};

// One row of the command line: `ksctl NAME ...`. `run` gets the arguments from the name on (argv[0] is the
// name) and returns the exit status. The other fields are what --help shows.
struct Subcommand {
  const char* name;
  const char* operands;  // as in a synopsis
  const char* summary;   // one line
  const char* statuses;  // exit statuses, one a line
  const char* example;   // a command line
  int (*run)(int argc, char** argv);
};

// The subcommands. Each may be called once per process, because getopt(3) keeps its place.
extern const Subcommand kCallCommand;
extern const Subcommand kListCommand;
extern const Subcommand kPathCommand;
extern const Subcommand kPostLogCommand;
extern const Subcommand kPostNotifyCommand;
extern const Subcommand kServeCommand;
extern const Subcommand kWaitCommand;

// Reads a subcommand's arguments. Options may stand anywhere before "--", behind operands too. On nullopt all
// options have been stored and *operands holds the rest, at most `most` of them; any other result ends the
// program with that status: 0 after --help, kExitUsage after a complaint.
std::optional<int> read_arguments(const Subcommand& command, std::span<const Option> options, std::size_t most,
                                  int argc, char** argv, std::span<char*>* operands);

// The `store` of options that hold a number from 0 to `max`, and of those that are there or not.
std::function<bool(const char*)> store_number(unsigned* number, unsigned max);
std::function<bool(const char*)> store_flag(bool* flag);

// The option that limits the time of a subcommand.
Option timeout_option(unsigned* seconds);

// The short names of services, as --help shows them.
std::string short_names_text();

// Writes "ksctl: " and the text as one line to standard error; control characters, which arguments may hold,
// become '?'.
void complain(std::string_view text);

// Complains, names --help, and returns kExitUsage.
int wrong_usage(const Subcommand& command, std::string_view why);

// Complains about what a system call refused and returns kExitLocal; to be called right behind it, for its
// errno.
int local_trouble(const Subcommand& command, std::string_view what);

// Stores the whole of `text` as a decimal number from 0 to `max`; false leaves *value alone.
bool parse_number(std::string_view text, unsigned max, unsigned* value);

// The same for numbers that may be negative.
bool parse_signed(std::string_view text, std::int64_t min, std::int64_t max, std::int64_t* value);

// A service as named on the command line.
struct Service {
  const char* name = nullptr;  // the full name: "main", "mail" and "notify" are replaced
  std::string path;            // of its socket
};

// Finds the service that `operand` means. Nullopt when the framework takes its name; else the exit status, after
// a complaint. Touches no file.
std::optional<int> find_service(const Subcommand& command, const char* operand, Service* service);

// Reads the arguments of a subcommand whose one operand is a service. Nullopt when it is found; else the exit status.
std::optional<int> read_service(const Subcommand& command, std::span<const Option> options, int argc, char** argv,
                                Service* service);

// Whether the framework can work on a service: over each of these conditions it would end the process, or give a
// reason that is not the true one. Nullopt when it can; else the exit status, after a complaint that is the same
// for every subcommand. A socket that does not exist is no reason. `descriptors` are to be free. The standard
// descriptors are occupied after this: where the caller left one closed, a socket or memory file would land there
// and swallow the output. What is put there fails on reading and writing alike.
std::optional<int> check_service(const Subcommand& command, const Service& service, int descriptors);

// Connects to a socket once, without waiting, and hangs up; 0, or the errno of what failed. EAGAIN is a service
// that has not accepted the connections before this one.
int try_connect(const std::string& path);

// Whether the daemon has a command of this name; true for services that are not the daemon's.
bool known_command(std::string_view service, std::string_view request);

// What a memory file holds, as far as it can be read. Through the descriptor: the other process can cut a mapping
// short.
std::string read_whole(int fd);
