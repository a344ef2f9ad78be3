#include "common/memory.h"

#include <malloc.h>

#include <utility>

namespace {

constexpr std::size_t kMuch = 1024 * 1024;  // bytes; less than that may stay for the next request

// Anything larger is mapped for itself and goes back as soon as it is freed. The library would raise the limit with
// each larger block that is freed, up to 32 MiB.
constexpr int kMappedFrom = 128 * 1024;  // bytes

thread_local bool much_expected = false;

}  // namespace

void memory_set_up() {
  mallopt(M_MMAP_THRESHOLD, kMappedFrom);
  // No lists of small blocks: what is on them counts as used, and the values of a large body would keep their heap.
  mallopt(M_MXFAST, 0);
}

void memory_expect(std::size_t bytes) {
  if (bytes >= kMuch) much_expected = true;
}

void memory_give_back() {
  // For what lies below a block that is still in use; the free end of a heap goes by itself.
  if (std::exchange(much_expected, false)) malloc_trim(0);
}
