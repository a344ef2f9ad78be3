#include "common/rdconf.h"

#include <string_view>

#include "common/process.h"

namespace {

constexpr char kReader[] = "/sbin/rdconf";

// The reader prints this for a missing key. The misspelling is the platform's.
constexpr char kNotFound[] = "RDCONF_FAILD";

constexpr std::size_t kLineSize = 128;  // bytes, including the terminator

}  // namespace

bool rdconf_read_value(FILE* output, std::string* value) {
  char buffer[kLineSize];
  if (std::fgets(buffer, sizeof buffer, output) == nullptr) return false;
  std::string_view line(buffer);
  line = line.substr(0, line.rfind('\n'));
  if (line.empty() || line.starts_with(kNotFound)) return false;
  *value = line;
  return true;
}

bool rdconf_value(const char* file, const char* section, const char* key, std::string* value) {
  // A null in place of "-f" ends the argument list.
  const char* const file_option = file != nullptr ? "-f" : nullptr;
  FILE* const output = popen_cmd_args(nullptr, nullptr, nullptr, "r", kReader, section, key, "-c", "-d", kNotFound,
                                      file_option, file, nullptr);
  if (output == nullptr) return false;
  const bool found = rdconf_read_value(output, value);
  pclose_cmd(output);  // the exit status adds nothing to the line
  return found;
}
