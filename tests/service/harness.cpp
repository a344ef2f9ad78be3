#include "harness.h"

#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <fstream>

#include "service/ks_internal.h"

namespace {

// Sends what a consumer process with this control socket tells its producer, for any worker.
void send_ready(int control, std::uint64_t index) {
  Peer(dup(control)).record(KS_DIR_READY, 0, {reinterpret_cast<const char*>(&index), sizeof(index)});
}

std::string perform(const std::string& request, ks_io* io, int extra) {
  char byte = 'h';
  if (request == "echo") return content_of(ks_io_fd(io)) + (extra < 0 ? "" : content_of(extra));
  if (request == "mapped") {
    const std::string size = std::to_string(io->shared_size);
    return size + *static_cast<char*>(ks_io_read(io, nullptr));
  }
  if (request == "who") return sender(ks_io_pid(io), ks_io_uid(io), ks_io_gid(io));
  if (request == "worker") return std::to_string(gettid());
  if (request == "forge") send_ready(3, std::uint64_t{1} << 40);
  if (request == "environ") {
    std::string all;
    for (char** entry = environ; *entry != nullptr; ++entry) all += std::string(*entry) + "\n";
    return all;
  }
  if (request == "hold" && (write(extra, &byte, 1) != 1 || read(extra, &byte, 1) < 0)) return "broken";
  if (request == "die") kill(getpid(), SIGKILL);
  return request;
}

void answer(const char* request_name, ks_io* io, int extra_fd) {
  const UniqueFd extra(extra_fd);
  const std::string request = request_name;
  const std::string reply = perform(request, io, extra.get());
  if (request != "leave" && ks_io_alive(io)) {
    ks_io_realloc(io, 0);
    ks_io_write(io, reply.data(), reply.size());
    ks_reply(io);
  }
  ks_io_free(io);
}

INSTANTIATE_TEST_SUITE_P(Service, EveryMode, ::testing::Values(2u, 3u, 4u, 5u));

}  // namespace

std::string sender(pid_t pid, uid_t uid, gid_t gid) {
  return std::to_string(pid) + " " + std::to_string(uid) + " " + std::to_string(gid);
}

Service::Service(const std::string& path, std::uint32_t mode, std::uint64_t workers)
    : path_(path), name_("@" + path), handle_(ks_create(name_.c_str(), mode, workers, answer)) {}

void Service::begin() {
  if ((handle_->mode & KS_STANDALONE) != 0) return ks_start(handle_);
  runner_ = std::jthread(ks_start, handle_);
  ASSERT_TRUE(eventually([this] { return std::atomic_ref(handle_->worker).load() != nullptr; }));
}

void Service::start() {
  begin();
  const ks_worker& producer = handle_->worker[handle_->service_size];
  ASSERT_TRUE(eventually([&] { return std::atomic_ref(producer.phase).load() == kProducerRunning; }));
}

void Service::stop() {
  ks_stop(handle_);
  runner_ = {};
}

bool Service::comes_to_hold(int connections) const {
  return eventually([&] {
    int found = -1;  // the listening one
    std::ifstream sockets("/proc/net/unix");
    for (std::string line; std::getline(sockets, line);) {
      // What is not accepted yet has no inode number in front of its path.
      if (line.ends_with(" " + path_) && !line.ends_with("    0 " + path_)) ++found;
    }
    return found == connections;
  });
}

Line make_line() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  return {.ours = UniqueFd(ends[0]), .theirs = UniqueFd(ends[1])};
}
