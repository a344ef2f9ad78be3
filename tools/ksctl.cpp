// ksctl: the services of this machine from the command line. A new subcommand is a row here and a file
// beside.
#include <getopt.h>

#include <cstdio>
#include <cstring>

#include "tools/cli.h"

namespace {

const Subcommand* const kSubcommands[] = {&kCallCommand,  &kWaitCommand,       &kPathCommand,
                                          &kServeCommand, &kPostNotifyCommand, &kPostLogCommand};

void print_usage(FILE* stream) {
  const char* lead = "usage:";
  for (const Subcommand* command : kSubcommands) {
    std::fprintf(stream, "%-6s ksctl %s\n", lead, command->usage);
    lead = "";
  }
}

}  // namespace

int main(int argc, char** argv) {
  const char* wanted = argc > 1 ? argv[1] : "";
  for (const Subcommand* command : kSubcommands) {
    if (std::strcmp(command->name, wanted) != 0) continue;
    opterr = 0;  // subcommands word their complaints themselves
    return command->run(argc - 1, argv + 1);
  }
  if (std::strcmp(wanted, "-h") == 0 || std::strcmp(wanted, "--help") == 0) {
    print_usage(stdout);
    return std::fflush(stdout) == 0 ? 0 : kExitLocal;
  }
  print_usage(stderr);
  return kExitUsage;
}
