// Base64: what is encoded is decoded again, and what is decoded is what the text says.
#include "common/base64.h"
#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(data, data + size);
  std::string text;
  require(base64_encode(input, &text) == static_cast<int>((size + 2) / 3 * 4), "the length of the text");
  std::string bytes = "kept";
  require(base64_decode(text, &bytes) == size + 4 && bytes == "kept" + input, "the round trip");

  bytes.clear();
  base64_decode(input, &bytes);
  text = base64_text(bytes);
  // Of the last character but for padding, only some bits count.
  const std::size_t whole = bytes.size() * 8 / 6;
  require(whole <= size && input.compare(0, whole, text, 0, whole) == 0, "the text that was decoded");
  require(input.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/") >= whole,
          "nothing is decoded behind a foreign character");
  return 0;
}
