// Login sessions of the platform.
//
//   vistal_auth_add_session   takes "type", "user", "sid"; has the platform's library add the session
//   vistal_auth_get_session   takes "type", "length", "sid"; answers the "user" of the session. "length" must
//                             be there, as clients of old send it, but is not used
//   get_sess_id               takes "user", "pwd"; logs in with the platform's command-line tool and answers
//                             the session id as "sid". Its replies have an "error_code" where others have
//                             "result"
//
// The library is loaded for one call and unloaded again. The password goes where the tool wants it, on its
// command line, and nowhere else.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "common/text.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/platform_library.h"

namespace {

constexpr char kSessionLibrary[] = "/usr/lib/libuCore_nasauth.so.1.0.0";
constexpr std::size_t kUserOffset = 82;           // bytes from the session record's start to its user name
constexpr std::size_t kSessionRecordSize = 4096;  // bytes; the platform's own record is far smaller

constexpr char kLoginTool[] = "/sbin/kcli";
constexpr std::size_t kLoginArgumentSize = 32;  // bytes, NUL included
constexpr std::size_t kChunkSize = 1023;        // bytes of the tool's output that are taken at a time
constexpr int kLoginFailed = -2;

// The platform's record of a session, as far as it is known, and room for what is not.
struct alignas(std::max_align_t) SessionRecord {
  char unused[kUserOffset];
  char user[kSessionRecordSize - kUserOffset];  // ends with a NUL
};
static_assert(offsetof(SessionRecord, user) == kUserOffset && sizeof(SessionRecord) == kSessionRecordSize);

// Both return 0 for success.
using AddSessionFunction = std::int32_t(const char* sid, const char* user, std::int32_t type,
                                        const char* empty);
using GetSessionFunction = std::int32_t(const char* sid, std::int32_t type, SessionRecord* session);

bool add_session(const std::string& sid, const std::string& user, std::int32_t type) {
  const PlatformLibrary library(kSessionLibrary);
  auto* const add = library.function<AddSessionFunction>("auth_add_session");
  return add != nullptr && add(sid.c_str(), user.c_str(), type, "") == 0;
}

bool get_session(const std::string& sid, std::int32_t type, SessionRecord* session) {
  const PlatformLibrary library(kSessionLibrary);
  auto* const get = library.function<GetSessionFunction>("auth_get_session");
  return get != nullptr && get(sid.c_str(), type, session) == 0;
}

// The third word of the second line, where there are two lines and three words in it; empty lines do not
// count.
std::optional<std::string> session_id_in(const std::string& output) {
  const std::vector<std::string> lines = split_string(output, "\n", true);
  if (lines.size() != 2) return std::nullopt;
  std::vector<std::string> words = split_string(lines[1], " ", true);
  if (words.size() != 3) return std::nullopt;
  return words[2];
}

std::optional<std::string> log_in(const std::string& user, const std::string& password) {
  const std::optional<std::string> output =
      piped_output(kLoginTool,
                   {base_name(kLoginTool), "-l", format_bounded(kLoginArgumentSize, "user=%s", user.c_str()),
                    format_bounded(kLoginArgumentSize, "pw=%s", password.c_str())},
                   kChunkSize);
  return output ? session_id_in(*output) : std::nullopt;
}

}  // namespace

void nos_vistal_auth_add_session_handler(ks_io* io, int) {
  std::int32_t type = 0;
  std::string user;
  std::string sid;
  handle_request(
      io, "nos_vistal_auth_add_session_handler", {{"type", &type}, {"user", &user}, {"sid", &sid}},
      [&](Json::Value&) { return add_session(sid, user, type) ? Outcome::success : Outcome::failure; });
}

void nos_vistal_auth_get_session_handler(ks_io* io, int) {
  std::int32_t type = 0;
  std::int32_t length = 0;
  std::string sid;
  handle_request(io, "nos_vistal_auth_get_session_handler",
                 {{"type", &type}, {"length", &length}, {"sid", &sid}}, [&](Json::Value& reply) {
                   SessionRecord session{};
                   if (!get_session(sid, type, &session)) return Outcome::failure;
                   reply["user"] = std::string(session.user, strnlen(session.user, sizeof session.user));
                   return Outcome::success;
                 });
}

void nos_get_sess_id_handler(ks_io* io, int) {
  std::string user;
  std::string password;
  handle_request(io, "nos_get_sess_id_handler", {{"user", &user}, {"pwd", &password}},
                 [&](Json::Value& reply) {
                   const std::optional<std::string> sid = log_in(user, password);
                   reply[sid ? "sid" : "error_msg"] = sid ? *sid : "get_sess_id fail";
                   reply["error_code"] = sid ? 0 : kLoginFailed;
                   return Outcome::own;
                 });
}
