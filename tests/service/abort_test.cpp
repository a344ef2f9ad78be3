// Errors that end the process: each with its line, letter for letter, and SIGABRT.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>

#include "harness.h"
#include "service/ks_internal.h"

namespace {

struct Row {
  std::string line;  // without "[ABORT] @" in front and the end of the line
  std::function<void()> call;
};

void expect_aborts(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    const ChildOutcome outcome = in_child(row.call);
    EXPECT_TRUE(WIFSIGNALED(outcome.status) && WTERMSIG(outcome.status) == SIGABRT) << outcome.status;
    EXPECT_EQ(outcome.error, "[ABORT] @" + row.line + "\n");
  }
}

const std::string kIo = ": `io && (*(u_int32_t*) io == KS_IO_MAGIC)'";
const std::string kEpoll = ": `epoll && (*(u_int32_t*) epoll == KS_EPOLL_MAGIC)'";
const std::string kHandle = ": `service_handle && (*(u_int32_t*) service_handle == KS_HANDLE_MAGIC)'";

// A record of nobody's, and how it is printed.
alignas(8) char foreign[512] = "not a record";
template <typename T>
T* foreign_record() {
  return reinterpret_cast<T*>(foreign);
}
std::string pointer() {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", static_cast<void*>(foreign));
  return text;
}

// From here on the process gets `more` descriptors, and no further one.
void allow_descriptors(rlim_t more) {
  const Fd next(dup(STDERR_FILENO));
  const rlimit limit{.rlim_cur = static_cast<rlim_t>(next) + more, .rlim_max = 4096};
  setrlimit(RLIMIT_NOFILE, &limit);
}

class Aborts : public ServiceTest {
 protected:
  ks_handle* service(std::uint32_t mode = KS_STANDALONE | KS_PTHREAD_MODE, std::uint64_t workers = 1) const {
    return ks_create(("@" + path()).c_str(), mode, workers, answer);
  }
};

TEST_F(Aborts, RecordsThatAreNone) {
  auto* io = foreign_record<ks_io>();
  auto* epoll = foreign_record<ks_epoll>();
  auto* handle = foreign_record<ks_handle>();
  ks_io* good_io = ks_io_create();
  ks_epoll* good_epoll = ks_epoll_create();
  const std::string p = pointer();
  expect_aborts({
      {"ks_io_free() cannot free incorrect ks_io " + p + kIo, [&] { ks_io_free(io); }},
      {"ks_io_free() cannot free incorrect ks_io (nil)" + kIo, [] { ks_io_free(nullptr); }},
      {"ks_io_realloc() cannot alloc incorrect ks_io " + p + kIo, [&] { ks_io_realloc(io, 1); }},
      {"ks_io_pid() cannot fetch incorrect ks_io " + p + " pid" + kIo, [&] { ks_io_pid(io); }},
      {"ks_io_uid() cannot fetch incorrect ks_io " + p + " uid" + kIo, [&] { ks_io_uid(io); }},
      {"ks_io_gid() cannot fetch incorrect ks_io " + p + " gid" + kIo, [&] { ks_io_gid(io); }},
      {"ks_io_printf() cannot printf incorrect ks_io " + p + kIo, [&] { ks_io_printf(io, "x"); }},
      {"ks_io_alive() cannot check incorrect ks_io " + p + " alive" + kIo, [&] { ks_io_alive(io); }},
      {"ks_io_set() cannot attach incorrect ks_io " + p + kIo, [&] { ks_io_set(io, 1); }},
      {"ks_io_get() cannot detach incorrect ks_io " + p + kIo, [&] { ks_io_get(io); }},
      {"ks_io_write() cannot read incorrect ks_io " + p + kIo, [&] { ks_io_write(io, "x", 1); }},
      {"ks_io_splice() cannot read incorrect ks_io " + p + kIo, [&] { ks_io_splice(io, 0, 1); }},
      {"ks_io_read() cannot read incorrect ks_io " + p + kIo, [&] { ks_io_read(io, nullptr); }},
      {"ks_reply() cannot response incorrect ks_io " + p + kIo, [&] { ks_reply(io); }},
      {"ks_epoll_call() cannot call incorrect ks_epoll " + p + kEpoll,
       [&] { ks_epoll_call(epoll, "n", "r", good_io, -1); }},
      {"ks_epoll_call() cannot make incorrect ks_io " + p + " request" + kIo,
       [&] { ks_epoll_call(good_epoll, "n", "r", io, -1); }},
      {"ks_epoll_cancel() cannot cancel incorrect ks_epoll " + p + kEpoll,
       [&] { ks_epoll_cancel(epoll, good_io); }},
      {"ks_epoll_cancel() cannot cancel incorrect ks_io " + p + kIo,
       [&] { ks_epoll_cancel(good_epoll, io); }},
      {"ks_epoll_perform() cannot perform incorrect ks_epoll " + p + kEpoll,
       [&] { ks_epoll_perform(epoll, 0, nullptr); }},
      {"ks_epoll_free() cannot free incorrect ks_epoll " + p + kEpoll, [&] { ks_epoll_free(epoll); }},
      {"ks_start() cannot start incorrect ks_handle " + p + kHandle, [&] { ks_start(handle); }},
      {"ks_worker_init() cannot start incorrect ks_handle " + p + kHandle,
       [&] { ks_worker_init(handle, nullptr, nullptr); }},
      {"ks_worker_fini() cannot start incorrect ks_handle " + p + kHandle,
       [&] { ks_worker_fini(handle, nullptr, nullptr); }},
      {"ks_pause() cannot pause incorrect ks_handle " + p + kHandle, [&] { ks_pause(handle); }},
      {"ks_resume() cannot resume incorrect ks_handle " + p + kHandle, [&] { ks_resume(handle); }},
      {"ks_stop() cannot stop incorrect ks_handle " + p + kHandle, [&] { ks_stop(handle); }},
      {"ks_stop() cannot stop incorrect ks_handle " + p + kHandle, [&] { ks_free(handle); }},
  });
  ks_io_free(good_io);
  ks_epoll_free(good_epoll);
}

