// Peers that keep no rule. Whatever one does costs it its own connection and nobody anything else.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "harness.h"

namespace {

struct HostilePeer {
  std::string name;
  std::function<void(Peer&)> does;
  bool served = false;  // whether it is answered all the same
};

// The memory file that an otherwise correct client passes.
struct MemoryFile {
  std::string name;
  std::function<Fd(const std::string& dir)> make;
  bool served = false;
};

constexpr int kLastForgedType = 11;

std::vector<HostilePeer> peers() {
  std::vector<HostilePeer> rows = {
      {.name = "leaves before it is asked", .does = [](Peer& p) { p.leave(); }},
      {.name = "leaves after the ask",
       .does =
           [](Peer& p) {
             EXPECT_EQ(p.next(), KS_DIR_ASK);
             p.leave();
           }},
      {.name = "leaves after its record",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 1, "echo");
             p.leave();
           }},
      {.name = "leaves after its memory file",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 0, "echo");
             p.send_fds({memory_file("body")});
             p.leave();
           }},
      {.name = "sends half a record", .does = [](Peer& p) { p.send_bytes(std::string(129, '\x08')); }},
      {.name = "sends one byte", .does = [](Peer& p) { p.send_bytes("\x08"); }},
      {.name = "sends nothing and half-closes", .does = [](Peer& p) { p.say_no_more(); }},
      {.name = "sends its descriptor without a record",
       .does = [](Peer& p) { p.send_fds({memory_file("b")}); }},
      {.name = "sends a record and a byte without a descriptor",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 0, "echo");
             p.send_bytes("x");
           }},
      {.name = "half-closes instead of a descriptor",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 0, "echo");
             p.say_no_more();
           }},
      {.name = "half-closes instead of the second descriptor",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 1, "extra");
             p.send_fds({memory_file("body")});
             p.say_no_more();
           }},
      {.name = "withholds the second descriptor",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 1, "extra");
             p.send_fds({memory_file("body")});
           }},
      {.name = "sends two descriptors in one message",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 0, "echo");
             p.send_fds({memory_file("body"), memory_file("surplus")});
           },
       .served = true},
      {.name = "sends seven descriptors in one message",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 0, "echo");
             const Fd file = memory_file("body");
             p.send_fds({file, file, file, file, file, file, file});
           }},
      {.name = "sends a second file that nobody asked for",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 0, "leave");
             p.send_fds({memory_file("body")});
             p.send_fds({memory_file("surplus")});
           }},
      {.name = "names its request without an end",
       .does =
           [](Peer& p) {
             p.send_record(KS_DIR_REQUEST, 0, std::string(kDirectiveDataSize, 'n'));
             p.send_fds({memory_file("body")});
           },
       .served = true},
  };
  for (int type = 0; type <= kLastForgedType; ++type) {
    if (type == KS_DIR_REQUEST) continue;
    rows.push_back({.name = "sends directive " + std::to_string(type), .does = [type](Peer& p) {
                      p.send_record(type);
                      p.send_fds({memory_file("b")});
                    }});
  }
  return rows;
}

Fd sealed(unsigned seals) {
  Fd file = memory_file("body", MFD_ALLOW_SEALING);
  EXPECT_EQ(fcntl(file, F_ADD_SEALS, seals), 0);
  return file;
}

Fd of_size(off_t size) {
  Fd file = memory_file("");
  EXPECT_EQ(ftruncate(file, size), 0);
  return file;
}

Fd reopened(int flags) {
  const Fd file = memory_file("body");
  return Fd(open(("/proc/self/fd/" + std::to_string(file)).c_str(), flags));
}

Fd one_end(int (*make)(int*)) {
  int ends[2];
  EXPECT_EQ(make(ends), 0);
  close(ends[0]);
  return Fd(ends[1]);
}

const MemoryFile kMemoryFiles[] = {
    {.name = "ordinary", .make = [](auto&) { return memory_file("body"); }, .served = true},
    {.name = "sealable", .make = [](auto&) { return memory_file("b", MFD_ALLOW_SEALING); }, .served = true},
    {.name = "empty", .make = [](auto&) { return memory_file(""); }, .served = true},
    {.name = "sealed against shrinking", .make = [](auto&) { return sealed(F_SEAL_SHRINK); }},
    {.name = "sealed against growing", .make = [](auto&) { return sealed(F_SEAL_GROW); }},
    {.name = "sealed against writing", .make = [](auto&) { return sealed(F_SEAL_WRITE); }},
    {.name = "sealed against later writing", .make = [](auto&) { return sealed(F_SEAL_FUTURE_WRITE); }},
    {.name = "read-only", .make = [](auto&) { return reopened(O_RDONLY); }},
    {.name = "write-only", .make = [](auto&) { return reopened(O_WRONLY); }},
    {.name = "path only", .make = [](auto&) { return reopened(O_PATH); }},
    {.name = "too large to map", .make = [](auto&) { return of_size(off_t{1} << 62); }},
    {.name = "directory", .make = [](auto& dir) { return Fd(open(dir.c_str(), O_RDONLY)); }},
    {.name = "regular file on disk",
     .make = [](auto& dir) { return Fd(open((dir + "/f").c_str(), O_RDWR | O_CREAT, 0600)); }},
    {.name = "device", .make = [](auto&) { return Fd(open("/dev/zero", O_RDWR)); }},
    {.name = "pipe", .make = [](auto&) { return one_end([](int* ends) { return pipe(ends); }); }},
    {.name = "socket",
     .make =
         [](auto&) { return one_end([](int* ends) { return socketpair(AF_UNIX, SOCK_STREAM, 0, ends); }); }},
};

