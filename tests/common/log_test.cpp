// The log's line, its limits and its rotation.
#include "common/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "fixture.h"

namespace {

constexpr std::size_t kFull = 524288;

using LogTest = CommonTest;

// The exact prefix has a fixed length: the time is always 20 characters.
std::size_t prefix_length() {
  return std::max<std::size_t>(5, std::to_string(getpid()).size()) + 26;
}

TEST_F(LogTest, ComposesOneLine) {
  EXPECT_EQ(log_set_dir(in_dir("log").c_str()), 0);
  const int line = __LINE__ + 1;
  LOG_AT("pthread_ks_start", "ks_start.");
  LOG_AT("caller", "%d users", 3);
  const std::string text = contents(in_dir("log/.nxe_ks_vistalprod.log"));
  const std::string head = R"(\[0*)" + std::to_string(getpid()) +
                           R"(\] \[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] )" +
                           R"([0-9]{2}:[0-9]{2}:[0-9]{2} \] )";
  EXPECT_THAT(text, ::testing::MatchesRegex(head + R"(\[pthread_ks_start\]\[)" + std::to_string(line) +
                                            "\\] ks_start\\.\n" + head + R"(\[caller\]\[)" +
                                            std::to_string(line + 1) + "\\] 3 users\n"));
  EXPECT_EQ(text.find(" ] ["), prefix_length() - 3);
}

TEST_F(LogTest, CutsALongLineNewlineAndAll) {
  const std::size_t room = 2047 - prefix_length();
  for (const std::size_t length : {room - 1, room, room + 1, std::size_t{5000}}) {
    const std::string path = in_dir(std::to_string(length));
    const std::string message(length, 'm');
    log_write_to(path.c_str(), "%s", message.c_str());
    EXPECT_EQ(contents(path).substr(prefix_length()), (message + "\n").substr(0, room)) << length;
  }
}

TEST_F(LogTest, MovesAFullFileAside) {
  const std::string path = in_dir("log");
  const std::string backup = path + ".bak";
  write_file(path, std::string(kFull - 1, 'x'));
  log_write_to(path.c_str(), "fits");
  EXPECT_FALSE(exists(backup));
  EXPECT_THAT(contents(path), ::testing::EndsWith("] fits\n"));

  const std::string full(kFull, 'y');
  write_file(path, full);
  write_file(backup, "an older one");
  log_write_to(path.c_str(), "fresh");
  EXPECT_EQ(contents(backup), full);
  EXPECT_EQ(contents(path).size(), prefix_length() + 6);

  // Where the move cannot work the file grows on.
  const std::string stuck = in_dir("stuck");
  write_file(stuck, std::string(kFull, 'x'));
  std::filesystem::create_directories(stuck + ".bak/stuck");
  log_write_to(stuck.c_str(), "more");
  EXPECT_GT(std::filesystem::file_size(stuck), kFull);
}

TEST_F(LogTest, SaysSoWhenItHasNowhereToWrite) {
  write_file(in_dir("file"), "");
  const std::string impossible = in_dir("file/log");
  testing::internal::CaptureStdout();
  EXPECT_EQ(log_set_dir(impossible.c_str()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error mkdir [" + impossible + "] failed ret=-1\n");
  errno = ENOTTY;
  log_write("%s", "lost");
  EXPECT_EQ(errno, ENOTTY) << "logging a failure changed it";
}

TEST(LogUnsetDeathTest, DropsTheMessage) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process of its own, where nobody has set the directory
  EXPECT_EXIT((log_write("%s", "lost"), _exit(0)), ::testing::ExitedWithCode(0),
              "^Log file path not set\\. Please call log_set_dir\\(\\) first\\.\n$");
}

}  // namespace
