// The peer that a program would otherwise pick: sd-bus, through a dbus-daemon of its own whose limits are
// raised to what the largest body needs. A body is an array of bytes, the reply the same bytes.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <string>

// The command that starts the message bus in the foreground, listening on `directory`/bus; writes its
// configuration there. Then the address of that bus.
std::string dbus_configuration(const std::string& directory);
std::string dbus_address(const std::string& directory);

// Serves the echo, one call after another, for ever. Waits for the bus to come up first, and writes one byte to
// `control` once clients can call.
[[noreturn]] void serve_dbus(const std::string& address, int control);

// A client's connection to the bus.
class DbusConnection {
 public:
  explicit DbusConnection(const std::string& address);
  // Returns the length of the reply.
  std::size_t call(const char* body, std::size_t size);

 private:
  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  std::unique_ptr<sd_bus, Close> bus_;
};
