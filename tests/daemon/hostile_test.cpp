// Hostile peers and bodies at both services. Each may lose its own connection but must not affect other clients.
#include <fcntl.h>
#include <linux/fuse.h>
#include <linux/userfaultfd.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "daemon/command_tables.h"
#include "harness.h"

namespace {

const struct Target {
  const char* name;
  const char* path;
  int workers;
  std::span<const CommandRow> (*commands)();
  const char* reads_body;  // a request that does
} kTargets[] = {
    {kMain, kMainSocket, 2, main_commands, "exec_cli"},
    {kMail, kMailSocket, 5, mail_commands, "sendmail"},
};

constexpr uid_t kOtherUser = 65534;

const UniqueFd kBodyFile = memory_file("body"), kSealableFile = memory_file("body", MFD_ALLOW_SEALING);
const UniqueFd kEmptyFile = memory_file("");
const int kBody = kBodyFile.get(), kSealable = kSealableFile.get();
const std::string kEndless(kDirectiveDataSize, 'n');

int odd_file(off_t size, int seals) {
  const int file = memfd_create("odd", MFD_ALLOW_SEALING | MFD_CLOEXEC);
  EXPECT_EQ(ftruncate(file, size) + fcntl(file, F_ADD_SEALS, seals), 0);
  return file;
}

// A connection that cannot send its data, so that its last close waits for a minute.
class Lingering {
 public:
  Lingering() : ours_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    EXPECT_EQ(listen(listening.get(), 1), 0);  // at any port
    EXPECT_EQ(getsockname(listening.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    EXPECT_EQ(connect(ours_, reinterpret_cast<const sockaddr*>(&address), size), 0);
    static std::vector<UniqueFd> theirs;  // never read
    theirs.emplace_back(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const linger minute{.l_onoff = 1, .l_linger = 60};
    EXPECT_EQ(setsockopt(ours_, SOL_SOCKET, SO_LINGER, &minute, sizeof(minute)), 0);
    while (send(ours_, kEndless.data(), kEndless.size(), MSG_DONTWAIT) > 0) continue;
  }
  Lingering(const Lingering&) = delete;
  Lingering& operator=(const Lingering&) = delete;
  ~Lingering() { ks_discard(ours_, getuid()); }  // where the daemon was faster, this is the last close
  operator int() const { return ours_; }

 private:
  const int ours_;
};

// Makes a request with this file.
auto hands_over(int fd) {
  return [file = std::make_shared<UniqueFd>(fd)](Peer& p) { p.request("test").fds({file->get()}); };
}
auto hands_over(const std::string& path, int flags) {
  return hands_over(open(path.c_str(), flags | O_CLOEXEC, 0600));
}

// Holds the lock of a memory file as its owner can: by a write from a page whose fault is not resolved until the object
// is destroyed.
class LockHolder {
 public:
  explicit LockHolder(int file) : page_fault_(static_cast<int>(syscall(SYS_userfaultfd, O_CLOEXEC | O_NONBLOCK))) {
    const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    uffdio_api api{.api = UFFD_API, .features = 0, .ioctls = 0};
    uffdio_register missing{
        .range = {reinterpret_cast<std::uintptr_t>(page), size}, .mode = UFFDIO_REGISTER_MODE_MISSING, .ioctls = 0};
    if (ioctl(page_fault_.get(), UFFDIO_API, &api) != 0) return;
    EXPECT_EQ(ioctl(page_fault_.get(), UFFDIO_REGISTER, &missing), 0);
    writer_ = std::jthread([file, page] { EXPECT_EQ(write(file, page, 4), 4); });
    EXPECT_TRUE(readable(page_fault_.get()));
  }
  bool holds() const { return writer_.joinable(); }

 private:
  std::jthread writer_;
  UniqueFd page_fault_;  // closed first, which lets the writer end
};

// A file of a user-space file system. It can be opened, but each close waits until the object is destroyed.
class StuckFile {
 public:
  explicit StuckFile(const std::string& path) : path_(path), device_(open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
    write_file(path_, "");
    const std::string options = "fd=" + std::to_string(device_.get()) + ",rootmode=100666,user_id=0,group_id=0";
    if (mount("stuck", path_.c_str(), "fuse", 0, options.c_str()) != 0) return;
    server_ = std::jthread([this] { serve(); });
    file_.reset(open(path_.c_str(), O_RDWR | O_CLOEXEC));
  }
  StuckFile(const StuckFile&) = delete;
  StuckFile& operator=(const StuckFile&) = delete;
  ~StuckFile() { umount2(path_.c_str(), MNT_FORCE | MNT_DETACH); }
  int fd() const { return file_.get(); }

 private:
  template <typename Body>
  void answer(std::uint64_t unique, const Body& body) const {
    const struct {
      fuse_out_header head;
      Body body;
    } out{{.len = sizeof(out), .error = 0, .unique = unique}, body};
    EXPECT_EQ(write(device_.get(), &out, sizeof(out)), static_cast<ssize_t>(sizeof(out)));
  }
  // The start and the opening are answered, nothing else.
  void serve() const {
    fuse_init_out version{};
    version.major = FUSE_KERNEL_VERSION;
    version.minor = FUSE_KERNEL_MINOR_VERSION;
    alignas(fuse_in_header) char buffer[FUSE_MIN_READ_BUFFER * 20];
    while (read(device_.get(), buffer, sizeof(buffer)) > 0 || errno != ENODEV) {
      const auto* const in = reinterpret_cast<const fuse_in_header*>(buffer);
      if (in->opcode == FUSE_INIT) answer(in->unique, version);
      if (in->opcode == FUSE_OPEN) answer(in->unique, fuse_open_out{});
    }
  }

  const std::string path_;
  const UniqueFd device_;
  std::jthread server_;
  UniqueFd file_;
};

// How a connection may end: without a reply, with a reply, either way (a race), or only when the peer leaves.
enum class End { refused, served, either, open };

const struct {
  const char* what;
  std::function<void(Peer&)> does;
  End end = End::refused;
  // The emulator takes four descriptors without MSG_CTRUNC, cannot map 1 TiB, and has threads as closers, whose waits
  // nothing ends.
  bool is_not_emulated = false;
} kRows[] = {
    {"half a record, then silence", [](Peer& p) { p.bytes(std::string(129, '\x08')); }},
    {"no descriptor, then silence", [](Peer& p) { p.request("test"); }},
    {"a byte without a descriptor", [](Peer& p) { p.request("test").bytes("x"); }},
    {"withholds the second descriptor", [](Peer& p) { p.request("test", 255).fds({kBody}); }},
    {"no memory file, and a second descriptor",
     [](Peer& p) { p.request("test", 1).fds({STDERR_FILENO}).fds({kBody}); }},
    {"every flag there is", [](Peer& p) { p.request("test", 255).fds({kBody}).fds({kBody}); }, End::served},
    {"every flag but the one", [](Peer& p) { p.request("test", 254).fds({kBody}); }, End::served},
    {"two descriptors in one message", [](Peer& p) { p.request("test").fds(std::vector<int>(2, kBody)); }, End::served},
    {"four in one message", [](Peer& p) { p.request("test").fds(std::vector<int>(4, kBody)); }, End::refused, true},
    {"two requests", [](Peer& p) { p.request("test").fds({kBody}).request("test").fds({kBody}); }, End::either},
    {"a request after its reply",
     [](Peer& p) {
       EXPECT_TRUE(p.request("test").fds({kBody}).next() == KS_DIR_ASK && p.next() == KS_DIR_DONE);
       p.request("test").fds({kBody});
     }},
    {"a name without an end", [](Peer& p) { p.request(kEndless).fds({kBody}); }, End::open},
    {"reads nothing",
     [](Peer& p) {
       shutdown(p.fd(), SHUT_RD);
       p.request("test").fds({kBody});
     },
     End::either},
    {"empty file", hands_over(odd_file(0, 0)), End::served},
    {"sealable file", [](Peer& p) { p.request("test").fds({kSealable}); }, End::served},
    // With a sanitizer there may be no address space for it.
    {"1 TiB of nothing", hands_over(odd_file(off_t{1} << 40, 0)), End::refused, true},
    {"no shrinking", hands_over(odd_file(4, F_SEAL_SHRINK))},
    {"no growing", hands_over(odd_file(4, F_SEAL_GROW))},
    {"no writing", hands_over(odd_file(4, F_SEAL_WRITE))},
    {"no writing from now on, empty", hands_over(odd_file(0, F_SEAL_FUTURE_WRITE))},
    {"read-only file, empty", hands_over("/proc/self/fd/" + std::to_string(kEmptyFile.get()), O_RDONLY)},
    {"file on disk", hands_over("/usr/lib/odd", O_RDWR | O_CREAT)},
    {"file of another file system in memory", hands_over("/dev/shm/odd", O_RDWR | O_CREAT)},
    {"the memory file attached to the request and a byte",
     [](Peer& p) { p.message(record_of(KS_DIR_REQUEST, 0, "test") + "x", {kBody}); }},
    {"a socket that lingers, attached to the request",
     [](Peer& p) { p.message(record_of(KS_DIR_REQUEST, 0, "test"), {Lingering()}).fds({kBody}); }, End::served, true},
    {"a socket that lingers, with an urgent byte",
     [](Peer& p) { p.message("x", {Lingering()}, MSG_OOB).request("test").fds({kBody}); }, End::refused, true},
    {"sockets that linger, instead of a request",
     [](Peer& p) {
       const Lingering sockets[5];
       p.message("x", {std::begin(sockets), std::end(sockets)});
     },
     End::refused, true},
    {"an unknown request, and a socket that lingers behind it",
     [](Peer& p) { p.request("no such command").fds({kBody}).fds({Lingering()}); }, End::either, true},
    {"a socket that lingers", [](Peer& p) { p.request("test").fds({Lingering()}); }, End::refused, true},
    {"a socket that lingers, as standard output", [](Peer& p) { p.request("test", 1).fds({kBody}).fds({Lingering()}); },
     End::served, true},
    {"/dev/null", hands_over("/dev/null", O_RDWR)},
};

void expect_end(const Peer& peer, End end) {
  if (end == End::open) {
    EXPECT_TRUE(peer.next() == KS_DIR_ASK && !readable(peer.fd(), 50));
    return;
  }
  const std::vector<int> rest = peer.rest();
  const bool served = rest.size() > 1 && rest[rest.size() - 2] == KS_DIR_DONE;
  EXPECT_TRUE(rest.back() == 0 && (end == End::either || served == (end == End::served)))
      << testing::PrintToString(rest);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepsWhatIsFreed = true;
#else
constexpr bool kKeepsWhatIsFreed = false;
#endif

class Hostile : public DaemonTest {
 protected:
  static constexpr int kResident = 1, kData = 5;
  // A size of the daemon in bytes, by its place in the statm file.
  static long size(int place) {
    std::ifstream sizes("/proc/" + std::to_string(daemon_->pid()) + "/statm");
    long pages = 0;
    for (int i = 0; i <= place; ++i) sizes >> pages;
    return pages * sysconf(_SC_PAGESIZE);
  }
};

TEST_F(Hostile, APeerThatBreaksTheRulesCostsItsOwnConnectionOnly) {
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    if (emulated() && row.is_not_emulated) continue;
    {
      Peer peers[] = {Peer(kMainSocket), Peer(kMailSocket)};
      for (Peer& peer : peers) row.does(peer);
      for (const Target& at : kTargets) EXPECT_EQ(call(at.name, "test").status, KS_STATUS_OK) << "meanwhile";
      for (const Peer& peer : peers) expect_end(peer, row.end);
    }
    expect_as_before();
    ASSERT_FALSE(HasFailure());  // the following rows would time out
  }
  for (int type = 0; type < 512; ++type) {
    SCOPED_TRACE(type);
    Peer peer(kTargets[type / 256].path);
    peer.record(type, 0, "test").fds({kBody});
    expect_end(peer, type % 256 == KS_DIR_REQUEST ? End::served : End::refused);
  }
  if (emulated()) GTEST_SKIP() << "without the rows that the emulator cannot run";
}

// Clients may send anything before they are asked, and even before they are accepted.
TEST_F(Hostile, UnreadDescriptorsOfAClientDelayNoOtherClient) {
  if (emulated()) GTEST_SKIP() << "closers are threads here";
  for (const Target& at : kTargets) {
    std::vector<Peer> silent;
    for (int i = 0; i < at.workers; ++i) EXPECT_EQ(silent.emplace_back(at.path).next(), KS_DIR_ASK);
    for (int i = 0; i < 3; ++i) Peer(at.path).request("test").fds({kBody}).fds({Lingering()});
    silent.clear();
    EXPECT_EQ(call(at.name, "test").status, KS_STATUS_OK);
  }
}

void as_another_user(const std::function<void()>& act) {
  std::thread([&] {
    EXPECT_EQ(syscall(SYS_setresuid, kOtherUser, kOtherUser, kOtherUser), 0);  // this thread's ids
    act();
  }).join();
}

// Each holds the thread that writes its reply; 16 are what one user may hold.
TEST_F(Hostile, ClientsThatLockTheirFilesAreHungUpOnAndTheirUserRefused) {
  const UniqueFd body = memory_file("body");
  const long before = size(kData);
  std::optional<LockHolder> holder(body.get());
  if (!holder->holds()) GTEST_SKIP() << "no page faults for user space here";
  as_another_user([&] {
    std::vector<Peer> holding;
    for (int i = 0; i < 16; ++i) {
      holding.emplace_back(i < 6 ? kMainSocket : kMailSocket).request("test").fds({body.get()});
    }
    for (const Peer& peer : holding) expect_end(peer, End::refused);
    EXPECT_EQ(call(kMail, "test", std::nullopt, STDERR_FILENO).status, KS_STATUS_BROKEN);
  });
  for (const Target& at : kTargets) EXPECT_EQ(call(at.name, "test").status, KS_STATUS_OK) << "another user";
  holder.reset();
  as_another_user([] { EXPECT_TRUE(eventually([] { return call(kMail, "test").status == KS_STATUS_OK; })); });
  // The C library keeps at most 40 MiB of free stacks.
  EXPECT_TRUE(kKeepsWhatIsFreed || eventually([&] { return size(kData) <= before + (64 << 20); }));
}

// Without a child: it would hold copies of the file.
int processes_called(const std::string& name) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    count += read_file(entry.path() / "comm") == name + "\n" ? 1 : 0;
  }
  return count;
}

// Every descriptor of such a message is a close that waits.
TEST_F(Hostile, AUserWhoseDescriptorsCannotBeClosedIsNotAskedForMore) {
  if (emulated()) GTEST_SKIP() << "closers are threads here";
  const StuckFile file("/tmp/stuck");
  if (file.fd() < 0) GTEST_SKIP() << "no file systems in user space here";
  const std::vector<int> many(100, file.fd());
  as_another_user([&] {
    for (const Target& at : kTargets) {
      for (int i = 0; i < 3; ++i) {
        Peer peer(at.path);
        peer.message(record_of(KS_DIR_REQUEST, 0, "test"), many).fds({kBody});
        expect_end(peer, End::either);
      }
      for (int i = 0; i < 200; ++i) EXPECT_EQ(Peer(at.path).bytes("unasked").next(), 0);
    }
  });
  EXPECT_TRUE(eventually([] { return open_descriptors(daemon_->pid()).size() < 300; }));
  EXPECT_TRUE(eventually([] { return processes_called("ks-close") <= 16; }));  // 8 of which empty connections
  for (const Target& at : kTargets) EXPECT_EQ(call(at.name, "test").status, KS_STATUS_OK) << "another user";
}

TEST_F(Hostile, AProgramThatPutsAPipeInPlaceOfItsOutputHoldsNoWorker) {
  const char* body = R"({"command":["/bin/sh","-c","exec 3>&1; f=$(readlink /proc/self/fd/3); rm $f; mkfifo $f"]})";
  EXPECT_EQ(call(kMain, "exec_cli", body).json()["result"], "");
}

TEST_F(Hostile, AFileThatShrinksAndGrowsWhileItIsReadDoesNoHarm) {
  const std::string text(1 << 20, '[');
  for (const Target& at : kTargets) {
    const UniqueFd file = memory_file("");
    const std::jthread owner([&](const std::stop_token& done) {
      for (off_t size = 0; !done.stop_requested(); size = (size + 4099) % 65536) {
        EXPECT_GT(pwrite(file.get(), text.data(), text.size(), size), 0);
        EXPECT_EQ(ftruncate(file.get(), size), 0);
      }
    });
    for (int i = 0; i < 200; ++i) expect_end(Peer(at.path).request(at.reads_body).fds({file.get()}), End::either);
  }
}

// As many silent clients as a service accepts.
std::vector<Peer> silent_crowd(const Target& at) {
  std::vector<Peer> crowd;
  for (int i = 0; i < 1000 + at.workers; ++i) {
    crowd.emplace_back(at.path);
    EXPECT_TRUE(i >= at.workers || crowd.back().next() == KS_DIR_ASK);
  }
  EXPECT_EQ(call(at.name, "test").status, KS_STATUS_BUSY);
  return crowd;
}

// ---- Bodies -----------------------------------------------------------------------------------------------

std::string repeated(const std::string& text, std::size_t count) {
  std::string all;
  for (all.reserve(text.size() * count); count > 0; --count) all += text;
  return all;
}

// Objects in which every parameter of any command has each of these values in turn.
std::string object_of(std::initializer_list<std::string> values) {
  static const std::set<std::string> names = [] {
    std::set<std::string> words;  // that the page of all commands sets in code
    std::istringstream page(read_file(COMMANDS_PAGE));
    for (std::string word; std::getline(page, word, '`');) {
      if (word.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == word.npos) words.insert(word);
    }
    EXPECT_TRUE(words.contains("share_name")) << COMMANDS_PAGE;
    return words;
  }();
  std::string text;
  for (const std::string& value : values) {
    for (const std::string& name : names) text += (text.empty() ? "{\"" : ",\"") + name + "\":" + value;
  }
  return text + "}";
}

// With descriptor numbers above 1023, which select cannot handle: clients of the other service occupy the lower ones.
TEST_F(Hostile, EveryCommandAnswersOrHangsUpOnAnyBody) {
  limit_descriptors(4096);
  const std::string deep(100'000, '[');
  std::vector<std::string> bad = {deep, deep + std::string(deep.size(), ']'), repeated("{\"a\":", 100'000)};
  for (const char* text : {"\xff\xfe\xc0\x80", "{\"a", "/*", "[]", "-1", "true", "\"x\""}) bad.push_back(text);
  bad.push_back(std::string("\0{}", 3));
  bad.push_back(object_of({"1"}).insert(20, 1, '\0'));
  std::vector<std::string> odd = {"null", "{}", object_of({"1"}) + "]", object_of({"1", "[]", "\"x\"", "{}", "1"}),
                                  object_of({"\"" + std::string(9999, 'A') + "\""})};
  for (const char* value :
       {"1e999", "-1e999", "99999999999999999999", "2147483648", "-2147483649", "0.5", "null", "true", "[]", "{}",
        "[\"\xff\"]", R"("\u0000")", R"("\ud800")", "\"\xff\xc0\"", R"("../../x y;$(z)'\"%s\n")"}) {
    odd.push_back(object_of({value}));
    for (const std::string action : {"add", "delete", "get_status"}) {
      const std::string last = R"(,"auth_token":"t","action":")" + action + R"(","rule_list":[)" + object_of({value});
      odd.push_back(object_of({value}).insert(object_of({value}).size() - 1, last + "]"));
    }
  }
  for (const Target& at : kTargets) {
    const std::vector<Peer> crowd = silent_crowd(kTargets[&at == kTargets ? 1 : 0]);
    const auto descriptors = open_descriptors(daemon_->pid());
    EXPECT_GT(descriptors.rbegin()->first, 1023);
    // The low descriptor numbers that some libraries need are free.
    EXPECT_LT(std::distance(descriptors.begin(), descriptors.lower_bound(1024)), 100);
    for (const CommandRow& row : at.commands()) {
      const bool reads = call(at.name, row.name).status != KS_STATUS_OK;
      const auto expect_harmless = [&](const std::string& body, bool may_succeed) {
        const Reply reply = call(at.name, row.name, body, kBody);
        const bool told = reply.status == KS_STATUS_OK && reply.json().isObject();
        const bool cut_off = reply.status == KS_STATUS_BROKEN && reply.text.empty();
        EXPECT_TRUE(cut_off || (told && (may_succeed || reply.json().isMember("error_msg"))))
            << row.name << ' ' << body.substr(0, 99) << " -> " << reply.status << ' ' << reply.text;
      };
      for (const std::string& body : bad) expect_harmless(body, !reads);
      if (!reads) continue;
      for (const std::string& body : odd) expect_harmless(body, true);
      EXPECT_TRUE(eventually([&] { return open_descriptors(daemon_->pid()).size() <= descriptors.size(); }));
    }
  }
  // The output of tools that failed is kept, on purpose.
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    if (entry.path().filename().string().starts_with("file")) std::filesystem::remove(entry);
  }
}

TEST_F(Hostile, ALargeBodyStaysWithinItsMemoryLimitAndItsMemoryIsReturned) {
  const std::string values = "[" + repeated("0,", 1'500'000), text(64 << 20, '1');
  const struct {
    const char* what;
    std::string body;
    const char *reply, *log;
  } rows[] = {
      {"values beyond the budget", values + repeated("0,", 600'000) + "0]", "input error", "[json_parse] a body of "},
      {"values within it", "{\"a\":" + values + "0]}", "paser fail", ""},
      {"values within it, of no member", values + "0]", "", "[run_handler] update_ip_ban_list ended without a reply"},
      {"no JSON", values, "input error", "[nos_update_ip_ban_list_handler] ks_io input fail."},
      {"a long text", "{\"ip_list\":\"" + text + "\"}", "{\"result\":0}", ""},
  };
  const long idle = size(kResident);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::size_t said = new_log().size();
    EXPECT_THAT(call(kMain, "update_ip_ban_list", row.body).text, testing::HasSubstr(row.reply));
    EXPECT_THAT(without_numbers(new_log().substr(said)), testing::StartsWith(row.log));
    // A sanitizer keeps what is freed, and an emulator its own memory.
    const long now = size(kResident);
    EXPECT_TRUE(kKeepsWhatIsFreed || emulated() || now <= idle + (4 << 20)) << idle << " -> " << now;
  }
}

// The closer shares all descriptors of the daemon and outlives it.
TEST(End, HangsUpOnClientsWhileACloserWaits) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "closers are threads here";
#endif
  if (emulated()) GTEST_SKIP() << "closers are threads here";
  for (const int signal : {SIGSEGV, SIGTERM}) {
    SCOPED_TRACE(signal);
    Daemon daemon;
    const StuckFile file("/tmp/stuck");  // from now on no child, whose copy could not be closed
    if (file.fd() < 0) GTEST_SKIP() << "no file systems in user space here";
    expect_end(Peer(kMailSocket).request("test").fds({file.fd()}), End::refused);
    EXPECT_TRUE(eventually([] { return processes_called("ks-close") > 0; }));
    std::vector<Peer> clients;
    for (const Target& at : kTargets) {
      for (int i = 0; i <= at.workers; ++i) clients.emplace_back(at.path);
    }
    EXPECT_TRUE(eventually([&] { return open_descriptors(daemon.pid()).rbegin()->first > 1024; })) << "two wait";
    kill(daemon.pid(), signal);
    daemon.wait();
    for (const Peer& client : clients) EXPECT_EQ(client.rest().back(), 0);
    for (const Target& at : kTargets) EXPECT_EQ(call(at.name, "test").status, KS_STATUS_CONNECT);
    EXPECT_EQ(access(kMailSocket, F_OK), 0);
    EXPECT_EQ(access(kMainSocket, F_OK), signal == SIGSEGV ? 0 : -1) << "tells a crash from a stop";
  }
}

}  // namespace
