// Dispatch as clients see it: names, tests, unknown commands, exec_cli, the client's descriptor as standard
// output.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>

#include "harness.h"
#include "service/ks.h"

namespace {

class Dispatch : public DaemonTest {};

// A request that stays unanswered, and its client, which may leave.
class Unanswered {
 public:
  Unanswered(const char* service, const char* request, int extra_fd = -1) {
    EXPECT_EQ(ks_epoll_call(epoll_, service, request, io_, extra_fd), KS_STATUS_OK);
    int status = -1;
    EXPECT_EQ(ks_epoll_perform(epoll_, 10000, &status), nullptr);  // asked; the request goes out
  }
  Unanswered(const Unanswered&) = delete;
  Unanswered& operator=(const Unanswered&) = delete;
  ~Unanswered() {
    ks_epoll_cancel(epoll_, io_);
    ks_epoll_free(epoll_);
    ks_io_free(io_);
  }
  // What comes within `ms`: a status, or KS_STATUS_TIMEOUT for nothing.
  int status_within(std::uint32_t ms) {
    int status = -1;
    ks_epoll_perform(epoll_, ms, &status);
    return status;
  }

 private:
  ks_epoll* epoll_ = ks_epoll_create();
  ks_io* io_ = ks_io_create();
};

TEST_F(Dispatch, BothTestsAnswerWhateverTheBody) {
  for (const auto& body : {std::optional<std::string>(), std::optional<std::string>("no JSON")}) {
    EXPECT_EQ(call(kMain, "test", body).text,
              "{\"handler\":\"test_handler\",\"service\":\"VistalServer-vistalprod\"}\n");
    EXPECT_EQ(call(kMail, "test", body).text,
              "{\"handler\":\"nos_test_sendmail_srv_handler\",\"service\":\"VistalServer_send_mail-"
              "vistalprod\"}\n");
  }
}

TEST_F(Dispatch, OnlyTheExactNameIsAnswered) {
  const int extra = memfd_create("extra", MFD_CLOEXEC);
  std::vector<std::unique_ptr<Unanswered>> waiting;
  for (const char* name : {"TEST", "test ", "", "sendmail"}) {
    waiting.push_back(std::make_unique<Unanswered>(kMain, name, extra));
  }
  // Their workers are free again, and their clients still connected.
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  for (const auto& client : waiting) EXPECT_EQ(client->status_within(0), KS_STATUS_TIMEOUT);
  close(extra);
}

TEST_F(Dispatch, TenThousandUnknownRequestsLeaveNothingBehind) {
  for (int i = 0; i < 10000; ++i) Unanswered(kMain, "no such command");
}

TEST_F(Dispatch, AClientThatKeepsUnknownRequestsOpenDoesNotExhaustTheDaemon) {
  std::vector<std::unique_ptr<Unanswered>> waiting;
  for (int i = 0; i < 400; ++i) waiting.push_back(std::make_unique<Unanswered>(kMain, "no such command"));
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  EXPECT_EQ(waiting.front()->status_within(10000), KS_STATUS_BROKEN);
  EXPECT_EQ(waiting.back()->status_within(0), KS_STATUS_TIMEOUT);
}

TEST_F(Dispatch, ExecCliReturnsWhatTheProgramPrints) {
  const std::string head = "{\"error_code\":0,\"handler\":\"exec_cli_handler\",\"result\":";
  const std::string tail = ",\"service\":\"VistalServer-vistalprod\"}\n";
  const std::string refused =
      "{\"error_code\":-1,\"error_msg\":\"Read command fail.\",\"handler\":\"exec_cli_handler\"" + tail;
  const struct {
    const char* body;
    std::string reply;
  } rows[] = {
      {R"({"command":["/bin/echo","hi"]})", head + "\"hi\\n\"" + tail},
      {R"({"command":["/bin/echo",5,-1.5,true,null,"x y"]})", head + "\"5 -1.5 true  x y\\n\"" + tail},
      {R"({"command":["/bin/sh","-c","echo $0; echo no >&2; exit 3"]})", head + "\"sh\\n\"" + tail},
      {R"({"command":["/usr/bin/env"]})", head + "\"\"" + tail},
      {R"({"command":["/usr/bin/printf","a\\0b"]})", head + "\"a\"" + tail},
      {R"({"command":["/no/such/program"]})", head + "\"\"" + tail},
      {R"({"command":[""]})", head + "\"\"" + tail},
      {R"({"command":[]})", refused},
      {R"({"command":"/bin/echo"})", refused},
      {R"({"command":["/bin/echo",["x"]]})", refused},
      {R"({"command":[{}]})", refused},
      {R"({})", refused},
      {R"([])", refused},
      {R"(command)", refused},
  };
  for (const auto& row : rows) EXPECT_EQ(call(kMain, "exec_cli", row.body).text, row.reply) << row.body;
  // Entry 0 is the base name; every other argument is cut to 255 bytes.
  const StandIn tool("/sbin/share_guard");
  call(kMain, "exec_cli", R"({"command":["/sbin/share_guard",")" + std::string(300, 'y') + "\"]}");
  ASSERT_EQ(tool.calls().size(), 1u);
  EXPECT_EQ(tool.calls()[0].argv, (std::vector<std::string>{"share_guard", std::string(255, 'y')}));
  tool.plays("bytes 10485760\n");
  EXPECT_EQ(
      call(kMain, "exec_cli", R"({"command":["/sbin/share_guard"]})").json()["result"].asString().size(),
      5120u);
  tool.forget();
}

TEST_F(Dispatch, StandardOutputIsTheClientsDescriptorAndThenTheNullDevice) {
  const std::string output = "/proc/" + std::to_string(daemon().pid()) + "/fd/1";
  char target[64] = {};
  ASSERT_GT(readlink(output.c_str(), target, sizeof(target) - 1), 0);
  EXPECT_STREQ(target, "/dev/null");
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const StandIn tool("/sbin/share_guard");
  tool.plays("delay 200\n");
  EXPECT_EQ(call(kMain, "system_call_share_guard_remove", R"({"share_name":"x"})", pipe_ends[1]).status,
            KS_STATUS_OK);
  close(pipe_ends[1]);
  // Nobody holds the writing end any more: neither as standard output nor under its own number.
  char byte;
  EXPECT_EQ(read(pipe_ends[0], &byte, 1), 0);
  close(pipe_ends[0]);
  tool.forget();
}

TEST_F(Dispatch, AClientThatLeavesDuringItsRequestCostsNothing) {
  const StandIn tool("/etc/init.d/vistalserver.sh");
  tool.plays("delay 100\n");
  {
    const Unanswered client(kMain, "system_call_share_folder_renew");
    EXPECT_TRUE(eventually([&] { return tool.calls().size() == 1; }));
  }
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  tool.forget();
}

// A program that outlives its request and holds copies of the daemon's sockets does not keep the client
// waiting.
TEST_F(Dispatch, ALingeringProgramDoesNotHoldTheReply) {
  const Reply reply =
      call(kMain, "exec_cli", R"({"command":["/bin/sh","-c","/bin/sleep 30 & /bin/echo started"]})");
  EXPECT_EQ(reply.status, KS_STATUS_OK);
  EXPECT_EQ(reply.json()["result"].asString(), "started\n");
}

}  // namespace
