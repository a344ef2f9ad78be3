#include "common/json_param.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstdint>
#include <memory>

#include "common/json_cost.h"
#include "common/log.h"
#include "common/memory.h"

namespace {

constexpr std::size_t kMiB = 1024 * 1024;

// Whether this text stays within a request's memory limit; logs a line if not.
bool affordable(const std::string& text) {
  const std::size_t cost = json_cost(text);
  memory_expect(cost);
  if (cost <= kJsonBudget) return true;
  LOG_AT("json_parse", "a body of %zu bytes is refused: it would take %zu MiB of memory, and %zu is the limit.",
         text.size(), cost / kMiB, kJsonBudget / kMiB);
  return false;
}

}  // namespace

void parser_param_from_json_str(const Json::Value& root, const std::string& key, void* out, const std::string& type,
                                bool* error) {
  const Json::Value& value = root[key];
  if (value.isNull()) {
    *error = true;
  } else if (type == "string" && value.isString()) {
    *static_cast<std::string*>(out) = value.asString();
  } else if (type == "int" && value.isInt()) {
    *static_cast<std::int32_t*>(out) = value.asInt();
  } else if (type == "long" && value.isIntegral()) {
    *static_cast<std::int64_t*>(out) = value.asInt64();
  } else if (type == "bool" && value.isBool()) {
    *static_cast<std::int32_t*>(out) = value.asBool() ? 1 : 0;
  } else {
    *error = true;
    if (type != "bool") return;
    std::string name;
    json_value_type_name(root, key, &name);
    LOG_AT("parser_param_from_json_str", "%s Type fail, this input value type is %s.", key.c_str(), name.c_str());
  }
}

void json_value_type_name(const Json::Value& root, const std::string& key, std::string* name) {
  const Json::Value& value = root[key];
  // The order matters: a number that fits 32 bits is also integral, and every number is also a double.
  if (value.isString()) {
    *name = "string";
  } else if (value.isInt()) {
    *name = "int";
  } else if (value.isIntegral()) {
    *name = "long";
  } else if (value.isBool()) {
    *name = "bool";
  } else if (value.isDouble()) {
    *name = "double";
  } else {
    *name = "Others";
  }
}

// The library deprecates Reader and FastWriter, but clients depend on what the one accepts and the other writes.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

// Comments are accepted but not collected: for each collected comment the library scans its line again, so that a small
// body of comments could hold a worker for hours.
bool json_parse(const std::string& text, Json::Value* root, std::string* errors) {
  if (!affordable(text)) return false;
  Json::Reader reader;
  // The overload for std::string would copy it.
  if (reader.parse(text.data(), text.data() + text.size(), *root, false)) return true;
  if (errors != nullptr) *errors = reader.getFormattedErrorMessages();
  return false;
}

std::string json_write(const Json::Value& value) {
  return Json::FastWriter().write(value);
}

#pragma GCC diagnostic pop

bool json_parse_builder(const std::string& text, Json::Value* root, std::string* errors) {
  if (!affordable(text)) return false;
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;  // as in json_parse
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), root, errors);
  } catch (const Json::RuntimeError& error) {  // nested too deeply
    *errors = error.what();
    return false;
  }
}

std::string json_write_indented(const Json::Value& value) {
  return Json::writeString(Json::StreamWriterBuilder(), value);
}
