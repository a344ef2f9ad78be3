// Typed parameters of a request, and all uses of the JSON library's readers and writers.
//
// The library throws (std::exception) if a text is nested too deeply, if a member is requested from something that is
// not an object, or if a conversion is impossible. Only json_parse_builder catches. Any thread, as long as no other
// thread changes the values.
#pragma once

#include <json/value.h>

#include <string>

// Stores the member `key` of `root`, an object or null, in `*out`. `type` is the required type of the member and
// determines what `out` points to:
//   "string"  std::string
//   "int"     std::int32_t; any number without a fraction that fits
//   "long"    std::int64_t; any number without a fraction (one beyond the type throws)
//   "bool"    std::int32_t, set to 1 or 0
// If the member is absent, null or of another type, or `type` is unknown, sets `*error` and leaves `*out` unchanged.
// `*error` is never cleared, so that one flag serves all parameters of a request. Only a wrong type in place of a bool
// is also logged.
void parser_param_from_json_str(const Json::Value& root, const std::string& key, void* out, const std::string& type,
                                bool* error);

// Sets `*name` to the type of the member `key` of `root`: "string", "int" (fits 32 bits), "long" (any other number
// without a fraction), "bool", "double" or "Others" (absent, null, array, object).
void json_value_type_name(const Json::Value& root, const std::string& key, std::string* name);

// Parses `text`, comments allowed, into `*root`. False if it is not JSON; the reader's error message is then stored in
// `*errors` unless it is null. Also false, with a line in the log and `*errors` unchanged, if the text would need more
// memory than kJsonBudget (common/json_cost.h).
bool json_parse(const std::string& text, Json::Value* root, std::string* errors = nullptr);

// The same with the library's newer reader and its default settings: it also accepts trailing commas and a byte-order
// mark, and exceptions become error messages. `errors` must not be null.
bool json_parse_builder(const std::string& text, Json::Value* root, std::string* errors);

// The text of `value` on one line, members sorted by name, ending in a newline.
std::string json_write(const Json::Value& value);

// The text of `value` on several lines, indented by tabs, without a newline at the end.
std::string json_write_indented(const Json::Value& value);
