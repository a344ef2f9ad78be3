// Returns the memory of a large request to the system when the request has ended.
//
// Each request runs on a new thread. The C library gives threads separate heaps, which keep freed memory. Trimming all
// heaps takes longer than a small request, so only requests that announce a large amount do it.
#pragma once

#include <cstddef>

// Configures the C library's allocator. Call before other threads exist.
void memory_set_up();

// Announces that this thread is about to use `bytes` bytes.
void memory_expect(std::size_t bytes);

// Returns the freed memory of all threads to the system if this thread has announced a large amount. Call it after that
// memory has been freed.
void memory_give_back();
