#include "support/stuck_file.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <cstring>

namespace {

constexpr std::uint64_t kFileNode = 2;

template <typename Body>
void answer(int device, std::uint64_t unique, const Body& body) {
  fuse_out_header head{.len = sizeof(head) + sizeof(body), .error = 0, .unique = unique};
  const iovec parts[] = {{&head, sizeof(head)}, {const_cast<Body*>(&body), sizeof(body)}};
  EXPECT_EQ(writev(device, parts, 2), static_cast<ssize_t>(head.len));
}

fuse_attr attributes_of(std::uint64_t node) {
  fuse_attr attributes{};
  attributes.ino = node;
  attributes.size = 4096;
  attributes.mode = node == kFileNode ? S_IFREG | 0666 : S_IFDIR | 0777;
  attributes.nlink = 1;
  return attributes;
}

}  // namespace

StuckFile::StuckFile(std::string directory)
    : directory_(std::move(directory)), device_(open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK)) {
  mkdir(directory_.c_str(), 0777);
  const std::string options = "fd=" + std::to_string(device_.get()) + ",rootmode=40777,user_id=0,group_id=0";
  if (mount("stuck", directory_.c_str(), "fuse", 0, options.c_str()) != 0) return;
  server_ = std::jthread([this] { serve(); });
  file_.reset(open((directory_ + "/file").c_str(), O_RDWR | O_CLOEXEC));
}

StuckFile::~StuckFile() {
  umount2(directory_.c_str(), MNT_FORCE | MNT_DETACH);
}

// Until the file system is gone.
void StuckFile::serve() const {
  alignas(8) char buffer[FUSE_MIN_READ_BUFFER * 20];
  pollfd watched{.fd = device_.get(), .events = POLLIN, .revents = 0};
  while (poll(&watched, 1, -1) > 0) {
    if (read(device_.get(), buffer, sizeof(buffer)) < 0) {
      if (errno == ENODEV) return;
      continue;
    }
    fuse_in_header in;
    std::memcpy(&in, buffer, sizeof(in));
    switch (in.opcode) {
      case FUSE_INIT: {
        fuse_init_out out{};
        out.major = FUSE_KERNEL_VERSION;
        out.minor = FUSE_KERNEL_MINOR_VERSION;
        out.max_write = 4096;
        answer(device_.get(), in.unique, out);
        break;
      }
      case FUSE_LOOKUP: {
        fuse_entry_out out{};
        out.nodeid = kFileNode;
        out.attr = attributes_of(kFileNode);
        answer(device_.get(), in.unique, out);
        break;
      }
      case FUSE_GETATTR: {
        fuse_attr_out out{};
        out.attr = attributes_of(in.nodeid);
        answer(device_.get(), in.unique, out);
        break;
      }
      case FUSE_OPEN:
        answer(device_.get(), in.unique, fuse_open_out{});
        break;
      default:
        break;  // never answered
    }
  }
}
