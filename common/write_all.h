// Writing a whole block to a descriptor.
#pragma once

#include <cstddef>

// Writes all bytes; false, with errno set, when that fails. Memory that vanishes meanwhile (a mapped file that is cut
// short) is an error (EFAULT), not a signal.
bool write_all(int fd, const void* data, std::size_t size);
