// Parses a request, extracts parameters and writes the values again. A failure may only throw std::exception, which the
// dispatcher catches.
#include <exception>

#include "common/json_param.h"
#include "common/log.h"
#include "fuzz/input.h"

namespace {

constexpr std::size_t kMostMembers = 8;

// For each type, the member is either stored or nothing changes.
void take(const Json::Value& root, const std::string& key) {
  for (const char* type : {"string", "bool", "int", "double", "long"}) {
    std::string text = "before";
    std::int64_t number = 0;
    bool error = false;
    const bool is_text = *type == 's';
    parser_param_from_json_str(root, key, is_text ? static_cast<void*>(&text) : &number, type, &error);
    require(!error || (number == 0 && text == "before"), type);
  }
}

// The other reader, which must not throw, and its writer.
void build(const std::string& input) {
  Json::Value root, again;
  std::string errors;
  const bool read = json_parse_builder(input, &root, &errors);
  require(read || !errors.empty(), "a reason");
  if (read) require(json_parse_builder(json_write_indented(root), &again, &errors), "read again");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int log_is_set = log_set_dir("/proc/self");  // lines are formatted, but cannot be written
  require(log_is_set == 0, "the log");
  build({data, data + size});
  try {
    Json::Value root, again;
    std::string errors;
    if (!json_parse({data, data + size}, &root, &errors)) {
      require(!errors.empty(), "a reason");
      return 0;
    }
    const std::string text = json_write(root);
    require(text.find('\n') == text.size() - 1, "one line");
    // Names whose bytes are no UTF-8 are replaced in writing, which may put them into another order; but once only.
    require(json_parse(text, &again), "what was written is read again");
    const std::string settled = json_write(again);
    require(json_parse(settled, &again) && json_write(again) == settled, "and written as it was");
    take(root, "none");
    require(root.isObject() || root.isNull(), "only an object has members");
    std::size_t count = 0;
    for (const std::string& key : root.getMemberNames()) {
      if (++count <= kMostMembers) take(root, key);
    }
  } catch (const std::exception&) {
  }
  return 0;
}