TEST_F(Aborts, ArgumentsThatCannotBe) {
  const auto create = [](const std::string& name, std::uint32_t mode) {
    return [=] { ks_create(name.c_str(), mode, 1, answer); };
  };
  const std::string name =
      "ks_create() name cannot be NULL and maximum characters is 64: "
      "`name && strlen(name) <= MAXIMUM_NAME_SIZE'";
  const std::string miss =
      "ks_create() mode miss KS_PROCESS_MODE or KS_PTHREAD_MODE: "
      "`(mode | KS_STANDALONE) != KS_STANDALONE'";
  const std::string only =
      "ks_create() mode only work KS_PROCESS_MODE or KS_PTHREAD_MODE: "
      "`(mode | KS_PROCESS_MODE) == KS_PROCESS_MODE || (mode | KS_PROCESS_MODE) == (KS_STANDALONE | "
      "KS_PROCESS_MODE)"
      " || (mode | KS_PTHREAD_MODE) == KS_PTHREAD_MODE || (mode | KS_PTHREAD_MODE) == (KS_STANDALONE | "
      "KS_PTHREAD_MODE)'";
  const std::string path_name =
      "ks_create() name must be absolute file path: `(name[0] == '@' && name[1] == '/')'";
  const std::string number = ": `signum > 0 && signum < MAX_SIGNAL_SIZE'";
  expect_aborts({
      {name, [] { ks_create(nullptr, 4, 1, answer); }},
      {name, create(std::string(65, 'n'), 4)},
      {miss, create("n", 0)},
      {miss, create("n", 1)},
      {only, create("n", 6)},
      {only, create("n", 7)},
      {only, create("n", 8)},
      {only, create("n", 12)},
      {"ks_create() workers option cannot be zero: `workers > 0'", [] { ks_create("n", 4, 0, answer); }},
      {"ks_create() exec must be callable function pointer: `exec'", [] { ks_create("n", 4, 1, nullptr); }},
      {path_name, create("@name", 4)},
      {path_name, create("@", 4)},
      {"ks_signal() cannot handle signal number 0" + number, [] { ks_signal(0, nullptr); }},
      {"ks_signal() cannot handle signal number 32" + number, [] { ks_signal(32, nullptr); }},
      {"ks_signal() cannot handle signal number -1" + number, [] { ks_signal(-1, nullptr); }},
      {"ks_ez_call() data memory access violation with size (5): `data != NULL || (data == NULL && dsize == "
       "0U)'",
       [] { ks_ez_call("n", "r", nullptr, 5, nullptr, nullptr, 5, -1); }},
      {"ks_ez_call() recv memory access violation: `(recv == NULL || *recv == NULL)'",
       [] {
         void* taken = foreign;
         ks_ez_call("n", "r", nullptr, 0, &taken, nullptr, 5, -1);
       }},
  });
}

