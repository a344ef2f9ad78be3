// The parts of the benchmark that are processes of their own. bench.py starts them, tells the clients what to call and
// makes tables of what they have seen.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <string>

#include "common/unique_fd.h"

inline constexpr std::size_t kLargestBody = 64 << 20;

// Ends the process with what `operation` left in errno, unless it succeeded: a benchmark without its set-up has no
// figures.
void check(bool succeeded, const char* operation);

// Tells bench.py by a line on standard output that clients can connect.
void report_ready();

// Listens on the socket file `path`.
UniqueFd listen_at(const std::string& path);

// ---- Floors
//
// Two floors under the time of a call, each with the fewest system calls and wake-ups that still do it: no time limits,
// no names, no checks of what the other side sends; one client is served after another.
//
//   floor         what any service must do whose bodies lie in memory files. The client passes a file, the server reads
//                 it, empties it, writes the bytes back and sends one byte; the client maps the reply. Two wake-ups.
//   conversation  all records and descriptors of the framework, between three threads of two processes: hand-over from
//                 producer to consumer and its echo, ask, request, done and ready. Five wake-ups.
//
// They serve on a socket file for ever. A call returns the length of its reply, which is what it was sent.
[[noreturn]] void serve_floor(const std::string& path);
[[noreturn]] void serve_conversation(const std::string& path);
std::size_t call_floor(const std::string& path, const std::string& body);
std::size_t call_conversation(const std::string& path, const std::string& body);

// ---- D-Bus
//
// What a program would use instead: an echo by sd-bus through a message bus that listens on a socket file. A body is an
// array of bytes.

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

// Becomes the bus "dbus-broker", with limits far above what is needed.
[[noreturn]] void run_broker(const std::string& path);
// Serves the echo over a bus for ever.
[[noreturn]] void serve_bus(const std::string& path);
Bus connect_bus(const std::string& path);
std::size_t call_bus(const Bus& bus, const std::string& body);
