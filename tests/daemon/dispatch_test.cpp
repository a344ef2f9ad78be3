// Dispatch as clients see it: names, unknown commands, exec_cli, the client's descriptor as standard output.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "harness.h"

namespace {

class Dispatch : public DaemonTest {};

// A request without a reply; the destructor disconnects its client.
Peer unanswered(const char* request, int extra_fd) {
  Peer client{std::string(kMainSocket)};
  EXPECT_EQ(client.next(), KS_DIR_ASK);
  client.request(request, 1).fds({memory_file("").get()}).fds({extra_fd});
  return client;
}

TEST_F(Dispatch, OnlyTheExactNameIsAnswered) {
  std::vector<Peer> waiting;
  for (const char* name : {"TEST", "test ", "", "sendmail"}) waiting.push_back(unanswered(name, 0));
  // Their workers are free again, and their clients still connected.
  EXPECT_EQ(call(kMain, "test").text, "{\"handler\":\"test_handler\",\"service\":\"VistalServer-vistalprod\"}\n");
  EXPECT_EQ(call(kMail, "test", "no JSON").json()["handler"], "nos_test_sendmail_srv_handler");
  for (const Peer& client : waiting) EXPECT_FALSE(readable(client.fd(), 0));
}

TEST_F(Dispatch, UnknownRequestsKeepOnlyTheirConnectionsAndNotTooMany) {
  for (int i = 0; i < 5'000; ++i) unanswered("no such command", 0);
  std::vector<Peer> waiting;
  for (int i = 0; i < 400; ++i) waiting.push_back(unanswered("no such command", 0));
  EXPECT_EQ(call(kMain, "test").status, KS_STATUS_OK);
  EXPECT_EQ(waiting.front().next(), 0) << "the oldest";
  EXPECT_FALSE(readable(waiting.back().fd(), 50));
  const auto is_memory_file = [](const auto& open) { return open.second.starts_with("/memfd:"); };
  EXPECT_TRUE(eventually([&] { return std::ranges::none_of(open_descriptors(daemon_->pid()), is_memory_file); }));
}

TEST_F(Dispatch, AProgramInheritsNothingOfOtherRequests) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd reading(ends[0]), writing(ends[1]);
  Peer other{std::string(kMainSocket)};
  other.request("exec_cli", 1).fds({memory_file(R"({"command":["/bin/sleep","1"]})").get()}).fds({writing.get()});
  EXPECT_TRUE(eventually([] { return Process("pgrep -x sleep >/dev/null").wait() == 0; }));
  const std::string list = call(kMain, "exec_cli", R"({"command":["/bin/ls","-l","/proc/self/fd"]})").text;
  EXPECT_THAT(list, testing::Not(testing::AnyOf(testing::HasSubstr("memfd:"),
                                                testing::HasSubstr(open_descriptors()[writing.get()]))));
  EXPECT_EQ(other.rest(), (std::vector<int>{KS_DIR_ASK, KS_DIR_DONE, 0}));
}

TEST_F(Dispatch, ExecCliReturnsWhatTheProgramPrints) {
  const std::string tail = ",\"service\":\"VistalServer-vistalprod\"}\n";
  const auto printed = [&](const std::string& text) {
    return "{\"error_code\":0,\"handler\":\"exec_cli_handler\",\"result\":\"" + text + "\"" + tail;
  };
  const std::string x300(300, 'x');
  const std::pair<std::string, std::string> rows[] = {
      {R"(["/bin/echo",5,-1.5,true,null,"x y"])", printed("5 -1.5 true  x y\\n")},
      {R"(["/bin/sh","-c","echo $0; echo no >&2; exit 3"])", printed("sh\\n")},
      {R"(["/bin/echo",")" + x300 + "\"]", printed(x300.substr(0, 255) + "\\n")},
      {R"(["/usr/bin/printf","a\\0b"])", printed("a")},
      {R"(["/bin/echo",["x"]])",
       R"({"error_code":-1,"error_msg":"Read command fail.","handler":"exec_cli_handler")" + tail},
  };
  for (const auto& [command, reply] : rows) {
    EXPECT_EQ(call(kMain, "exec_cli", "{\"command\":" + command + "}").text, reply) << command;
  }
  const Reply many = call(kMain, "exec_cli", R"({"command":["/usr/bin/seq","9999"]})");
  EXPECT_EQ(many.json()["result"].asString().size(), 5120u);
  // A program that outlives its request and holds copies of the daemon's sockets does not delay the client's reply.
  EXPECT_EQ(call(kMain, "exec_cli", R"({"command":["/bin/sh","-c","sleep 30 & echo on"]})").text, printed("on\\n"));
}

TEST_F(Dispatch, StandardOutputGoesToTheClientsDescriptorThenToTheNullDevice) {
  // A request that has been answered may still have to put standard output back.
  const auto taken_back = [] { return open_descriptors(daemon_->pid())[1] == "/dev/null"; };
  ASSERT_TRUE(eventually(taken_back));
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  const std::string lent = open_descriptors()[writing.get()];
  const StandIn tool("/etc/init.d/vistalserver.sh");
  tool.plays("delay 1000\n");
  {
    // A client that leaves during its request leaves nothing behind.
    const Peer client = unanswered("system_call_share_folder_renew", writing.get());
    EXPECT_TRUE(eventually([&] { return open_descriptors(daemon_->pid())[1] == lent; }));
  }
  writing.reset();
  // The daemon has closed the writing end, both as standard output and under its own number.
  char byte;
  EXPECT_EQ(read(reading.get(), &byte, 1), 0);
  EXPECT_TRUE(eventually(taken_back));
}

}  // namespace
