#include "common/base64.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

namespace {

// Not a std::string: handler threads may still run while the process exits and static objects are destroyed.
constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::size_t kGroupBytes = 3;
constexpr std::size_t kGroupChars = 4;

}  // namespace

int base64_encode(const std::string& in, std::string* out) {
  std::string encoded;
  encoded.reserve((in.size() + kGroupBytes - 1) / kGroupBytes * kGroupChars);
  for (std::size_t at = 0; at < in.size(); at += kGroupBytes) {
    const std::size_t count = std::min(kGroupBytes, in.size() - at);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < kGroupBytes; ++i) {
      bits = bits << 8 | (i < count ? static_cast<unsigned char>(in[at + i]) : 0u);
    }
    for (std::size_t i = 0; i < kGroupChars; ++i) {
      encoded += i <= count ? kAlphabet[bits >> (18 - 6 * i) & 0x3f] : '=';
    }
  }
  *out = std::move(encoded);
  return static_cast<int>(out->size());
}

std::string base64_text(const std::string& in) {
  std::string text;
  base64_encode(in, &text);
  return text;
}

std::size_t base64_decode(const std::string& in, std::string* out) {
  std::string decoded;
  std::uint32_t bits = 0;
  std::size_t pending = 0;  // bits that do not make a byte yet
  for (const char c : in) {
    const std::size_t value = kAlphabet.find(c);
    if (value == std::string_view::npos) break;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    pending += 6;
    if (pending < 8) continue;
    pending -= 8;
    decoded += static_cast<char>(bits >> pending & 0xff);
  }
  *out += decoded;
  return out->size();
}
