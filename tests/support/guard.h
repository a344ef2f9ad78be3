// A fixture for any suite: a directory of its own, a deadline, and a check for leaks at the end.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

#include "common/unique_fd.h"

// Repeats `condition` until it holds; false when it still does not after ten seconds.
bool eventually(const std::function<bool()>& condition);

// The whole file behind the descriptor, but at most 16 MiB of it. Leaves the file's offset alone.
std::string content_of(int fd);
std::string read_file(const std::string& path);  // empty when there is none
void write_file(const std::string& path, const std::string& text);

// The open descriptors of a process and what they refer to.
std::map<int, std::string> open_descriptors(pid_t process = getpid());

// Whether the tests run under an emulator of another processor, whose kernel interface has gaps.
bool emulated();

// What a child process did: its raw wait status and everything it wrote on standard error.
struct ChildOutcome {
  int status;
  std::string error;
};

// Runs `body` in a forked child, which exits with 0 when `body` returns, and waits for its end. Call it while
// this process has one thread only.
ChildOutcome in_child(const std::function<void()>& body);

// Sends this process's standard error into memory for as long as it lives.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture() { dup2(saved_.get(), STDERR_FILENO); }
  std::string text() const { return content_of(memory_.get()); }

 private:
  const UniqueFd saved_;
  const UniqueFd memory_;
};

// Fails a test that leaves descriptors open or children unwaited for; kills one that hangs.
class GuardedTest : public ::testing::Test {
 protected:
  GuardedTest();
  ~GuardedTest() override;
  std::string in_dir(const std::string& name) const { return dir_ + "/" + name; }

 private:
  const std::string dir_;
  const std::map<int, std::string> descriptors_;
};
