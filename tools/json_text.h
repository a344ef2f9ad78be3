// JSON replies as texts: formats them for a terminal and finds out whether they report a failure.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

// Parses a text that is exactly one JSON object or array.
std::optional<Json::Value> parse_json(std::string_view text);

// Formats a text that parse_json accepts with one member per line. Names, numbers and strings stay unchanged, except
// that control characters are escaped, because a terminal would interpret them.
std::string indented(std::string_view json, bool coloured);

// If "result" or "error_code" is a number other than 0, that member together with "error_msg"; otherwise empty. A text
// as "result" is not a failure.
std::string reported_failure(const Json::Value& reply);
