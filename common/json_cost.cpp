// Counts tokens as the library's readers cut them. Up to their first error they cut alike, and what they build
// by then is all they build: they only skip after it. So the count is exact for JSON, and too high for the rest.
//
// The library keeps arrays and objects in std::map. A value takes a node of it, which is made before the value
// is read; a text takes a block of its own, and a name another.
#include "common/json_cost.h"

#include <json/value.h>

#include <algorithm>
#include <map>

namespace {

// What the C library takes for `size` bytes.
constexpr std::size_t block(std::size_t size) {
  constexpr std::size_t kHeader = 8, kAlignment = 16, kLeast = 32;
  return std::max(kLeast, (size + kHeader + kAlignment - 1) / kAlignment * kAlignment);
}

constexpr std::size_t kTreeLinks = 32;  // of a node of std::map
constexpr std::size_t kKey = 16;        // an index, or a pointer to a name
constexpr std::size_t kNode = block(kTreeLinks + kKey + sizeof(Json::Value));
constexpr std::size_t kContainer = block(sizeof(std::map<int, int>));
constexpr std::size_t kTextOverhead = sizeof(unsigned) + 1;  // its length before it, a NUL behind it

// An element as a command has it that makes a list of arguments: the text, and the pointer for the program.
constexpr std::size_t kArgument = sizeof(std::string) + sizeof(char*);

// The text is there as it came, decoded, and as a value. Once it is parsed only the value is left, and commands
// copy that twice at most.
constexpr std::size_t kCopies = 3;

// A number that the library cannot take as an integer goes through a stream, and one that does not fit into the
// reader's account of the error. Honest ones are shorter.
constexpr std::size_t kLongNumber = 32;
constexpr std::size_t kLongNumberCopies = 6;

// The reader itself: its stack of a thousand levels, with a name in each, its settings, an error. And two values
// that were made before an error.
constexpr std::size_t kReader = 96 * 1024 + 2 * (kNode + kArgument);

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}
  std::size_t cost();

 private:
  void skip_comment();
  std::size_t string_length();  // from behind the opening quote up to the closing one, which is passed
  std::size_t number_length();

  const std::string_view text_;
  std::size_t at_ = 0;
};

// `at_` is behind the slash.
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
  std::size_t name_length = 0;  // of the text that has just ended, should a colon follow
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
      case ':':  // the text before it is no value; a copy of it is made on the way into the object
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
