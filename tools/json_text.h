// JSON replies as texts: what a terminal is shown of them, and what they say about failure.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

// The value of a text that is one JSON object or array and nothing else.
std::optional<Json::Value> parse_json(std::string_view text);

// The same text, for which parse_json holds, one member a line. Names, numbers and strings stay as they were
// written, but for control characters, which a terminal would obey: they are escaped.
std::string indented(std::string_view json, bool coloured);

// Which of "result" and "error_code" is a number other than 0, with the "error_msg" beside it; empty when neither
// is. Where a command returns a text as its "result", that is no failure.
std::string reported_failure(const Json::Value& reply);
