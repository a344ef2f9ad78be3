// Base64 with the standard alphabet and "=" padding (RFC 4648), without line breaks. Safe on any thread.
#pragma once

#include <cstddef>
#include <string>

// Replaces `*out` with the encoded bytes of `in` and returns its length. `out` may be `&in`.
int base64_encode(const std::string& in, std::string* out);

// The encoded bytes themselves, for where they are passed on at once.
std::string base64_text(const std::string& in);

// Decodes `in` up to its end or to the first character outside the alphabet, "=" included, and appends the
// bytes to `*out`; returns the new length of `*out`. Never fails: two or three characters of an unfinished
// group give one or two bytes, a single one gives none. `out` may be `&in`.
std::size_t base64_decode(const std::string& in, std::string* out);
