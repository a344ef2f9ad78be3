// Keeps the daemon small: what a large request took goes back to the system when it has ended.
//
// Each request runs on a thread of its own, and the C library gives threads heaps of their own, which keep what was
// freed in them. Searching all of them takes longer than a small request does, so only requests that announce
// themselves as large pay for it.
#pragma once

#include <cstddef>

// Chooses how the C library keeps memory. Before there are other threads.
void memory_set_up();

// Says that this thread is about to use so many bytes.
void memory_expect(std::size_t bytes);

// Returns to the system what has been freed by all threads, if this one has announced much. To be called once it
// holds no more of that.
void memory_give_back();
