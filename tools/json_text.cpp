#include "tools/json_text.h"

#include <json/reader.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace {

constexpr char kName[] = "\033[1;34m";
constexpr char kString[] = "\033[32m";
constexpr char kPlain[] = "\033[0m";
constexpr std::size_t kIndent = 2;

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The index after the string literal that begins at `at`.
std::size_t string_end(std::string_view json, std::size_t at) {
  for (++at; at < json.size() && json[at] != '"'; ++at)
    if (json[at] == '\\') ++at;
  return std::min(at + 1, json.size());
}

std::string escaped(std::string_view literal) {
  std::string text;
  for (const char c : literal) {
    const auto byte = static_cast<unsigned char>(c);
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04x", byte);
    text += byte < 0x20 || byte == 0x7f ? escape : std::string(1, c);
  }
  return text;
}

// The index of the first character from `at` on that is not whitespace.
std::size_t skip_blanks(std::string_view json, std::size_t at) {
  while (at < json.size() && is_blank(json[at])) ++at;
  return at;
}

}  // namespace

std::optional<Json::Value> parse_json(std::string_view text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return value;
  } catch (const std::exception&) {  // nested too deeply for the reader
  }
  return std::nullopt;
}

std::string indented(std::string_view json, bool coloured) {
  std::string shown;
  std::size_t depth = 0;
  const auto new_line = [&] { shown += '\n' + std::string(depth * kIndent, ' '); };
  for (std::size_t at = skip_blanks(json, 0); at < json.size(); at = skip_blanks(json, at)) {
    const char c = json[at];
    if (c == '"') {
      const std::size_t end = string_end(json, at);
      const std::size_t next = skip_blanks(json, end);
      const bool is_name = next < json.size() && json[next] == ':';
      const std::string literal = escaped(json.substr(at, end - at));
      shown += coloured ? (is_name ? kName : kString) + literal + kPlain : literal;
      at = end;
      continue;
    }
    ++at;
    if (c == '{' || c == '[') {
      const std::size_t next = skip_blanks(json, at);
      const bool is_empty = next < json.size() && (json[next] == '}' || json[next] == ']');
      shown += c;
      if (is_empty) {
        shown += json[next];
        at = next + 1;
      } else {
        ++depth;
        new_line();
      }
    } else if (c == '}' || c == ']') {
      --depth;
      new_line();
      shown += c;
    } else {
      shown += c;
      if (c == ',') new_line();
      if (c == ':') shown += ' ';
    }
  }
  return shown + '\n';
}

std::string reported_failure(const Json::Value& reply) {
  if (!reply.isObject()) return "";
  for (const char* name : {"error_code", "result"}) {
    const Json::Value& value = reply[name];
    if (!value.isNumeric() || value.asDouble() == 0) continue;
    const Json::Value& message = reply["error_msg"];
    return std::string(name) + " " + value.asString() + (message.isString() ? ", " + message.asString() : "");
  }
  return "";
}
