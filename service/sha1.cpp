#include "service/sha1.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr std::size_t kBlockSize = 64;
// Where the message length stands in the last block.
constexpr std::size_t kLengthOffset = 56;

std::uint32_t load_big_endian(const std::uint8_t* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

void process_block(std::uint32_t (&state)[5], const std::uint8_t* block) {
  std::uint32_t schedule[80];
  for (int t = 0; t < 16; ++t) schedule[t] = load_big_endian(block + 4 * t);
  for (int t = 16; t < 80; ++t) {
    schedule[t] = std::rotl(schedule[t - 3] ^ schedule[t - 8] ^ schedule[t - 14] ^ schedule[t - 16], 1);
  }
  std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
  for (int t = 0; t < 80; ++t) {
    std::uint32_t mix;
    if (t < 20) {
      mix = ((b & c) | (~b & d)) + 0x5A827999u;
    } else if (t < 40) {
      mix = (b ^ c ^ d) + 0x6ED9EBA1u;
    } else if (t < 60) {
      mix = ((b & c) | (b & d) | (c & d)) + 0x8F1BBCDCu;
    } else {
      mix = (b ^ c ^ d) + 0xCA62C1D6u;
    }
    const std::uint32_t next = std::rotl(a, 5) + mix + e + schedule[t];
    e = d;
    d = c;
    c = std::rotl(b, 30);
    b = a;
    a = next;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
  state[4] += e;
}

}  // namespace

void SHA1Reset(SHA1Context* context) {
  *context = {.state = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u, 0xC3D2E1F0u},
              .length = 0,
              .block = {},
              .computed = false,
              .corrupted = false};
}

void SHA1Input(SHA1Context* context, const std::uint8_t* data, std::size_t size) {
  if (context->computed) context->corrupted = true;
  if (context->corrupted) return;
  while (size > 0) {
    const std::size_t filled = context->length % kBlockSize;
    const std::size_t taken = std::min(size, kBlockSize - filled);
    std::memcpy(context->block + filled, data, taken);
    context->length += taken;
    data += taken;
    size -= taken;
    if (filled + taken == kBlockSize) process_block(context->state, context->block);
  }
}

int SHA1Result(SHA1Context* context) {
  if (context->corrupted) return 0;
  if (context->computed) return 1;
  const std::uint64_t bits = context->length * 8;
  static constexpr std::uint8_t kPadding[kBlockSize] = {0x80};
  const std::size_t filled = context->length % kBlockSize;
  SHA1Input(context, kPadding, filled < kLengthOffset ? kLengthOffset - filled : kBlockSize + kLengthOffset - filled);
  std::uint8_t length[8];
  for (int i = 0; i < 8; ++i) length[i] = static_cast<std::uint8_t>(bits >> (56 - 8 * i));
  SHA1Input(context, length, sizeof(length));
  context->computed = true;
  return 1;
}
