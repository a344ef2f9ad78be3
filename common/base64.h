// Base64 with the standard alphabet and "=" padding (RFC 4648), without line breaks. Safe on any thread.
#pragma once

#include <cstddef>
#include <string>

// Replaces `*out` with the encoded bytes of `in` and returns its length. `out` may be `&in`.
int base64_encode(const std::string& in, std::string* out);

// Returns the encoded bytes.
std::string base64_text(const std::string& in);

// Decodes `in` up to its end or to the first character outside the alphabet ("=" is outside) and appends the bytes to
// `*out`; returns the new length of `*out`. Never fails: an incomplete group of two or three characters gives one or
// two bytes, a single character gives none. `out` may be `&in`.
std::size_t base64_decode(const std::string& in, std::string* out);
