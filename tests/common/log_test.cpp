// The log's line, its limits and its rotation.
#include "common/log.h"

#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "support/guard.h"

namespace {

using LogTest = GuardedTest;

TEST_F(LogTest, FormatsLinesAndTruncatesLongOnes) {
  EXPECT_EQ(log_set_dir(in_dir("log").c_str()), 0);
  errno = ENOTTY;
  LOG_AT("caller", "%d users", 3);
  const std::string line = std::to_string(__LINE__ - 1);
  EXPECT_EQ(errno, ENOTTY) << "logging changed it";
  const std::string path = in_dir("log/.nxe_ks_vistalprod.log");
  const std::string first = read_file(path);
  const std::string head = R"(\[0*)" + std::to_string(getpid()) +
                           R"(\] \[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} \] )";
  EXPECT_THAT(first, ::testing::MatchesRegex(head + R"(\[caller\]\[)" + line + "\\] 3 users\n"));

  // All of a line with its newline is 2047 bytes at most, and a longer one loses the newline.
  const std::size_t room = 2047 - (first.find(" ] ") + 3);
  for (const std::size_t length : {room - 1, room, std::size_t{5000}}) {
    const std::string message(length, 'm');
    const std::size_t before = read_file(path).size();
    log_write("%s", message.c_str());
    EXPECT_EQ(read_file(path).substr(before + 2047 - room), (message + "\n").substr(0, room)) << length;
  }
}

TEST_F(LogTest, RenamesAFullFile) {
  const std::string path = in_dir("log");
  const std::string backup = path + ".bak";
  write_file(path, std::string(524287, 'x'));
  log_write_to(path.c_str(), "fits");
  EXPECT_NE(access(backup.c_str(), F_OK), 0);
  write_file(backup, "an older one");
  log_write_to(path.c_str(), "fresh");
  EXPECT_THAT(read_file(backup), ::testing::EndsWith("] fits\n"));
  EXPECT_THAT(read_file(path), ::testing::MatchesRegex("\\[.*\\] fresh\n"));
}

// A second rename would replace the backup by the few lines written since the first.
TEST_F(LogTest, ConcurrentThreadsRenameAFullFileOnce) {
  const std::string path = in_dir("log");
  for (int round = 0; round < 20; ++round) {
    write_file(path, std::string(524288, 'x'));
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        for (int line = 0; line < 20; ++line) log_write_to(path.c_str(), "line");
      });
    }
    for (std::thread& thread : threads) thread.join();
    const std::string all = read_file(path + ".bak") + read_file(path);
    ASSERT_TRUE(all.starts_with(std::string(524288, 'x'))) << "round " << round;
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 160);
  }
}

}  // namespace
