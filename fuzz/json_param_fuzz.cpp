// The text of a request: parsed, taken apart into parameters, written again. What cannot be had throws
// std::exception, which the dispatcher catches; nothing else may happen.
#include <exception>

#include "common/json_param.h"
#include "common/log.h"
#include "fuzz/input.h"

namespace {

constexpr std::size_t kMostMembers = 8;

// Taken are exactly the types that the value is of, and what is not taken leaves everything as it was.
void take(const Json::Value& root, const std::string& key) {
  std::string name, text = "before";
  std::int32_t number = -7, truth = -7;
  std::int64_t large = -7;
  json_value_type_name(root, key, &name);
  const auto taken = [&](void* out, const char* type) {
    bool error = false;
    parser_param_from_json_str(root, key, out, type, &error);
    return !error;
  };
  const Json::Value& value = root[key];
  require(taken(&text, "string") == (name == "string") && (name == "string" ? value == text : text == "before"),
          "string");
  require(taken(&truth, "bool") == (name == "bool") && truth == (name == "bool" ? value.asBool() : -7), "bool");
  require(taken(&number, "int") == (name == "int") && number == (name == "int" ? value.asInt() : -7), "int");
  require(!taken(nullptr, "double"), "another type");
  require(taken(&large, "long") == (name == "int" || name == "long"), "long");  // or throws, beyond 64 bits
  require(name != "int" || large == number, "an int is a long");
}

// The other reader, which may refuse, but not throw, and its writer.
void build(const std::string& input) {
  Json::Value root, again;
  std::string errors;
  const bool read = json_parse_builder(input, &root, &errors);
  require(read || !errors.empty(), "a reason");
  if (read) require(json_parse_builder(json_write_indented(root), &again, &errors), "read again");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int log_is_set = log_set_dir("/proc/self");  // lines are made, and then find no file
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
