// What every suite of this room runs in: a directory of its own, and a look round at the end.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

// Fails a test that leaves descriptors open or children unwaited for.
class CommonTest : public ::testing::Test {
 protected:
  CommonTest()
      : dir_(mkdtemp(std::string("/tmp/common_testXXXXXX").data())), descriptors_(open_descriptors()) {}

  ~CommonTest() override {
    EXPECT_EQ(open_descriptors(), descriptors_);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(errno, ECHILD);
    std::filesystem::remove_all(dir_);
  }

  std::string in_dir(const std::string& name) const { return dir_ + "/" + name; }

  static std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }

  static bool exists(const std::string& path) { return std::filesystem::exists(path); }

 private:
  static std::map<std::string, std::string> open_descriptors() {
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;  // the directory's own descriptor shows itself
      const std::string target = std::filesystem::read_symlink(entry, gone).string();
      if (target.find("/proc/") != 0) found[entry.path().filename()] = target;
    }
    return found;
  }

  const std::string dir_;
  const std::map<std::string, std::string> descriptors_;
};
