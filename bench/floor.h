// The floor: the least that any local service with a body in a memory file must do. One connection per call;
// the client passes a memory file, the server reads it, empties it, writes the bytes back and sends one byte;
// the client maps what it has got and closes. No time limits, no names, no checks, no second thread.
#pragma once

#include <cstddef>

// Serves on the socket file `path`, one connection after another, for ever. Bodies are at most
// `body_capacity` bytes long. Writes one byte to `control` once clients can connect.
[[noreturn]] void serve_floor(const char* path, std::size_t body_capacity, int control);

// One call, from making the memory file to closing it. Returns the length of the reply.
std::size_t call_floor(const char* path, const char* body, std::size_t size);
