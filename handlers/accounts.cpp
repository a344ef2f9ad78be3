// Local users and groups, the members of a group, and the settings of text messages (SMS), as the platform's
// closed libraries tell them.
//
//   get_all_users, get_all_groups   answer "local_count" and the names, null for none
//   get_group_members               takes "group_name"; answers "user_count" and a true or false per entry
//   get_sms_config                  answers the eight settings
//
// Each request loads its library, makes one call and unloads the library, whatever comes of it: a library
// that is missing, lacks the function or reports an error fails the command. What a call returns is copied or
// owned here before the library goes. The count of a name list is held against the size of its block, which
// is ours; a count beyond it fails the command as well.
#include <malloc.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/platform_library.h"

namespace {

constexpr char kAccountLibrary[] = "/usr/lib/libuCore_NAS.so.0.0";
constexpr char kConfigLibrary[] = "/usr/lib/libuCore_config.so.0.0";

constexpr std::size_t kNameEntrySize = 33;    // bytes from one name of a list to the next
constexpr std::size_t kMaxName = 32;          // characters; an entry that is full has no NUL to rely on
constexpr std::int32_t kMaxMembers = 65536;   // no appliance has so many users; a larger count is no count
constexpr std::size_t kSmsRecordSize = 4096;  // bytes; the platform's own record is far smaller

struct MallocFree {
  void operator()(void* block) const { std::free(block); }
};

// The names that a library has allocated for its caller, or null. `count` is what the library says of them.
struct NameList {
  std::unique_ptr<char, MallocFree> entries;
  std::int32_t count = 0;

  // Whether the block is there for all that is counted.
  bool holds_all() const {
    if (count <= 0) return true;
    return entries && malloc_usable_size(entries.get()) / kNameEntrySize >= static_cast<std::size_t>(count);
  }
};

// ---- Names

struct NameListCommand {
  const char* log_name;
  const char* function;
  const char* list_member;  // of the reply
};

constexpr NameListCommand kUsers = {.log_name = "nos_get_all_users_handler",
                                    .function = "Get_Local_User_List_V2",
                                    .list_member = "user_list"};
constexpr NameListCommand kGroups = {.log_name = "nos_get_all_groups_handler",
                                     .function = "Get_Local_Group_List_V2",
                                     .list_member = "group_list"};

// The two numbers and the null select all local names. The list is the caller's to free, on errors too.
using NameListFunction = std::int32_t(char** list, std::int32_t, std::int32_t, void*, std::int32_t* count);

// Nothing when the library does not give a list, or counts more names than it gives.
std::optional<NameList> fetch_names(const char* function) {
  const PlatformLibrary library(kAccountLibrary);
  auto* const list_names = library.function<NameListFunction>(function);
  if (list_names == nullptr) return std::nullopt;
  char* entries = nullptr;
  NameList names;
  const std::int32_t status = list_names(&entries, 0, 0, nullptr, &names.count);
  names.entries.reset(entries);
  if (status < 0 || !names.holds_all()) return std::nullopt;
  return names;
}

void answer_names(ks_io* io, const NameListCommand& command) {
  handle_bare_request(io, command.log_name, [&](Json::Value& reply) {
    const auto names = fetch_names(command.function);
    if (!names) return Outcome::failure;
    Json::Value list;
    const char* entry = names->entries.get();
    for (std::int32_t i = 0; i < names->count; ++i, entry += kNameEntrySize) {
      list.append(std::string(entry, strnlen(entry, kMaxName)));
    }
    reply["local_count"] = names->count;
    reply[command.list_member] = list;
    return Outcome::success;
  });
}

// ---- Members

// Returns the number of members, and in *list where as many pointers stand, one per member. Whose they are is
// not known: the list may lie inside the library or inside a larger block, and freeing it would then be the
// daemon's end. So it is read while the library is open, and neither it nor what it leads to is released.
using MemberListFunction = std::int32_t(const char* group_name, void*** list);

std::optional<std::vector<bool>> fetch_members(const std::string& group_name) {
  const PlatformLibrary library(kAccountLibrary);
  auto* const list_members = library.function<MemberListFunction>("Get_NAS_User_List_Of_Group_Ex");
  if (list_members == nullptr) return std::nullopt;
  void** entries = nullptr;
  const std::int32_t count = list_members(group_name.c_str(), &entries);
  if (count < 0 || count > kMaxMembers || (count > 0 && entries == nullptr)) return std::nullopt;
  std::vector<bool> present;
  present.reserve(static_cast<std::size_t>(count));
  for (std::int32_t i = 0; i < count; ++i) present.push_back(entries[i] != nullptr);
  return present;
}

// ---- Text messages

// The platform's record. How far its last field goes is not known here, nor what may follow: there is room.
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

bool fetch_sms_settings(SmsSettings* settings) {
  const PlatformLibrary library(kConfigLibrary);
  auto* const get_settings = library.function<SmsFunction>("Get_SMS_config");
  return get_settings != nullptr && get_settings(settings) >= 0;
}

template <std::size_t size>
std::string text_of(const char (&field)[size]) {
  return std::string(field, strnlen(field, size));
}

}  // namespace

void nos_get_all_users_handler(ks_io* io, int) {
  answer_names(io, kUsers);
}

void nos_get_all_groups_handler(ks_io* io, int) {
  answer_names(io, kGroups);
}

void nos_get_group_members_handler(ks_io* io, int) {
  std::string group_name;
  handle_request(io, "nos_get_group_members_handler", {{"group_name", &group_name}}, [&](Json::Value& reply) {
    const auto members = fetch_members(group_name);
    if (!members) return Outcome::failure;
    Json::Value list;
    for (const bool present : *members) list.append(present);
    reply["user_count"] = static_cast<std::int32_t>(members->size());
    reply["user_list"] = list;
    return Outcome::success;
  });
}

void nos_get_sms_config_handler(ks_io* io, int) {
  handle_bare_request(io, "nos_get_sms_config_handler", [](Json::Value& reply) {
    SmsSettings settings{};
    if (!fetch_sms_settings(&settings)) return Outcome::failure;
    reply["mode"] = settings.mode;
    reply["max_provider"] = settings.max_provider;
    reply["now_provider"] = settings.now_provider;
    reply["using_provider"] = settings.using_provider;
    reply["country"] = text_of(settings.country);
    reply["country_code"] = text_of(settings.country_code);
    reply["phone1"] = text_of(settings.phone1);
    reply["phone2"] = text_of(settings.phone2);
    return Outcome::success;
  });
}
