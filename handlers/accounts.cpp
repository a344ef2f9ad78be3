// Local users and groups, the members of a group, text message (SMS) settings and login sessions, from the platform's
// closed libraries; and a login with the platform's command-line tool.
//
//   get_all_users, get_all_groups   answer "local_count" and the names; null if there are none
//   get_group_members               takes "group_name"; answers "user_count" and a true or false per entry
//   get_sms_config                  answers the eight settings
//   vistal_auth_add_session         takes "type", "user", "sid"; has the library add the session
//   vistal_auth_get_session         takes "type", "length", "sid"; answers the "user" of the session. "length"
//                                   is required but not used
//   get_sess_id                     takes "user", "pwd"; answers the session id as "sid". Its replies have an
//                                   "error_code" where others have "result"
//
// Each request loads its library, makes one call and unloads the library. The command fails if the library is missing,
// lacks the function or reports an error. Results are copied or owned here before the library is unloaded. The command
// also fails if the count of a name list exceeds the size of its memory block.
//
// The password of a login appears only on the tool's command line, where the tool requires it.
#include <malloc.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/captured_run.h"
#include "common/platform_library.h"
#include "common/text.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kAccountLibrary[] = "/usr/lib/libuCore_NAS.so.0.0";
constexpr char kSessionLibrary[] = "/usr/lib/libuCore_nasauth.so.1.0.0";

constexpr std::size_t kNameEntrySize = 33;    // bytes from one name of a list to the next
constexpr std::size_t kMaxName = 32;          // characters; a full entry has no NUL
constexpr std::int32_t kMaxMembers = 65536;   // no appliance has so many users; a larger count is invalid
constexpr std::size_t kSmsRecordSize = 4096;  // bytes; the platform's own record is far smaller

struct MallocFree {
  void operator()(void* block) const { std::free(block); }
};

// The names that a library has allocated for its caller, or null, and their number as reported by the library.
struct NameList {
  std::unique_ptr<char, MallocFree> entries;
  std::int32_t count = 0;

  // Whether the block is large enough for `count` names.
  bool holds_all() const {
    if (count <= 0) return true;
    return entries && malloc_usable_size(entries.get()) / kNameEntrySize >= static_cast<std::size_t>(count);
  }
};

// Loads the command's library, calls its function and unloads it. Returns the function's result, or -1.
template <typename Function, typename... Arguments>
std::int32_t call_function(const Command& command, Arguments... arguments) {
  const PlatformLibrary library(command.library);
  auto* const function = library.function<Function>(command.function);
  return function != nullptr ? function(arguments...) : -1;
}

// ---- Names

// The two numbers and the null select all local names. The caller frees the list, also after an error.
using NameListFunction = std::int32_t(char** list, std::int32_t, std::int32_t, void*, std::int32_t* count);

MemberValue list_names(Request& request) {
  char* entries = nullptr;
  NameList names;
  const bool listed = call_function<NameListFunction>(request.command, &entries, 0, 0, nullptr, &names.count) >= 0;
  names.entries.reset(entries);
  if (!listed || !names.holds_all()) return std::nullopt;
  Json::Value list;
  const char* entry = entries;
  for (std::int32_t i = 0; i < names.count; ++i, entry += kNameEntrySize) {
    list.append(std::string(entry, strnlen(entry, kMaxName)));
  }
  request.reply["local_count"] = names.count;
  return list;
}

// ---- Members

// Returns the number of members and stores in *list an array of as many pointers, one per member. Its ownership is
// unknown: it may be inside the library or a larger block, and freeing it could crash the daemon. So it is read while
// the library is open and never freed.
using MemberListFunction = std::int32_t(const char* group_name, void*** list);

MemberValue list_members(Request& request, const std::string& group_name) {
  const PlatformLibrary library(request.command.library);
  auto* const list_members = library.function<MemberListFunction>(request.command.function);
  if (list_members == nullptr) return std::nullopt;
  void** entries = nullptr;
  const std::int32_t count = list_members(group_name.c_str(), &entries);
  if (count < 0 || count > kMaxMembers || (count > 0 && entries == nullptr)) return std::nullopt;
  Json::Value list;
  for (std::int32_t i = 0; i < count; ++i) list.append(entries[i] != nullptr);
  request.reply["user_count"] = count;
  return list;
}

// ---- Text messages

// The platform's record, padded, because the size of its last field and possible further fields are unknown.
struct alignas(std::max_align_t) SmsSettings {
  std::int32_t mode;
  std::int32_t max_provider;
  std::int32_t now_provider;
  std::int32_t using_provider;
  char country[16];
  char country_code[16];
  char phone1[32];
  char phone2[kSmsRecordSize - 80];
};
static_assert(offsetof(SmsSettings, phone2) == 80 && sizeof(SmsSettings) == kSmsRecordSize);

using SmsFunction = std::int32_t(SmsSettings* settings);

template <std::size_t size>
std::string text_of(const char (&field)[size]) {
  return std::string(field, strnlen(field, size));
}

