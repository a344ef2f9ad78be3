// The daemon when system calls fail: all calls of one kind fail until the test ends the fault.
#include "support/faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <sstream>

#include "harness.h"

namespace {

constexpr char kErrors[] = "/tmp/daemon.errors";

// The table of faults that the daemon reads; mapped until this process ends.
fault* faults() {
  static fault* const table = [] {
    constexpr std::size_t kSize = sizeof(fault) * FAULT_KINDS;
    const UniqueFd file(open(FAULTS_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(ftruncate(file.get(), kSize), 0);
    return static_cast<fault*>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
  }();
  return table;
}

// Calls of one kind fail while the object lives.
class Fault {
 public:
  Fault(fault_kind kind, int error, int left = -1, int skip = 0) : fault_(faults()[kind]) {
    // This sanitizer has a thread of its own, from the very start.
    if (kind == FAULT_PTHREAD_CREATE && left > 0) skip += dlsym(RTLD_DEFAULT, "__tsan_init") != nullptr ? 1 : 0;
    fault_ = {.error = error, .skip = skip, .left = 0, .hits = 0};
    __atomic_store_n(&fault_.left, left, __ATOMIC_RELEASE);
  }
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;
  ~Fault() { __atomic_store_n(&fault_.left, 0, __ATOMIC_RELEASE); }
  int hits() const { return __atomic_load_n(&fault_.hits, __ATOMIC_ACQUIRE); }

 private:
  fault& fault_;
};

// Starts the daemon with calls that can fail. A sanitizer's runtime, which this program has, too, must be loaded first.
std::string faulty_daemon() {
  faults();
  std::string preload = FAULTS_LIBRARY;
  for (const char* entry : {"__asan_init", "__tsan_init"}) {
    Dl_info runtime{};
    if (dladdr(dlsym(RTLD_DEFAULT, entry), &runtime) != 0) preload = runtime.dli_fname + (":" + preload);
  }
  return "env LD_PRELOAD=" + preload + " vistalprod 2>" + kErrors;
}

// The processor time that the daemon has taken, in ticks of 10 ms.
long ticks_of(pid_t process) {
  std::istringstream stat(read_file("/proc/" + std::to_string(process) + "/stat"));
  std::string field;
  for (int i = 1; i < 14; ++i) stat >> field;
  long user = 0, system = 0;
  stat >> user >> system;
  return user + system;
}

class Faults : public DaemonTest {
 protected:
  static void SetUpTestSuite() { daemon_ = std::make_unique<Daemon>(faulty_daemon()); }
  static bool at_rest() {
    const long before = ticks_of(daemon_->pid());
    usleep(100'000);
    return ticks_of(daemon_->pid()) <= before + 1;
  }
};

constexpr char kEcho[] = R"({"command":["/bin/echo","on"]})";
constexpr char kShare[] = R"({"share_name":"s"})";
constexpr char kMessage[] = R"({"user":"","pwd":"","config_file":"c","content_file":"m"})";

const struct {
  fault_kind kind;
  int error;
  const char* service;
  const char* request;
  const char* body;
  const char* reply;  // a part of it; null when the client is hung up on instead
} kRows[] = {
    // A failed fork looks like a program that succeeds and prints nothing.
    {FAULT_FORK, EAGAIN, kMain, "exec_cli", kEcho, R"("error_code":0,"handler":"exec_cli_handler","result":"")"},
    {FAULT_FORK, EAGAIN, kMain, "get_vpd_channel", "", "nos_get_vpd_channel_handler fail"},
    {FAULT_FORK, EAGAIN, kMail, "sendmail", kMessage, R"({"result":0})"},
    {FAULT_OPEN, ENOSPC, kMain, "exec_cli", kEcho, R"("error_code":0,"handler":"exec_cli_handler","result":"")"},
    {FAULT_OPEN, EACCES, kMain, "system_call_share_guard_add", kShare, "nos_system_call_share_guard_add_handler fail"},
    {FAULT_OPEN, EACCES, kMain, "update_ip_ban_list", R"({"ip_list":"1.2.3.4"})",
     "nos_update_ip_ban_list_handler fail"},
    {FAULT_OPEN, ENOSPC, kMain, "read_hwsn", "", "nos_read_hwsn_handler fail"},
    {FAULT_OPEN, ENOSPC, kMail, "sendmail", kMessage, R"({"result":-1})"},
    {FAULT_PTHREAD_CREATE, EAGAIN, kMain, "test", "", nullptr},
    {FAULT_EPOLL_ADD, ENOMEM, kMail, "test", "", nullptr},
    // Both workers are handed a client without its descriptor, and must not wait for it.
    {FAULT_SENDMSG, ETOOMANYREFS, kMain, "test", "", nullptr},
    {FAULT_SENDMSG, ETOOMANYREFS, kMain, "test", "", nullptr},
};

TEST_F(Faults, ARequestThatAFaultAffectsGetsAFailureReplyOrIsHungUpOn) {
  write_file("/tmp/vistalsurveillance_sendmail/m", "");
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.request) + " under fault " + std::to_string(row.kind));
    const std::optional<std::string> body = *row.body != '\0' ? std::optional(row.body) : std::nullopt;
    {
      const Fault fault(row.kind, row.error);
      const Reply reply = call(row.service, row.request, body);
      EXPECT_EQ(reply.status, row.reply != nullptr ? KS_STATUS_OK : KS_STATUS_BROKEN) << reply.text;
      EXPECT_THAT(reply.text, testing::HasSubstr(row.reply != nullptr ? row.reply : ""));
      EXPECT_GT(fault.hits(), 0);
      EXPECT_TRUE(eventually(at_rest));
    }
    expect_as_before();
  }
}

TEST_F(Faults, AClientThatCannotBeAcceptedIsServedWhenTheFaultIsOver) {
  for (const int error : {EMFILE, ENFILE, ECONNABORTED, ENOMEM}) {
    const Fault once(FAULT_ACCEPT, error, 1);
    EXPECT_EQ(call(kMail, "test").status, KS_STATUS_OK) << error;
    std::future<Reply> waiting;
    {
      const Fault lasting(FAULT_ACCEPT, error);
      waiting = std::async(std::launch::async, [] { return call(kMain, "test"); });
      EXPECT_TRUE(eventually([&] { return lasting.hits() > 1; }));
      EXPECT_TRUE(error == ECONNABORTED || eventually(at_rest)) << "it spins meanwhile";
    }
    EXPECT_EQ(waiting.get().status, KS_STATUS_OK);
    EXPECT_TRUE(eventually(at_rest));
  }
}

// A client that has to wait is watched.
TEST_F(Faults, AClientThatCannotBeWatchedIsHungUpOn) {
  std::vector<Peer> silent;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(silent.emplace_back(kMainSocket).next(), KS_DIR_ASK);
  const Fault fault(FAULT_EPOLL_ADD, ENOSPC);
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_BROKEN);
  EXPECT_TRUE(eventually(at_rest));
}

