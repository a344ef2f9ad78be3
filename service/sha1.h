// SHA-1 (RFC 3174). It names socket files here; nothing depends on its strength.
#pragma once

#include <cstddef>
#include <cstdint>

struct SHA1Context {
  std::uint32_t state[5];  // H0 to H4; the digest after SHA1Result
  std::uint64_t length;    // bytes hashed so far
  std::uint8_t block[64];  // the bytes of the unfinished block
  bool computed;           // the digest is final
  bool corrupted;          // input came after the digest was final
};

void SHA1Reset(SHA1Context* context);
// Hashes `size` more bytes. After SHA1Result the context must be reset before it is used again.
void SHA1Input(SHA1Context* context, const std::uint8_t* data, std::size_t size);
// Completes the digest in `state`. Non-zero on success, 0 for a context that was misused.
int SHA1Result(SHA1Context* context);
