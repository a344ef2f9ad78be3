// The body of a request, from its bytes to its typed parameters and the reply. Whatever the body is, the skeleton
// replies once, with a line of JSON, or throws what the dispatcher catches.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <memory>
#include <string>

#include "common/json_param.h"
#include "common/log.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"

namespace {

// What bytes from 128 on stand for: nobody guides the fuzzer through the JSON library, which is not instrumented.
// clang-format off
constexpr const char* kTokens[] = {
    R"({"s":"x","i":1,"l":2,"b":true})", R"({"command":["/bin/true",)", R"("s":)", R"("i":)", R"("l":)", R"("b":)",
    R"("command":)", R"("x")", R"("\ud800\u0000")", "\"\xff\xc3\xa9\"", "\xff", "null", "false", "-2147483649",
    "18446744073709551615", "1e400", "/*", "//"};
// clang-format on

std::string body_of(const std::uint8_t* data, std::size_t size) {
  std::string body;
  for (const std::uint8_t* byte = data; byte != data + size; ++byte) {
    body += *byte < 128 ? std::string(1, static_cast<char>(*byte)) : kTokens[*byte % std::size(kTokens)];
  }
  return body;
}

struct FreeIo {
  void operator()(ks_io* io) const { ks_io_free(io); }
};

[[noreturn]] void found(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// Runs one handler on the body. What it throws is the dispatcher's to report.
template <typename Handler>
void expect_one_reply(const std::string& body, Handler&& handler) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) found("socketpair");
  const std::unique_ptr<ks_io, FreeIo> io(ks_io_create());
  io->sockfd = ends[0];
  io->peer_pid = getpid();
  if (!body.empty() && ks_io_fwrite(body.data(), body.size(), io.get()) != 0) found("no memory for the body");
  bool threw = false;
  try {
    handler(io.get());
  } catch (const std::exception&) {
    threw = true;
  }
  char record[512];
  const bool done = recv(ends[1], record, sizeof(record), MSG_DONTWAIT) > 0;
  close(ends[1]);
  if (done == threw) found("no reply, or a reply and an exception");
  Json::Value reply;
  if (done && (!json_parse(read_request_text(io.get()), &reply) || !reply.isObject())) {
    found("the reply is no JSON object");
  }
}

// What the client sent is what the reply repeats: texts of any bytes must survive as JSON.
void skeleton(ks_io* io) {
  std::string text;
  std::int32_t number = 0;
  handle_request(io, "request_fuzz", {{"s", &text}, {"i", &number}}, [&](Json::Value& reply) {
    reply["s"] = text;
    reply["i"] = number;
    return number < 0 ? Outcome::failure : Outcome::success;
  });
}

// Each type against each member, so that no member hides another.
void parameters(const std::string& body) try {
  Json::Value root;
  if (std::string errors; !json_parse(body, &root, &errors)) return;
  for (const char* key : {"s", "i", "l", "b"}) {
    std::string text;
    std::int32_t number = 0;
    std::int64_t large = 0;
    bool error = false;
    parser_param_from_json_str(root, key, &text, "string", &error);
    parser_param_from_json_str(root, key, &number, "int", &error);
    parser_param_from_json_str(root, key, &number, "bool", &error);
    parser_param_from_json_str(root, key, &large, "long", &error);
    if (!error) found("one member is of every type");
  }
} catch (const std::exception&) {
}

// Whether exec_cli would find a command in this body and run it.
bool names_a_program(const std::string& body) try {
  Json::Value root;
  return json_parse(body.c_str(), &root) && root["command"].isArray() && !root["command"].empty() &&
         root["command"][0].isConvertibleTo(Json::stringValue);
} catch (const std::exception&) {
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int log_is_set = log_set_dir("/proc/self");  // lines are made, and then find no file
  (void)log_is_set;
  const std::string body = body_of(data, size);
  parameters(body);
  expect_one_reply(body, skeleton);
  if (!names_a_program(body)) expect_one_reply(body, [](ks_io* io) { exec_cli_handler(io, -1); });
  return 0;
}
