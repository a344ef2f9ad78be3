// mail_sink PORT FILE: a mail server on 127.0.0.1 that accepts mail and delivers none.
//
// PORT 0 means any free port. When it accepts connections, it prints its port as one line. It serves one client after
// the other until it is killed. It appends every line from a client to FILE, without the line end, before it answers:
// when a client is told that its mail is accepted, the mail is in FILE.
//
// It supports enough SMTP for the system's mail program. It accepts any sender, recipient, user and password, except
// recipients that begin with "refused" and the user "refused".
#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

constexpr char kRefusedRecipient[] = "RCPT TO:<refused";
constexpr char kRefusedUser[] = "cmVmdXNlZA==";  // base64 of "refused"

[[noreturn]] void fail(const char* what) {
  perror(what);
  exit(1);
}

bool begins_with(std::string_view line, std::string_view start) {
  return line.size() >= start.size() && strncasecmp(line.data(), start.data(), start.size()) == 0;
}

// One client's connection, line by line. If sending fails, the next line does not come.
class Session {
 public:
  Session(FILE* stream, FILE* record) : stream_(stream), record_(record) {}

  void serve() {
    answer("220 sink");
    std::string line;
    while (next(&line)) {
      if (begins_with(line, "QUIT")) return answer("221 bye");
      if (begins_with(line, "AUTH LOGIN")) {
        authenticate();
      } else if (begins_with(line, "DATA")) {
        answer("354 go on");
        while (next(&line) && line != ".") {
        }
        answer("250 accepted");
      } else {
        answer(begins_with(line, kRefusedRecipient) ? "550 no such user" : "250 fine");
      }
    }
  }

 private:
  bool next(std::string* line) {
    line->clear();
    int c;
    while ((c = getc(stream_)) != EOF && c != '\n') line->push_back(static_cast<char>(c));
    if (c == EOF) return false;
    if (line->ends_with('\r')) line->pop_back();
    fprintf(record_, "%s\n", line->c_str());
    fflush(record_);
    return true;
  }

  void answer(const char* text) {
    fseek(stream_, 0, SEEK_CUR);  // required between reading and writing on one stream
    fprintf(stream_, "%s\r\n", text);
    fflush(stream_);
  }

  void authenticate() {
    std::string user;
    std::string password;
    answer("334 VXNlcm5hbWU6");
    if (!next(&user)) return;
    answer("334 UGFzc3dvcmQ6");
    if (next(&password)) answer(user == kRefusedUser ? "535 refused" : "235 welcome");
  }

  FILE* stream_;
  FILE* record_;
};

int listen_on(const char* port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<in_port_t>(atoi(port)));
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, generic, size) != 0 || listen(listener, SOMAXCONN) != 0) fail("mail_sink: port");
  getsockname(listener, generic, &size);
  printf("%d\n", ntohs(address.sin_port));
  fflush(stdout);
  return listener;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: mail_sink PORT FILE\n");
    return 2;
  }
  FILE* const record = fopen(argv[2], "ae");
  if (record == nullptr) fail(argv[2]);
  signal(SIGPIPE, SIG_IGN);
  const int listener = listen_on(argv[1]);
  for (;;) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0 && errno == EINTR) continue;
    if (client < 0) fail("mail_sink: accept");
    FILE* const stream = fdopen(client, "r+");
    if (stream == nullptr) fail("mail_sink: stream");
    Session(stream, record).serve();
    fclose(stream);
  }
}
