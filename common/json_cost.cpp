// Counts tokens like the library's readers. Up to the first error both readers find the same tokens; after it they
// build nothing more. So the count is exact for valid JSON, and too high for invalid text.
//
// The library stores arrays and objects in std::map. Each value takes a node, which is allocated before the value is
// read; each text and each name takes another block.
#include "common/json_cost.h"

#include <json/value.h>

#include <algorithm>
#include <map>

namespace {

// The memory that the C library uses for an allocation of `size` bytes.
constexpr std::size_t block(std::size_t size) {
  constexpr std::size_t kHeader = 8, kAlignment = 16, kLeast = 32;
  return std::max(kLeast, (size + kHeader + kAlignment - 1) / kAlignment * kAlignment);
}

constexpr std::size_t kTreeLinks = 32;  // in a node of std::map
constexpr std::size_t kKey = 16;        // an index, or a pointer to a name
constexpr std::size_t kNode = block(kTreeLinks + kKey + sizeof(Json::Value));
constexpr std::size_t kContainer = block(sizeof(std::map<int, int>));
constexpr std::size_t kTextOverhead = sizeof(unsigned) + 1;  // a length before it and a NUL after it

// One element of a list of arguments that a command makes: the text, and the pointer for the program.
constexpr std::size_t kArgument = sizeof(std::string) + sizeof(char*);

// While parsing, the text exists as received, decoded, and as a value. After parsing only the value is left, and
// commands copy it at most twice.
constexpr std::size_t kCopies = 3;

// The library passes numbers that are not integers through a stream, and copies numbers out of range into its error
// message. Legitimate numbers are shorter than this.
constexpr std::size_t kLongNumber = 32;
constexpr std::size_t kLongNumberCopies = 6;

// The reader's own memory: a stack of a thousand levels with a name in each, its settings and an error. Also two values
// that were made before an error.
constexpr std::size_t kReader = 96 * 1024 + 2 * (kNode + kArgument);

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}
  std::size_t cost();

 private:
  void skip_comment();
  std::size_t string_length();  // starts after the opening quote and skips the closing one
  std::size_t number_length();

  const std::string_view text_;
  std::size_t at_ = 0;
};

// `at_` is after the slash.
void Scanner::skip_comment() {
  const char kind = at_ < text_.size() ? text_[at_] : '\0';
  std::size_t last = text_.npos;
  if (kind == '*') last = text_.find("*/", at_ + 1);
  if (kind == '/') last = text_.find_first_of("\r\n", at_ + 1);
  if (kind != '*' && kind != '/') last = at_;  // an error
  if (kind == '*' && last != text_.npos) ++last;
  at_ = last == text_.npos ? text_.size() : last + 1;
}

std::size_t Scanner::string_length() {
  const std::size_t begin = at_;
  for (; at_ < text_.size(); ++at_) {
    if (text_[at_] == '"') return at_++ - begin;
    if (text_[at_] == '\\') ++at_;
  }
  at_ = text_.size();
  return at_ - begin;
}

std::size_t Scanner::number_length() {
  constexpr std::string_view kEnds = " \t\r\n[]{},:\"/";
  const std::size_t begin = at_;
  at_ = std::min(text_.find_first_of(kEnds, at_), text_.size());
  return at_ - begin;
}

std::size_t Scanner::cost() {
  std::size_t cost = kReader + kCopies * text_.size();
  std::size_t name_length = 0;  // of the latest text, in case a colon follows
  bool may_be_name = false;
  while (at_ < text_.size()) {
    switch (text_[at_++]) {
      case ' ':
      case '\t':
      case '\r':
      case '\n':
        continue;
      case '"':
        name_length = string_length();
        cost += kNode + kArgument + block(kTextOverhead + name_length) - name_length;
        may_be_name = true;
        continue;
      case ':':  // the text before it is a name, not a value, and is copied once
        if (may_be_name) cost = cost - kNode - kArgument + name_length;
        break;
      case '[':
      case '{':
        cost += kNode + kArgument + kContainer;
        break;
      case ',':
      case ']':
      case '}':
        break;
      case '/':
        skip_comment();
        break;
      default:
        --at_;
        const std::size_t length = number_length();
        cost += kNode + kArgument + (length > kLongNumber ? kLongNumberCopies * length : 0);
    }
    may_be_name = false;
  }
  return cost;
}

}  // namespace

std::size_t json_cost(std::string_view text) {
  return Scanner(text).cost();
}
