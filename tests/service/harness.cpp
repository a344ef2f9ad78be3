#include "harness.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

// An impossible size shall fail as it does without the sanitizer; and the crash report is known to do in a
// signal handler what only a process about to end may do.
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1 report_signal_unsafe=0";
}

namespace {

constexpr int kPatienceMs = 10'000;
constexpr int kControlSocket = 3;  // in a consumer process

bool readable(int fd, int timeout_ms) {
  pollfd watched{.fd = fd, .events = POLLIN, .revents = 0};
  return poll(&watched, 1, timeout_ms) > 0;
}

// What the request asks for; the body is what the client sent.
std::string perform(const std::string& request, ks_io* io, const std::string& body, int extra_fd) {
  if (request == "echo") return body;
  if (request == "who") {
    return std::to_string(ks_io_pid(io)) + " " + std::to_string(ks_io_uid(io)) + " " +
           std::to_string(ks_io_gid(io));
  }
  if (request == "worker") return std::to_string(getpid());
  if (request == "open") return std::to_string(open_descriptors().size());
  if (request == "extra") return extra_fd < 0 ? "none" : content_of(extra_fd);
  if (request == "environ") {
    std::string all;
    for (char** entry = environ; *entry != nullptr; ++entry) all += std::string(*entry) + "\n";
    return all;
  }
  if (request == "hold") {
    char byte = 'h';
    if (write(extra_fd, &byte, 1) != 1 || read(extra_fd, &byte, 1) < 0) return "broken hold";
    return content_of(ks_io_fd(io));
  }
  if (request == "die") kill(getpid(), SIGKILL);
  if (request.rfind("wire", 0) == 0) {
    if (write(kControlSocket, body.data(), body.size()) < 0) return "no control socket";
    // Nothing may be appended to a short record.
    if (body.size() < sizeof(directive)) readable(kControlSocket, kPatienceMs);
  }
  return request;
}

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

ks_worker* workers_of(ks_handle* handle) {
  return std::atomic_ref(handle->worker).load();
}

}  // namespace

void answer(const char* request_name, ks_io* io, int extra_fd) {
  const std::string request = request_name;
  const std::string reply = perform(request, io, content_of(ks_io_fd(io)), extra_fd);
  if (request != "leave" && ks_io_alive(io)) {
    ks_io_realloc(io, 0);
    ks_io_write(io, reply.data(), reply.size());
    ks_reply(io);
  }
  ks_io_free(io);
  if (extra_fd >= 0) close(extra_fd);
}

void PrintTo(const Reply& reply, std::ostream* out) {
  *out << "{" << reply.status << ", " << reply.text.size() << " bytes: " << reply.text.substr(0, 80) << "}";
}

Reply call(const std::string& name, const std::string& request, const std::string& body, int extra_fd) {
  void* text = nullptr;
  std::uint64_t size = 0;
  const int status = ks_ez_call(name.c_str(), request.c_str(), body.empty() ? nullptr : body.data(),
                                body.size(), &text, &size, 20, extra_fd);
  Reply reply{.status = status, .text = {}};
  if (text != nullptr) reply.text.assign(static_cast<char*>(text), size);
  std::free(text);
  return reply;
}

Service::Service(const std::string& path, std::uint32_t mode, std::uint64_t workers)
    : path_(path), name_("@" + path), handle_(ks_create(name_.c_str(), mode, workers, answer)) {}

Service::~Service() {
  ks_free(handle_);
  if (runner_.joinable()) runner_.join();
}

void Service::start() {
  if ((handle_->mode & KS_STANDALONE) != 0) return ks_start(handle_);
  runner_ = std::thread(ks_start, handle_);
  ASSERT_TRUE(eventually([this] { return workers_of(handle_) != nullptr; }));
}

void Service::stop() {
  ks_stop(handle_);
  if (runner_.joinable()) runner_.join();
}

bool Service::published() const {
  return access(path_.c_str(), F_OK) == 0;
}

bool Service::comes_to_hold(std::size_t connections) const {
  return eventually([&] {
    std::ifstream sockets("/proc/net/unix");
    std::size_t found = 0;
    for (std::string line; std::getline(sockets, line);) {
      std::istringstream fields(line);
      std::string skipped, inode, bound;
      for (int i = 0; i < 6; ++i) fields >> skipped;
      fields >> inode >> bound;
      if (bound == path_ && inode != "0") ++found;  // not yet accepted: no inode
    }
    return found == connections + 1;  // and the listening one
  });
}

Peer::Peer(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM, 0)) {
  const sockaddr_un address = address_of(path);
  EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << strerror(errno);
}

Peer::Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

void Peer::leave() {
  if (fd_ >= 0) close(std::exchange(fd_, -1));
}

void Peer::say_no_more() {
  shutdown(fd_, SHUT_WR);
}

void Peer::send_bytes(std::string_view bytes) const {
  // A service that has hung up already is a legitimate answer to rubbish.
  if (send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
    EXPECT_EQ(errno, EPIPE);
  }
}

void Peer::send_record(int type, int flag, std::string_view data) const {
  std::string record(sizeof(directive), '\0');
  record[0] = static_cast<char>(type);
  record[1] = static_cast<char>(flag);
  record.replace(2, data.size(), data);
  send_bytes(record);
}

void Peer::send_fds(std::initializer_list<int> fds) const {
  const std::size_t size = fds.size() * sizeof(int);
  std::vector<std::max_align_t> control(CMSG_SPACE(size) / sizeof(std::max_align_t) + 1);
  char byte = 'x';
  iovec payload{.iov_base = &byte, .iov_len = 1};
  msghdr message{};
  message.msg_iov = &payload;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = CMSG_SPACE(size);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(size);
  std::memcpy(CMSG_DATA(header), fds.begin(), size);
  if (sendmsg(fd_, &message, MSG_NOSIGNAL) < 0) {
    EXPECT_EQ(errno, EPIPE);
  }
}

int Peer::next() const {
  directive record;
  if (!readable(fd_, kPatienceMs)) return -1;
  return read(fd_, &record, sizeof(record)) == sizeof(record) ? record.type : 0;
}

bool Peer::quiet() const {
  return !readable(fd_, 0);
}

bool Peer::ends(bool* done) const {
  int type;
  while ((type = next()) > 0) {
    if (done != nullptr) *done = *done || type == KS_DIR_DONE;
  }
  return type == 0;
}

Fd memory_file(std::string_view content, unsigned flags) {
  Fd file(memfd_create("test", flags));
  EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  return file;
}

Line make_line() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  return {.ours = Fd(ends[0]), .theirs = Fd(ends[1])};
}

Held::Held(const std::string& name) : Held(name, make_line()) {}

Held::Held(const std::string& name, Line line)
    : ours_(std::move(line.ours)),
      reply_(std::async(std::launch::async, [name, theirs = std::move(line.theirs)] {
        return call(name, "hold", "held", theirs);
      })) {
  char byte;
  EXPECT_TRUE(readable(ours_, kPatienceMs) && read(ours_, &byte, 1) == 1) << "the worker was not reached";
}

Reply Held::release() {
  EXPECT_EQ(write(ours_, "r", 1), 1);
  return reply_.get();
}

std::string mode_name(const ::testing::TestParamInfo<std::uint32_t>& info) {
  return std::string(info.param & KS_PROCESS_MODE ? "Processes" : "Threads") +
         (info.param & KS_STANDALONE ? "Standalone" : "InCaller");
}
