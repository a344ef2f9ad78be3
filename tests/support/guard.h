// What any suite can run in: a directory of its own, a deadline for everything, and a look round at the end.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>

// Repeats `condition` until it holds; false when it still does not after ten seconds.
bool eventually(const std::function<bool()>& condition);

// The open descriptors of this process and what they refer to.
std::map<int, std::string> open_descriptors();

// What a child process did: its raw wait status and everything it wrote on standard error.
struct ChildOutcome {
  int status;
  std::string error;
};

// Runs `body` in a forked child, which exits with 0 when `body` returns, and waits until it and whoever
// shares its standard error have ended. Call it while this process has one thread only.
ChildOutcome in_child(const std::function<void()>& body);

// Sends this process's standard error into memory for as long as it lives.
class StderrCapture {
 public:
  StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;
  ~StderrCapture();
  std::string text() const;

 private:
  int saved_;
  int memory_;
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
