// Parameters of a request, and all calls of the JSON library's readers and writers.
//
// The library throws (std::exception) where a text is nested beyond its limit, a member is asked of something
// that is no object, or a conversion cannot be made. Only json_parse_builder catches. All of it is safe on
// any thread as long as no other thread changes the values.
#pragma once

#include <json/value.h>

#include <string>

// Takes the member `key` of `root`, an object or null, into `*out`. `type` names what the member must be and
// what `out` points at:
//   "string"  std::string
//   "int"     std::int32_t; any number without a fraction that fits
//   "long"    std::int64_t; any number without a fraction (one beyond the type throws)
//   "bool"    std::int32_t, set to 1 or 0
// A member that is absent, null or of another type, and any other `type`, sets `*error` and leaves `*out`
// alone. `*error` is never cleared, so that one flag serves all parameters of a request. Only a member that
// should have been a bool is logged as well.
void parser_param_from_json_str(const Json::Value& root, const std::string& key, void* out, const std::string& type,
                                bool* error);

// Sets `*name` to what the member `key` of `root` is: "string", "int" (fits 32 bits), "long" (any other
// number without a fraction), "bool", "double" or "Others" (absent, null, array, object).
void json_value_type_name(const Json::Value& root, const std::string& key, std::string* name);

// Parses `text`, comments allowed, into `*root`. False when it is not JSON; `*errors`, when
// given, is then the reader's account for people. False, too, for a text that would take more memory than
// kJsonBudget (common/json_cost.h): a line in the log says so, and `*errors` is left alone.
bool json_parse(const std::string& text, Json::Value* root, std::string* errors = nullptr);

// The same by the library's newer reader, built with its default settings: it also lets commas trail, passes
// over a byte-order mark, and what it throws becomes an account like any other. `errors` is not null.
bool json_parse_builder(const std::string& text, Json::Value* root, std::string* errors);

// The text of `value` on one line, members sorted by name, ending in a newline.
std::string json_write(const Json::Value& value);

// The text of `value` on several lines, indented by tabs, without a newline at the end.
std::string json_write_indented(const Json::Value& value);
