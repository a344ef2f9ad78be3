#include "bench/dbus_peer.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <thread>

#include "bench/child_process.h"

namespace {

constexpr char kName[] = "bench.Echo";
constexpr char kPath[] = "/bench";
constexpr std::uint64_t kTimeoutMicroseconds = 120'000'000;
constexpr auto kBusDeadline = std::chrono::seconds(10);

// Message size as large as the protocol allows; the queues hold what eight clients can send at once.
constexpr char kConfiguration[] = R"(<busconfig>
  <type>bench</type>
  <listen>%</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
  <limit name="max_message_size">134217728</limit>
  <limit name="max_incoming_bytes">2000000000</limit>
  <limit name="max_outgoing_bytes">2000000000</limit>
</busconfig>
)";

void check(int result, const char* operation) {
  if (result >= 0) return;
  errno = -result;
  give_up(operation);
}

// Negative when the bus cannot be reached.
int connect_to(const std::string& address, sd_bus** bus) {
  check(sd_bus_new(bus), "sd_bus_new");
  check(sd_bus_set_address(*bus, address.c_str()), "sd_bus_set_address");
  check(sd_bus_set_bus_client(*bus, 1), "sd_bus_set_bus_client");
  return sd_bus_start(*bus);
}

int echo(sd_bus_message* message, void*, sd_bus_error*) {
  const void* body = nullptr;
  std::size_t size = 0;
  check(sd_bus_message_read_array(message, 'y', &body, &size), "read the body");
  sd_bus_message* reply = nullptr;
  check(sd_bus_message_new_method_return(message, &reply), "new reply");
  check(sd_bus_message_append_array(reply, 'y', body, size), "append the reply");
  check(sd_bus_send(nullptr, reply, nullptr), "send the reply");
  sd_bus_message_unref(reply);
  return 1;
}

const sd_bus_vtable kMethods[] = {SD_BUS_VTABLE_START(0),
                                  SD_BUS_METHOD("Echo", "ay", "ay", echo, SD_BUS_VTABLE_UNPRIVILEGED),
                                  SD_BUS_VTABLE_END};

}  // namespace

std::string dbus_address(const std::string& directory) {
  return "unix:path=" + directory + "/bus";
}

std::string dbus_configuration(const std::string& directory) {
  const std::string path = directory + "/bus.conf";
  std::string text = kConfiguration;
  text.replace(text.find('%'), 1, dbus_address(directory));
  std::ofstream(path) << text;
  return path;
}

void serve_dbus(const std::string& address, int control) {
  const auto deadline = std::chrono::steady_clock::now() + kBusDeadline;
  sd_bus* bus = nullptr;
  int result;
  while ((result = connect_to(address, &bus)) < 0 && std::chrono::steady_clock::now() < deadline) {
    sd_bus_unref(bus);
    std::this_thread::yield();
  }
  check(result, "connect to the message bus");
  check(sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kMethods, nullptr), "sd_bus_add_object_vtable");
  check(sd_bus_request_name(bus, kName, 0), "sd_bus_request_name");
  if (write(control, "", 1) != 1) give_up("serve_dbus");
  while (true) {
    result = sd_bus_process(bus, nullptr);
    check(result, "sd_bus_process");
    if (result == 0) check(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
  }
}

DbusConnection::DbusConnection(const std::string& address) {
  sd_bus* bus = nullptr;
  check(connect_to(address, &bus), "connect to the message bus");
  bus_.reset(bus);
}

std::size_t DbusConnection::call(const char* body, std::size_t size) {
  sd_bus_message* request = nullptr;
  check(sd_bus_message_new_method_call(bus_.get(), &request, kName, kPath, kName, "Echo"), "new request");
  check(sd_bus_message_append_array(request, 'y', body, size), "append the body");
  sd_bus_message* reply = nullptr;
  check(sd_bus_call(bus_.get(), request, kTimeoutMicroseconds, nullptr, &reply), "call over the bus");
  const void* data = nullptr;
  std::size_t length = 0;
  check(sd_bus_message_read_array(reply, 'y', &data, &length), "read the reply");
  sd_bus_message_unref(reply);
  sd_bus_message_unref(request);
  return length;
}
