// Whatever the configuration reader prints: a value is the beginning of its first line.
#include "common/rdconf.h"
#include "common/unique_fd.h"
#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;  // no such stream
  std::string printed(data, data + size);
  const UniqueStream output(fmemopen(printed.data(), size, "r"));
  std::string value = "before";
  const bool found = rdconf_read_value(output.get(), &value);
  const std::string line = printed.substr(0, printed.find_first_of(std::string("\n\0", 2))).substr(0, 127);
  require(found == (!line.empty() && !line.starts_with("RDCONF_FAILD")), "a value is found where there is one");
  require(value == (found ? line : "before"), "the value");
  return 0;
}
