// Writing a whole block to a descriptor.
#pragma once

#include <cstddef>

// Writes all bytes; false, with errno set, on failure. If `data` is in a mapped file that is truncated meanwhile, the
// result is an error (EFAULT), not a signal.
bool write_all(int fd, const void* data, std::size_t size);