Outcome get_sms_settings(Request& request) {
  SmsSettings settings{};
  if (call_function<SmsFunction>(request.command, &settings) < 0) return Outcome::failure;
  request.reply["mode"] = settings.mode;
  request.reply["max_provider"] = settings.max_provider;
  request.reply["now_provider"] = settings.now_provider;
  request.reply["using_provider"] = settings.using_provider;
  request.reply["country"] = text_of(settings.country);
  request.reply["country_code"] = text_of(settings.country_code);
  request.reply["phone1"] = text_of(settings.phone1);
  request.reply["phone2"] = text_of(settings.phone2);
  return Outcome::success;
}

// ---- Sessions

constexpr std::size_t kUserOffset = 82;           // bytes from the session record's start to its user name
constexpr std::size_t kSessionRecordSize = 4096;  // bytes; the platform's own record is far smaller

// The known part of the platform's session record, padded for the unknown rest.
struct alignas(std::max_align_t) SessionRecord {
  char unused[kUserOffset];
  char user[kSessionRecordSize - kUserOffset];  // ends with a NUL
};
static_assert(offsetof(SessionRecord, user) == kUserOffset && sizeof(SessionRecord) == kSessionRecordSize);

// Both return 0 for success.
using AddSessionFunction = std::int32_t(const char* sid, const char* user, std::int32_t type, const char* empty);
using GetSessionFunction = std::int32_t(const char* sid, std::int32_t type, SessionRecord* session);

Outcome add_session(Request& request, std::int32_t type, const std::string& user, const std::string& sid) {
  return success_if(call_function<AddSessionFunction>(request.command, sid.c_str(), user.c_str(), type, "") == 0);
}

MemberValue get_session(Request& request, std::int32_t type, std::int32_t /*length*/, const std::string& sid) {
  SessionRecord session{};
  if (call_function<GetSessionFunction>(request.command, sid.c_str(), type, &session) != 0) return std::nullopt;
  return text_of(session.user);
}

// ---- Logging in

constexpr char kLoginTool[] = "/sbin/kcli";
constexpr std::size_t kLoginArgumentSize = 32;  // bytes, NUL included
constexpr int kLoginFailed = -2;

// The third word of the second non-empty line; nothing if there is no such line or word.
std::optional<std::string> session_id_in(const std::string& output) {
  const std::vector<std::string> lines = split_string(output, "\n", true);
  if (lines.size() != 2) return std::nullopt;
  std::vector<std::string> words = split_string(lines[1], " ", true);
  if (words.size() != 3) return std::nullopt;
  return words[2];
}

Outcome get_session_id(Request& request, const std::string& user, const std::string& password) {
  const std::optional<std::string> output = piped_output(
      kLoginTool, {base_name(kLoginTool), "-l", format_bounded(kLoginArgumentSize, "user=%s", user.c_str()),
                   format_bounded(kLoginArgumentSize, "pw=%s", password.c_str())});
  const std::optional<std::string> sid = output ? session_id_in(*output) : std::nullopt;
  request.reply[sid ? "sid" : "error_msg"] = sid ? *sid : "get_sess_id fail";
  request.reply["error_code"] = sid ? 0 : kLoginFailed;
  return Outcome::own;
}

}  // namespace

constexpr Command main_service::get_all_users = Row{.library = kAccountLibrary,
                                                    .function = "Get_Local_User_List_V2",
                                                    .member = "user_list",
                                                    .answers = "local_count, result, user_list",
                                                    .action = calls<list_names>};

constexpr Command main_service::get_all_groups = Row{.library = kAccountLibrary,
                                                     .function = "Get_Local_Group_List_V2",
                                                     .member = "group_list",
                                                     .answers = "group_list, local_count, result",
                                                     .action = calls<list_names>};

constexpr Command main_service::get_group_members = Row{.params = {text("group_name")},
                                                        .library = kAccountLibrary,
                                                        .function = "Get_NAS_User_List_Of_Group_Ex",
                                                        .member = "user_list",
                                                        .answers = "result, user_count, user_list",
                                                        .action = calls<list_members>};

constexpr Command main_service::get_sms_config =
    Row{.library = "/usr/lib/libuCore_config.so.0.0",
        .function = "Get_SMS_config",
        .answers = "country, country_code, max_provider, mode, now_provider, phone1, phone2, result, using_provider",
        .action = get_sms_settings};

constexpr Command main_service::vistal_auth_add_session = Row{.params = {number("type"), text("user"), text("sid")},
                                                              .library = kSessionLibrary,
                                                              .function = "auth_add_session",
                                                              .action = calls<add_session>};

constexpr Command main_service::vistal_auth_get_session = Row{.params = {number("type"), number("length"), text("sid")},
                                                              .library = kSessionLibrary,
                                                              .function = "auth_get_session",
                                                              .member = "user",
                                                              .action = calls<get_session>};

constexpr Command main_service::get_sess_id = Row{.params = {text("user"), text("pwd")},
                                                  .runs = "/sbin/kcli -l user=USER pw=PWD",
                                                  .answers = "error_code, sid",
                                                  .action = calls<get_session_id>};
