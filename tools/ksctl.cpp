// ksctl: uses the services of this machine from the command line. A new subcommand needs a row here and its own file.
#include <cstdio>
#include <cstring>
#include <string>

#include "service/ks.h"
#include "tools/cli.h"

namespace {

const Subcommand* const kSubcommands[] = {&kCallCommand,  &kWaitCommand,       &kPathCommand,   &kListCommand,
                                          &kServeCommand, &kPostNotifyCommand, &kPostLogCommand};

void print_help() {
  std::printf("usage: ksctl SUBCOMMAND [OPTION]... [ARGUMENT]...\n\nSpeaks to the local services.\n\nsubcommands:\n");
  for (const Subcommand* command : kSubcommands)
    std::printf("  %s%s%s\n      %s\n", command->name, *command->operands != '\0' ? " " : "", command->operands,
                command->summary);
  std::printf(
      "\n\"ksctl SUBCOMMAND --help\" has its options. \"ksctl --version\" prints the "
      "version.\n\nservices:\n%s",
      short_names_text().c_str());
  std::printf("\nA call or a wait takes at most %u seconds, unless -t says otherwise.\n", kDefaultSeconds);
  std::printf("\nexit status:\n%s\nexample:\n  %s\n", kCallCommand.statuses, kCallCommand.example);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string wanted = argc > 1 ? argv[1] : "";
  for (const Subcommand* command : kSubcommands)
    if (wanted == command->name) return command->run(argc - 1, argv + 1);
  if (wanted == "-h" || wanted == "--help") {
    print_help();
  } else if (wanted == "--version") {
    std::printf("ksctl %s\n", KS_VERSION);
  } else {
    const char* what = wanted.empty()     ? "a subcommand is needed"
                       : wanted[0] == '-' ? "unknown option "
                                          : "unknown subcommand ";
    complain(what + wanted + " (see ksctl --help)");
    return kExitUsage;
  }
  return std::fflush(stdout) == 0 ? 0 : kExitLocal;
}