TEST_F(Aborts, ResourcesThatAreMissing) {
  const std::string start = "ks_producer_worker_init() producer-worker ";
  const std::string map = "() create memory map fail: `io->shared_data != MAP_FAILED'";
  const auto start_with = [this](rlim_t descriptors) {
    return [this, descriptors] {
      ks_handle* handle = service();
      allow_descriptors(descriptors);
      ks_start(handle);
    };
  };
  expect_aborts({
      {"ks_io_shm() create share memory file fail: `io->memfd != -1 && set_fd_cloexec(io->memfd)'",
       [] {
         allow_descriptors(0);
         ks_io_fd(ks_io_create());
       }},
      {"ks_io_realloc() ftruncate memory file fail: `ftruncate(io->memfd, size) == 0'",
       [] { ks_io_realloc(ks_io_create(), UINT64_MAX); }},
      {"ks_io_realloc" + map, [] { ks_io_realloc(ks_io_create(), std::uint64_t{1} << 62); }},
      {"ks_io_sync" + map,
       [] {
         ks_io* io = ks_io_create();
         if (ftruncate(ks_io_fd(io), off_t{1} << 62) == 0) ks_io_read(io, nullptr);
       }},
      {"ks_epoll_create() create request epoll fail: "
       "`((epoll->fd = epoll_create(1)) >= 0 && set_fd_cloexec(epoll->fd))'",
       [] {
         allow_descriptors(0);
         ks_epoll_create();
       }},
      {"ks_epoll_call() create request socket fail: "
       "`(io->sockfd = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && set_fd_cloexec(io->sockfd)'",
       [] {
         ks_epoll* epoll = ks_epoll_create();
         allow_descriptors(0);
         ks_epoll_call(epoll, "n", "r", ks_io_create(), -1);
       }},
      {"ks_epoll_call() epoll add request sockfd fail: `epoll_ctl(epoll->fd, EPOLL_CTL_ADD, io->sockfd, ev) "
       "== 0'",
       [this] {
         ks_start(service());
         ks_epoll* epoll = ks_epoll_create();
         close(epoll->fd);
         epoll->fd = -1;
         ks_epoll_call(epoll, ("@" + path()).c_str(), "r", ks_io_create(), -1);
       }},
      {start + "create listen socket fail: `(producer_worker->sockfd[1] = socket(AF_UNIX, SOCK_STREAM, 0)) "
               ">= 0 && "
               "set_fd_cloexec(producer_worker->sockfd[1])'",
       start_with(0)},
      {start +
           "create epoll fail: "
           "`(producer_worker->pollfd = epoll_create(1)) >= 0 && set_fd_cloexec(producer_worker->pollfd)'",
       start_with(1)},
      {"ks_consumer_worker_init() consumer-worker create sockets fail: "
       "`socketpair(AF_UNIX, SOCK_STREAM, 0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && "
       "set_fd_cloexec(worker->sockfd[1])'",
       start_with(4)},
      {start + "bind listen socket fail: `bind(producer_worker->sockfd[1], (struct sockaddr *) &sockaddr, "
               "sizeof(struct sockaddr_un)) == 0'",
       [this] { ks_start(ks_create(("@" + in_dir("two/levels")).append("/s").c_str(), 5, 1, answer)); }},
#ifndef __SANITIZE_ADDRESS__  // which has a line of its own to say about such a size
      {"ks_start() alloc worker memory fail: "
       "`(service_handle->worker = calloc(service_option->service_size + 1, sizeof(ks_worker)))'",
       [this] { ks_start(service(5, std::uint64_t{1} << 48)); }},
#endif
      {"ks_start() cannot start service twice: `service_handle->worker == NULL'",
       [this] {
         ks_handle* handle = service();
         ks_start(handle);
         ks_start(handle);
       }},
      {"ks_producer_worker_init() " + path() + " is not a sock file: `S_ISSOCK(st.st_mode)'",
       [this] {
         unlink(path().c_str());
         const Fd file(open(path().c_str(), O_WRONLY | O_CREAT, 0600));
         ks_start(service());
       }},
  });
}

// What a worker process may say on its control socket, and the producer does not survive or does not mind.
TEST_F(Aborts, AWorkerThatBreaksTheRules) {
  const auto says = [this](const directive& record, std::size_t size) {
    return [this, body = std::string(reinterpret_cast<const char*>(&record), size)] {
      unlink(path().c_str());
      ks_start(service(KS_STANDALONE | KS_PROCESS_MODE));
      call("@" + path(), "wire", body);
      pause();  // until the producer has read it
    };
  };
  directive no_descriptor = make_directive(KS_DIR_TRANSFER);
  std::fill_n(no_descriptor.data, sizeof(int), std::uint8_t{0xff});
  expect_aborts({
      {"ks_producer_worker() producer-worker receive consumer_worker directive fail: "
       "`read(event_queue->sockfd, &directive, sizeof(directive)) == sizeof(directive)'",
       says(no_descriptor, 7)},
      {"ks_producer_worker() producer-worker transfer client sockfd fail: `*((int*)&directive.data) >= 0'",
       says(no_descriptor, sizeof(no_descriptor))},
  });

  Service tolerant(in_dir("t"), KS_STANDALONE | KS_PROCESS_MODE, 1);
  tolerant.start();
  directive unknown_index = make_directive(KS_DIR_READY), foreign_number = make_directive(KS_DIR_TRANSFER);
  unknown_index.data[0] = 1;
  const std::size_t open = open_descriptors().size();
  for (const directive& record : {unknown_index, foreign_number, make_directive(KS_DIR_BUSY)}) {
    const std::string body(reinterpret_cast<const char*>(&record), sizeof(record));
    EXPECT_EQ(call(tolerant.name(), "wire", body), (Reply{KS_STATUS_OK, "wire"}));
    EXPECT_EQ(call(tolerant.name(), "echo", "x"), (Reply{KS_STATUS_OK, "x"}));
  }
  EXPECT_TRUE(eventually([&] { return open_descriptors().size() == open; }));
}

}  // namespace