// An abort ends in SIGKILL; other tests check what it writes.
TEST(FaultsAtStart, AFaultAtStartAbortsEndsOrIsSurvived) {
  const struct {
    fault_kind kind;
    int skip, left;  // calls that succeed, that then fail
    int end;         // 0: it serves and stops; an exit status; or minus the signal
  } rows[] = {
      {FAULT_FORK, 0, -1, 255},
      {FAULT_OPEN, 0, -1, 255},
      {FAULT_PTHREAD_CREATE, 0, 1, 254},
      {FAULT_PTHREAD_CREATE, 1, 1, 0},
      {FAULT_PTHREAD_CREATE, 3, 1, 0},  // without the main service
      // Threads created before: signals, two queues, two services, and the first worker of either service.
      {FAULT_PTHREAD_CREATE, 7, 1, -SIGKILL},
      {FAULT_EPOLL_ADD, 0, 1, -SIGKILL},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.kind) + " after " + std::to_string(row.skip));
    const Fault fault(row.kind, EAGAIN, row.left, row.skip);
    Process daemon(faulty_daemon());
    if (row.end == 0) {
      for (const char* service : {kMail, row.skip == 3 ? kMail : kMain}) {
        EXPECT_TRUE(eventually([&] { return call(service, "test").status == KS_STATUS_OK; }));
      }
      kill(daemon.pid(), SIGTERM);
    }
    const int status = daemon.wait();
    EXPECT_EQ(WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status), row.end);
    EXPECT_THAT(read_file(kErrors), testing::HasSubstr(row.end == 255 ? "] get Install_Path fail." : ""));
  }
}

}  // namespace
