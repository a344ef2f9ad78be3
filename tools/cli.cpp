#include "tools/cli.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <system_error>
#include <vector>

#include "common/write_all.h"

namespace {

constexpr int kFirstLongOption = UCHAR_MAX + 1;

std::string dashed(const Option& option) {
  return std::string("--") + option.name + (option.value != nullptr ? std::string(" ") + option.value : "");
}

int print_help(const Subcommand& command, std::span<const Option> options) {
  std::printf("usage: ksctl %s [OPTION]... %s\n\n%s\n\noptions:\n", command.name, command.operands, command.summary);
  for (const Option& option : options) {
    const std::string letter = option.letter != 0 ? std::string("-") + option.letter + ", " : "    ";
    std::printf("  %s%-20s %s\n", letter.c_str(), dashed(option).c_str(), option.help);
  }
  std::printf("  -h, %-20s %s\n", "--help", "show this");
  if (std::string_view(command.operands).starts_with("SERVICE"))
    std::printf("\nservices:\n%s", short_names_text().c_str());
  std::printf("\nexit status:\n%s\nexample:\n  %s\n", command.statuses, command.example);
  return std::fflush(stdout) == 0 ? 0 : kExitLocal;
}

// Explains a '?' or ':' from getopt_long.
int wrong_option(const Subcommand& command, int result, char** argv) {
  if (optopt > 0 && optopt <= UCHAR_MAX) {
    const std::string letter = std::string("-") + static_cast<char>(optopt);
    return wrong_usage(command, (result == ':' ? "no value for option " : "unknown option ") + letter);
  }
  const std::string given = argv[optind - 1];
  const char* why = result == ':' ? "no value for option "
                    : optopt != 0 ? "no value belongs to option "
                                  : "unknown option ";
  return wrong_usage(command, why + given.substr(0, given.find('=')));
}

}  // namespace

std::optional<int> read_arguments(const Subcommand& command, std::span<const Option> options, std::size_t most,
                                  int argc, char** argv, std::span<char*>* operands) {
  std::string letters = ":h";
  std::vector<option> long_options = {{"help", no_argument, nullptr, 'h'}};
  for (std::size_t i = 0; i < options.size(); ++i) {
    const Option& row = options[i];
    const bool takes_value = row.value != nullptr;
    if (row.letter != 0) letters += row.letter + std::string(takes_value ? ":" : "");
    long_options.push_back(
        {row.name, takes_value ? required_argument : no_argument, nullptr, kFirstLongOption + static_cast<int>(i)});
  }
  long_options.push_back({});

  opterr = 0;  // errors are reported below
  for (int found; (found = getopt_long(argc, argv, letters.c_str(), long_options.data(), nullptr)) != -1;) {
    if (found == 'h') return print_help(command, options);
    if (found == '?' || found == ':') return wrong_option(command, found, argv);
    std::size_t index = 0;
    if (found >= kFirstLongOption) {
      index = static_cast<std::size_t>(found - kFirstLongOption);
    } else {
      while (options[index].letter != found) ++index;
    }
    const Option& row = options[index];
    if (!row.store(optarg)) return wrong_usage(command, "does not fit " + dashed(row) + ": " + optarg);
  }
  *operands = std::span(argv + optind, static_cast<std::size_t>(argc - optind));
  if (operands->size() > most) return wrong_usage(command, std::string("too many arguments: ") + (*operands)[most]);
  return std::nullopt;
}

std::function<bool(const char*)> store_number(unsigned* number, unsigned max) {
  return [=](const char* value) { return parse_number(value, max, number); };
}

std::function<bool(const char*)> store_flag(bool* flag) {
  return [=](const char*) { return *flag = true; };
}

Option timeout_option(unsigned* seconds) {
  static const std::string help = "time limit, " + std::to_string(kDefaultSeconds) + " unless given";
  return {.name = "timeout",
          .letter = 't',
          .value = "SECONDS",
          .help = help.c_str(),
          .store = store_number(seconds, kMaxSeconds)};
}

void complain(std::string_view text) {
  std::string line = "ksctl: ";
  for (const char c : text) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    line += control ? '?' : c;
  }
  line += '\n';
  write_all(STDERR_FILENO, line.data(), line.size());  // a failure cannot be reported
}

int wrong_usage(const Subcommand& command, std::string_view why) {
  complain(std::string(command.name) + ": " + std::string(why) + " (see ksctl " + command.name + " --help)");
  return kExitUsage;
}

int local_trouble(const Subcommand& command, std::string_view what) {
  const std::string why = std::generic_category().message(errno);
  complain(std::string(command.name) + ": " + std::string(what) + ": " + why);
  return kExitLocal;
}

std::string read_whole(int fd) {
  std::string bytes;
  char chunk[64 * 1024];
  for (ssize_t got; (got = pread(fd, chunk, sizeof chunk, static_cast<off_t>(bytes.size()))) > 0;) {
    bytes.append(chunk, static_cast<std::size_t>(got));
  }
  return bytes;
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
