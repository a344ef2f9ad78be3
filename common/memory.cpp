#include "common/memory.h"

#include <malloc.h>

#include <utility>

namespace {

constexpr std::size_t kMuch = 1024 * 1024;  // bytes; smaller amounts may stay allocated for the next request

// Larger blocks are mapped separately and returned as soon as they are freed. Without this setting the library would
// raise the threshold with each larger block that is freed, up to 32 MiB.
constexpr int kMappedFrom = 128 * 1024;  // bytes

thread_local bool g_much_expected = false;

}  // namespace

void memory_set_up() {
  mallopt(M_MMAP_THRESHOLD, kMappedFrom);
  // No lists of small free blocks: they count as used and would keep the heap of a large body's values.
  mallopt(M_MXFAST, 0);
}

void memory_expect(std::size_t bytes) {
  if (bytes >= kMuch) g_much_expected = true;
}

void memory_give_back() {
  // Needed for free memory below a block in use; the library returns the free end of a heap by itself.
  if (std::exchange(g_much_expected, false)) malloc_trim(0);
}
