// Peers that keep no rule. Whatever one does costs it its own connection and nobody anything else.
#include <fcntl.h>
#include <sys/mman.h>

#include "harness.h"

namespace {

Fd odd_file(off_t size, int seals) {
  Fd file = memory_file("", MFD_ALLOW_SEALING);
  EXPECT_EQ(ftruncate(file, size) + fcntl(file, F_ADD_SEALS, seals), 0);
  return file;
}

struct Row {
  const char* what;
  std::function<void(Peer&)> does;
  bool served = false;  // whether it is answered all the same
};

const Fd kBody = memory_file("body"), kSealable = memory_file("body", MFD_ALLOW_SEALING);
const std::vector<int> kTwo(2, kBody), kFour(4, kBody);
const std::string kBodyPath = "/proc/self/fd/" + std::to_string(kBody);
const std::vector<int> kServed = {KS_DIR_ASK, KS_DIR_DONE, 0}, kRefused = {KS_DIR_ASK, 0};
const std::string kEndless(kDirectiveDataSize, 'n');

const Row kRows[] = {
    {"leaves before it is asked", [](Peer& p) { p.leave(); }},
    {"leaves after its memory file", [](Peer& p) { p.request("echo").fds({kBody}).leave(); }},
    {"half a record", [](Peer& p) { p.bytes(std::string(129, '\x08')); }},
    {"a byte without a descriptor", [](Peer& p) { p.request("echo").bytes("x"); }},
    {"withholds the second descriptor", [](Peer& p) { p.request("echo", 1).fds({kBody}); }},
    {"two descriptors in one message", [](Peer& p) { p.request("echo").fds(kTwo); }, true},
    {"four in one message", [](Peer& p) { p.request("echo").fds(kFour); }},
    {"a file that nobody asked for", [](Peer& p) { p.request("leave").fds({kBody}).fds({kBody}); }},
    {"a name without an end", [](Peer& p) { p.request(kEndless).fds({kBody}); }, true},
    {"a forged hand-over", [](Peer& p) { p.record(KS_DIR_TRANSFER).fds({kBody}); }},
    {"empty file", [](Peer& p) { p.request("echo").fds({memory_file("")}); }, true},
    {"sealable file", [](Peer& p) { p.request("echo").fds({kSealable}); }, true},
    {"no shrinking", [](Peer& p) { p.request("echo").fds({odd_file(4, F_SEAL_SHRINK)}); }},
    {"no writing from now on", [](Peer& p) { p.request("echo").fds({odd_file(0, F_SEAL_FUTURE_WRITE)}); }},
    {"read-only file", [](Peer& p) { p.request("echo").fds({Fd(open(kBodyPath.c_str(), O_RDONLY))}); }},
    {"too large to map", [](Peer& p) { p.request("echo").fds({odd_file(off_t{1} << 62, 0)}); }},
    {"file on disk", [](Peer& p) { p.request("echo").fds({Fd(open("/tmp", O_RDWR | O_TMPFILE, 0600))}); }},
};

TEST_P(EveryMode, AHostilePeerCostsItsOwnConnectionOnly) {
  Service service(path(), GetParam(), 1);  // one worker: the same one meets them all
  service.start();
  const Reply worker = call(service.name(), "worker");
  const auto open_when_idle = [&] {
    // Whoever is asked finds the worker done with everybody before.
    EXPECT_EQ(Peer(path()).next(), KS_DIR_ASK);
    EXPECT_TRUE(service.comes_to_hold(0));
    return std::pair(open_descriptors().size(), open_descriptors(std::stoi(worker.second)).size());
  };
  const auto open = open_when_idle();
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    // The emulator takes in all of them and does not say that the message was cut.
    if (emulated() && row.what == std::string("four in one message")) continue;
    {
      Peer peer(path());
      row.does(peer);
      EXPECT_TRUE(peer.fd() < 0 || peer.rest() == (row.served ? kServed : kRefused));
    }
    EXPECT_EQ(call(service.name(), "echo", "next"), (Reply{KS_STATUS_OK, "next"}));
    EXPECT_EQ(call(service.name(), "worker"), worker);
    // A close on another thread may still be under way; a leak stays.
    ASSERT_TRUE(eventually([&] { return open_when_idle() == open; }));
  }
  // From the moment it is served.
  EXPECT_EQ(fcntl(kSealable, F_ADD_SEALS, F_SEAL_SHRINK), -1) << "a client can take its file away";
}

}  // namespace
