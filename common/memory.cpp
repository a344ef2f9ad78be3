#include "common/memory.h"

#include <malloc.h>

#include <utility>

namespace {

constexpr std::size_t kMuch = 1024 * 1024;  // bytes; less than that may stay for the next request

// Anything larger is mapped for itself and goes back as soon as it is freed. Left alone, the limit would rise with
// each larger text that is freed, to 32 MiB.
constexpr int kMappedFrom = 128 * 1024;  // bytes

thread_local bool much_expected = false;

}  // namespace

void memory_set_up() {
  // One heap for all threads: the library returns only the first one's end to the system.
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, kMappedFrom);
}

void memory_expect(std::size_t bytes) {
  if (bytes >= kMuch) much_expected = true;
}

void memory_give_back() {
  if (std::exchange(much_expected, false)) malloc_trim(0);
}