class Hostile : public EveryMode {
 protected:
  void SetUp() override {
    // Where huge pages can be had, a file of them is no ordinary memory either.
    const Fd probe(memfd_create("huge", MFD_HUGETLB));
    if (probe >= 0) rows_.push_back(with_file({"huge pages", [](auto&) { return huge(); }, false}));
    for (const MemoryFile& file : kMemoryFiles) rows_.push_back(with_file(file));
  }

  HostilePeer with_file(const MemoryFile& file) const {
    return {.name = "memory file: " + file.name,
            .does =
                [file, dir = in_dir("")](Peer& p) {
                  const Fd memory = file.make(dir);
                  ASSERT_GE(memory, 0);
                  p.send_record(KS_DIR_REQUEST, 0, "echo");
                  p.send_fds({memory});
                },
            .served = file.served};
  }

  std::vector<HostilePeer> rows_ = peers();

 private:
  static Fd huge() { return Fd(memfd_create("huge", MFD_HUGETLB)); }
};

TEST_P(Hostile, CostsItsOwnConnectionOnly) {
  Service service(path(), GetParam(), 1);  // one worker: the same one meets them all
  service.start();
  const auto open_when_idle = [&] {
    // Whoever is asked finds the worker done with everybody before.
    EXPECT_EQ(Peer(path()).next(), KS_DIR_ASK);
    EXPECT_TRUE(service.comes_to_hold(0));
    const bool own_table = (GetParam() & KS_PROCESS_MODE) != 0;
    return std::pair(open_descriptors().size(), own_table ? call(service.name(), "open").text : "");
  };
  const Reply worker = call(service.name(), "worker");
  const auto open = open_when_idle();
  for (const HostilePeer& row : rows_) {
    SCOPED_TRACE(row.name);
    bool done = false;
    {
      Peer peer(path());
      row.does(peer);
      EXPECT_TRUE(peer.fd() < 0 || peer.ends(&done));
    }
    EXPECT_EQ(done, row.served);
    EXPECT_EQ(call(service.name(), "echo", "next"), (Reply{KS_STATUS_OK, "next"}));
    EXPECT_EQ(call(service.name(), "worker"), worker);
    // A close on another thread may still be under way; a leak stays.
    EXPECT_TRUE(eventually([&] { return open_when_idle() == open; }));
  }
}

INSTANTIATE_TEST_SUITE_P(Service, Hostile,
                         ::testing::Values(KS_STANDALONE | KS_PTHREAD_MODE, KS_PROCESS_MODE), mode_name);

// The file stays in the client's hands while it is served.
TEST_F(ServiceTest, AClientCannotPullItsFileAwayFromUnderTheService) {
  Service service(path(), KS_STANDALONE | KS_PTHREAD_MODE, 1);
  service.start();
  struct Row {
    const char* name;
    std::function<int(int file)> does;
    int result;
  };
  const Row rows[] = {
      {"shrinks", [](int file) { return ftruncate(file, 0); }, 0},
      {"grows beyond what can be mapped", [](int file) { return ftruncate(file, off_t{1} << 62); }, 0},
      {"seals", [](int file) { return fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK); }, -1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Line line = make_line();
    const Fd file = memory_file(std::string(2 * 4096, 'b'), MFD_ALLOW_SEALING);
    const Peer peer(path());
    peer.send_record(KS_DIR_REQUEST, 1, "hold");
    peer.send_fds({file});
    peer.send_fds({line.theirs});
    char byte;
    ASSERT_EQ(read(line.ours, &byte, 1), 1);
    EXPECT_EQ(row.does(file), row.result);
    ASSERT_EQ(write(line.ours, "r", 1), 1);
    bool done = false;
    EXPECT_TRUE(peer.ends(&done));
    EXPECT_TRUE(done);
  }
  EXPECT_EQ(call(service.name(), "echo", "next"), (Reply{KS_STATUS_OK, "next"}));
}

}  // namespace
