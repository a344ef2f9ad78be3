// The servers and clients of the benchmark, each a process. bench.py starts them, tells the clients what to call and
// makes tables from the times that they report.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <string>

#include "common/unique_fd.h"

// Servers fill their buffers of this size with zeros: otherwise the first large bodies would be slower.
inline constexpr std::size_t kLargestBody = 64 << 20;

// Unless `operation` succeeded, prints the error in errno and ends the process.
void check(bool succeeded, const char* operation);

// Tells bench.py by a line on standard output that clients can connect.
void report_ready();

// Listens on the socket file `path`.
UniqueFd listen_at(const std::string& path);

// ---- Floors
//
// Two lower bounds for the time of a call, with as few system calls and wake-ups as possible: no time limits, no names,
// no checks, one client at a time.
//
//   floor         the minimum for any service with bodies in memory files. The client passes a file; the server reads
//                 it, empties it, writes the bytes back and sends one byte; the client maps the reply. Two wake-ups.
//   conversation  all records and descriptors of the framework's protocol, between three threads of two processes:
//                 transfer from producer to consumer, its echo, ask, request, done and ready. Five wake-ups.
//
// Both servers run until they are killed. A call returns the length of its reply, which must be that of its body.
[[noreturn]] void serve_floor(const std::string& path);
[[noreturn]] void serve_conversation(const std::string& path);
std::size_t call_floor(const std::string& path, const std::string& body);
std::size_t call_conversation(const std::string& path, const std::string& body);

// ---- D-Bus
//
// The alternative that the framework is compared with: an echo by sd-bus through a message bus that listens on a socket
// file. A body is an array of bytes.

struct CloseBus {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

// Executes dbus-broker, with limits that the benchmark does not reach.
[[noreturn]] void run_broker(const std::string& path);
// Serves the echo over a bus until it is killed.
[[noreturn]] void serve_bus(const std::string& path);
Bus connect_bus(const std::string& path);
std::size_t call_bus(const Bus& bus, const std::string& body);
