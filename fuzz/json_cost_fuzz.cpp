// Compares the estimated cost of a text with the memory that the library's readers use for it, valid or not. The
// estimate must never be lower, and for JSON that the library has written not much higher.
#include <json/value.h>

#include <exception>
#include <map>

#include "common/json_cost.h"
#include "common/json_param.h"
#include "common/log.h"
#include "fuzz/input.h"

namespace {

std::size_t block(std::size_t size) {
  return size <= 24 ? 32 : (size + 8 + 15) / 16 * 16;
}

// Two values may exist that are not counted.
constexpr std::size_t kBeforeAnError = 2 * (96 + sizeof(std::string) + sizeof(char*));

// Of all that hangs from the value, and of its place in a list of arguments.
std::size_t built(const Json::Value& value) {
  if (value.isString()) return block(value.asString().size() + 5);
  if (!value.isArray() && !value.isObject()) return 0;
  std::size_t size = block(sizeof(std::map<int, int>));
  for (auto member = value.begin(); member != value.end(); ++member) {
    size += block(32 + 16 + sizeof(Json::Value)) + sizeof(std::string) + sizeof(char*) + built(*member);
    if (value.isObject()) size += block(member.name().size() + 1);
  }
  return size;
}

bool check(const std::string& text, bool (*parse)(const std::string&, Json::Value*, std::string*), Json::Value* root) {
  std::string errors;
  bool parsed = false;
  try {
    parsed = parse(text, root, &errors);
  } catch (const std::exception&) {  // nested too deeply
  }
  // Without what any request costs, and the text as it came and decoded.
  const std::size_t values = json_cost(text) - json_cost("") - 2 * text.size();
  require(values + kBeforeAnError >= built(*root), "it costs no more than that");
  return parsed;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int log_is_set = log_set_dir("/proc/self");
  require(log_is_set == 0, "the log");
  const std::string text(data, data + size);
  Json::Value root, again;
  check(text, json_parse_builder, &root);
  if (!check(text, json_parse, &root)) return 0;
  // JSON written by the library has no duplicate names.
  const std::string written = json_write(root);
  if (!check(written, json_parse, &again)) return 0;
  // The estimate includes the copies that commands make, and the reader.
  require(json_cost(written) <= 100'000 + 4 * written.size() + built(again), "nor less than that");
  return 0;
}
