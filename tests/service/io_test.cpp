// The request record by itself.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "harness.h"

namespace {

class IoTest : public GuardedTest {
 protected:
  ~IoTest() override { ks_io_free(io_); }
  // What the record's mapping holds now.
  std::string mapped() {
    std::uint64_t size = 99;
    const void* data = ks_io_read(io_, &size);
    EXPECT_EQ(data == nullptr, size == 0);
    return {static_cast<const char*>(data), size};
  }
  ks_io* const io_ = ks_io_create();
};

TEST_F(IoTest, ReadingAndMeasuringMakeNoFile) {
  EXPECT_EQ(mapped(), "");
  EXPECT_EQ(ks_io_read(io_, nullptr), nullptr);
  EXPECT_EQ(ks_io_size(io_), 0u);
  EXPECT_TRUE(ks_io_alive(io_));
  EXPECT_EQ(io_->memfd, -1);
}

TEST_F(IoTest, EveryWayOfWritingAppends) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Fd out(ends[0]), in(ends[1]);
  EXPECT_EQ(ks_io_splice(io_, out, 10), -1);  // nothing there, and it does not wait
  ASSERT_EQ(write(in, "spliced, cut", 12), 12);
  EXPECT_EQ(ks_io_write(io_, "written ", 8), 8);
  ks_io_printf(io_, "%s %d ", "printed", 7);
  EXPECT_EQ(ks_io_splice(io_, out, 7), 7);
  EXPECT_EQ(mapped(), "written printed 7 spliced");
  EXPECT_EQ(ks_io_fwrite("!", 1, io_), 0);  // behind what has been mapped
  EXPECT_EQ(ks_io_size(io_), 26u);
  EXPECT_EQ(mapped(), "written printed 7 spliced!");

  memcpy(ks_io_realloc(io_, 7), "WRITTEN", 7);
  ks_io_printf(io_, "|");
  EXPECT_EQ(mapped(), "WRITTEN|");
  ASSERT_NE(ks_io_realloc(io_, 9), nullptr);
  EXPECT_EQ(mapped(), std::string("WRITTEN|\0", 9));
  EXPECT_EQ(ks_io_realloc(io_, 0), nullptr);
  EXPECT_EQ(io_->shared_data, nullptr);
  EXPECT_EQ(io_->shared_size, 0u);
  ks_io_printf(io_, "anew");
  EXPECT_EQ(mapped(), "anew");
}

TEST_F(IoTest, AFailedWriteIsTheWritersToSee) {
  const Fd read_only(open("/dev/null", O_RDONLY));
  io_->memfd = dup(read_only);
  EXPECT_EQ(ks_io_write(io_, "x", 1), -1);
  EXPECT_EQ(ks_io_fwrite("xyz", 3, io_), -4);
}

TEST_F(IoTest, DescriptorsAndStreamsAreTheSameFile) {
  const Fd one(ks_io_dup(io_));  // made on demand
  const int number = ks_io_fd(io_);
  EXPECT_EQ(number, io_->memfd);
  EXPECT_NE(one, number);
  EXPECT_NE(fcntl(number, F_GETFD) & FD_CLOEXEC, 0);
  const Fd two(open("/dev/null", O_RDWR)), three(open("/dev/null", O_RDWR));
  EXPECT_EQ(ks_io_dup2(io_, two), two);
  EXPECT_EQ(ks_io_dup3(io_, three, O_CLOEXEC), three);
  EXPECT_NE(fcntl(three, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(ks_io_dup3(io_, number, 0), -1);
  EXPECT_EQ(write(one, "1", 1) + write(two, "2", 1) + write(three, "3", 1), 3);
  FILE* stream = ks_io_fopen(io_, "a");
  ASSERT_NE(stream, nullptr);
  fputs("stream", stream);
  stream = ks_io_freopen(io_, "r", stream);
  ASSERT_NE(stream, nullptr);
  char text[16] = {};
  EXPECT_NE(fgets(text, sizeof(text), stream), nullptr);
  EXPECT_STREQ(text, "123stream");
  fclose(stream);
  EXPECT_EQ(ks_io_fopen(io_, "no such mode"), nullptr);
}

TEST_F(IoTest, KnowsWhetherItsClientStillWaitsWhateverItsNumber) {
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit enough{.rlim_cur = 3000, .rlim_max = before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
  for (const int least : {0, 1023, 1024, 2500}) {
    Line line = make_line();
    io_->sockfd = fcntl(line.theirs, F_DUPFD, least);
    ASSERT_GE(io_->sockfd, least);
    line.theirs.reset();
    io_->peer_pid = getpid();
    EXPECT_TRUE(ks_io_alive(io_));
    ASSERT_EQ(write(line.ours, "?", 1), 1);
    EXPECT_FALSE(ks_io_alive(io_)) << "it has sent more";
    char byte;
    ASSERT_EQ(read(io_->sockfd, &byte, 1), 1);
    EXPECT_TRUE(ks_io_alive(io_));
    line.ours.reset();
    EXPECT_FALSE(ks_io_alive(io_)) << "it has left";
    io_->peer_pid = 0;
    EXPECT_TRUE(ks_io_alive(io_)) << "no client is known";
    close(std::exchange(io_->sockfd, -1));
  }
  setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
