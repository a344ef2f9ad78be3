#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

#include "bench/peers.h"

namespace {

constexpr char kName[] = "bench.Echo";
constexpr char kPath[] = "/bench";
constexpr std::uint64_t kTimeoutMicroseconds = 120'000'000;

void check_bus(int result, const char* operation) {
  errno = -result;
  check(result >= 0, operation);
}

int echo(sd_bus_message* message, void*, sd_bus_error*) {
  const void* body = nullptr;
  std::size_t size = 0;
  check_bus(sd_bus_message_read_array(message, 'y', &body, &size), "read the body");
  sd_bus_message* reply = nullptr;
  check_bus(sd_bus_message_new_method_return(message, &reply), "new reply");
  check_bus(sd_bus_message_append_array(reply, 'y', body, size), "append the reply");
  check_bus(sd_bus_send(nullptr, reply, nullptr), "send the reply");
  sd_bus_message_unref(reply);
  return 1;
}

const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Echo", "ay", "ay", echo, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

// Tells the broker at the other end of `controller` where to listen, and to allow everything. The broker's own launcher
// would need systemd and its journal.
void order_listener(int controller, const std::string& path) {
  sd_bus* broker = nullptr;
  check_bus(sd_bus_new(&broker), "sd_bus_new");
  check_bus(sd_bus_set_fd(broker, controller, controller), "sd_bus_set_fd");
  check_bus(sd_bus_start(broker), "connect to the broker");
  const UniqueFd listener = listen_at(path);
  fcntl(listener.get(), F_SETFL, O_NONBLOCK);  // the broker accepts until there are no more connections
  sd_bus_message* order = nullptr;
  check_bus(sd_bus_message_new_method_call(broker, &order, nullptr, "/org/bus1/DBus/Broker", "org.bus1.DBus.Broker",
                                           "AddListener"),
            "new order");
  // Rules by user, with one batch for all of them (to connect, to own names, to send, to receive), by group of users,
  // and by security label; the type of the bus.
  constexpr char kPolicy[] =
      "(a(u(bta(btbs)a(btssssuutt)a(btssssuutt)))a(buu(bta(btbs)a(btssssuutt)a(btssssuutt)))a(ss)bs)";
  constexpr std::uint64_t kPriority = 1;
  constexpr std::uint64_t kNoDescriptors = 0;
  check_bus(sd_bus_message_append(order, "ohv", "/org/bus1/DBus/Listener/0", listener.get(), kPolicy,    //
                                  1, UINT32_MAX, true, kPriority,                                        //
                                  1, true, kPriority, true, "",                                          //
                                  1, true, kPriority, "", "", "", "", 0, 0, kNoDescriptors, UINT64_MAX,  //
                                  1, true, kPriority, "", "", "", "", 0, 0, kNoDescriptors, UINT64_MAX,  //
                                  0, 0, false, "bench"),
            "append the policy");
  check_bus(sd_bus_call(broker, order, kTimeoutMicroseconds, nullptr, nullptr), "AddListener");
}

}  // namespace

void run_broker(const std::string& path) {
  int ends[2];
  check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
  const pid_t controller = fork();
  check(controller >= 0, "fork");
  if (controller == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(ends[1]);
    order_listener(ends[0], path);
    report_ready();
    while (true) pause();  // the broker ends when its controller ends
  }
  close(ends[0]);
  execlp("dbus-broker", "dbus-broker", "--controller", std::to_string(ends[1]).c_str(), "--machine-id",
         std::string(32, 'b').c_str(), "--max-bytes", "128000000000", "--max-fds", "4096", nullptr);
  check(false, "dbus-broker");
  std::abort();
}

void serve_bus(const std::string& path) {
  const Bus bus = connect_bus(path);
  check_bus(sd_bus_add_object_vtable(bus.get(), nullptr, kPath, kName, kMethods, nullptr), "sd_bus_add_object_vtable");
  check_bus(sd_bus_request_name(bus.get(), kName, 0), "sd_bus_request_name");
  report_ready();
  while (true) {
    const int result = sd_bus_process(bus.get(), nullptr);
    check_bus(result, "sd_bus_process");
    if (result == 0) check_bus(sd_bus_wait(bus.get(), UINT64_MAX), "sd_bus_wait");
  }
}

Bus connect_bus(const std::string& path) {
  sd_bus* bus = nullptr;
  check_bus(sd_bus_new(&bus), "sd_bus_new");
  check_bus(sd_bus_set_address(bus, ("unix:path=" + path).c_str()), "sd_bus_set_address");
  check_bus(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
  check_bus(sd_bus_start(bus), "connect to the bus");
  return Bus(bus);
}

std::size_t call_bus(const Bus& bus, const std::string& body) {
  sd_bus_message* request = nullptr;
  check_bus(sd_bus_message_new_method_call(bus.get(), &request, kName, kPath, kName, "Echo"), "new request");
  check_bus(sd_bus_message_append_array(request, 'y', body.data(), body.size()), "append the body");
  sd_bus_message* reply = nullptr;
  check_bus(sd_bus_call(bus.get(), request, kTimeoutMicroseconds, nullptr, &reply), "call over the bus");
  const void* data = nullptr;
  std::size_t length = 0;
  check_bus(sd_bus_message_read_array(reply, 'y', &data, &length), "read the reply");
  sd_bus_message_unref(reply);
  sd_bus_message_unref(request);
  return length;
}
