// A hostile client of a running service. The input is a list of steps of the client. The next client must be served,
// and the service must not accumulate descriptors.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>

#include "fuzz/input.h"
#include "service/ks_internal.h"
#include "support/peer.h"

namespace {

constexpr int kGlimpseMs = 2;  // how long a client waits for a record that may not come
constexpr int kMaxSteps = 16;
constexpr std::size_t kMaxAttached = 4;
constexpr std::size_t kMaxOpen = 48;  // the service's own descriptors, and clients that are just being released
const std::string name = "@/tmp/conversation_fuzz." + std::to_string(getpid());

void echo(const char*, ks_io* io, int extra_fd) {
  const UniqueFd extra(extra_fd);
  char body[64];
  const ssize_t got = std::max<ssize_t>(pread(ks_io_fd(io), body, sizeof(body), 0), 0);
  ks_io_realloc(io, 0);
  ks_io_write(io, body, static_cast<std::uint64_t>(got));
  ks_reply(io);
  ks_io_free(io);
}

// A suitable memory file, one that may be unsuitable, or another descriptor.
UniqueFd make_descriptor(Input& input) {
  if (input.flag()) return UniqueFd(open(input.flag() ? "/dev/zero" : "/tmp", O_RDONLY));
  if (input.flag()) return UniqueFd(socket(AF_UNIX, SOCK_STREAM, 0));
  UniqueFd file = memory_file("", MFD_ALLOW_SEALING);
  const off_t size = (static_cast<off_t>(input.below(3)) - 1) << input.below(63);
  const bool resized = ftruncate(file.get(), size) == 0;
  require(resized || write(file.get(), "b", 1) == 1, "memory file");
  if (input.flag()) fcntl(file.get(), F_ADD_SEALS, static_cast<int>(input.below(0x20)));
  return file;
}

void converse(Input& input) {
  Peer client(name.substr(1));
  if (input.flag()) require(client.next() == KS_DIR_ASK, "not asked");
  UniqueFd file = make_descriptor(input);
  for (int step = 0; step < kMaxSteps && !input.empty(); ++step) {
    const std::size_t what = input.below(7);
    if (what == 0) {
      client.bytes(input.text());
    } else if (what == 1) {
      const int type = input.flag() ? static_cast<int>(input.number(1)) : KS_DIR_REQUEST;
      const int flag = static_cast<int>(input.number(1));
      client.record(type, flag, input.text());
      if (!input.flag()) client.fds({file.get()});  // an input that ends here is a whole request
    } else if (what == 2) {
      file = make_descriptor(input);
    } else if (what == 3) {
      client.fds(std::vector<int>(input.below(kMaxAttached + 1), file.get()));
    } else if (what == 4) {
      if (readable(client.fd(), kGlimpseMs)) client.next();
    } else if (what == 5) {
      if (ftruncate(file.get(), static_cast<off_t>(input.number(4))) != 0) continue;  // cannot be truncated
    } else {
      shutdown(client.fd(), input.flag() ? SHUT_WR : SHUT_RD);
    }
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // One worker, so that the same worker serves the next client. The service ends with the process.
  static ks_handle* const service = ks_create(name.c_str(), KS_PTHREAD_MODE | KS_STANDALONE, 1, echo);
  if (service->worker == nullptr) ks_start(service);
  GTEST_FLAG_SET(break_on_failure, true);
  Input input(data, size);
  converse(input);
  require(call(name, "echo", "next") == Reply{KS_STATUS_OK, "next"}, "the next client");
  require(open_descriptors().size() < kMaxOpen, "descriptors pile up");
  return 0;
}
