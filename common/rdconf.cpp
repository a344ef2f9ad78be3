#include "common/rdconf.h"

#include <cstdio>
#include <string_view>

#include "common/process.h"

namespace {

constexpr char kReader[] = "/sbin/rdconf";

// What the reader is asked to print for a missing key; spelled so on every appliance.
constexpr char kNotFound[] = "RDCONF_FAILD";

constexpr std::size_t kLineSize = 128;  // bytes, terminator included

}  // namespace

bool rdconf_value(const char* file, const char* section, const char* key, std::string* value) {
  // A null in place of "-f" ends the list there.
  const char* const file_option = file != nullptr ? "-f" : nullptr;
  FILE* const output = popen_cmd_args(nullptr, nullptr, nullptr, "r", kReader, section, key, "-c", "-d",
                                      kNotFound, file_option, file, nullptr);
  if (output == nullptr) return false;
  char buffer[kLineSize];
  const bool got_line = std::fgets(buffer, sizeof buffer, output) != nullptr;
  pclose_cmd(output);  // the reader's exit status says nothing that the line does not

  if (!got_line) return false;
  std::string_view line(buffer);
  line = line.substr(0, line.rfind('\n'));
  if (line.empty() || line.starts_with(kNotFound)) return false;
  *value = line;
  return true;
}
