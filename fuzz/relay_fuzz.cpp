// Both relays: any record becomes one line of JSON that says what stands in its fields, and nothing else is read.
// The program is linked with --wrap=ks_call: what would go to the notification service is looked at here.
#include <algorithm>
#include <cstring>
#include <vector>

#include "common/json_param.h"
#include "daemon/event_records.h"
#include "daemon/event_relay.h"
#include "fuzz/input.h"
#include "service/ks.h"

namespace {

struct Request {
  std::string name, text;
};
std::vector<Request> sent;

struct TextField {
  const char* member;
  std::size_t offset;
};
constexpr TextField kNotifyTexts[] = {{"kbus_extra_info", 20}};
constexpr TextField kLogTexts[] = {{"user", 24}, {"source_ip", 89}, {"source_name", 154}, {"content", 219}};
constexpr std::size_t kConnectionShift = 1240;  // where a connection record's fields stand, beyond those

std::int32_t int_at(const std::vector<char>& block, std::size_t offset) {
  std::int32_t value;
  std::memcpy(&value, &block[offset], sizeof(value));
  return value;
}

// The one request that was made of the block, its texts compared.
template <std::size_t count>
Json::Value received(const std::vector<char>& block, const char* name, const TextField (&texts)[count],
                     std::size_t shift = 0) {
  require(sent.size() == 1 && sent[0].name == name, "one request, and its name");
  Json::Value json;
  require(json_parse(sent[0].text, &json) && json["method"] == "notify", "JSON");
  for (const TextField& field : texts) {
    const std::string wanted = &block[field.offset + shift];
    // Bytes that are no UTF-8 are replaced in writing.
    const bool ascii =
        std::all_of(wanted.begin(), wanted.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    require(json[field.member].isString() && (!ascii || json[field.member] == wanted), field.member);
  }
  return json;
}

void check_notify(const std::vector<char>& block) {
  const Json::Value json = received(block, "notify_event", kNotifyTexts);
  require(json["kbus_type"] == int_at(block, 8) && json["kbus_action"] == int_at(block, 12), "numbers");
  require(json["ret_flag"] == (int_at(block, 16) == 1), "flag");
}

void check_log(const std::vector<char>& block, bool connection) {
  const std::size_t shift = connection ? kConnectionShift : 0;
  const Json::Value json = received(block, connection ? "notify_conn" : "notify_log", kLogTexts, shift);
  std::int64_t time;
  std::memcpy(&time, &block[16 + shift], sizeof(time));
  const std::string text = json["time"].asString();
  require(text.size() > 3 && text.substr(0, text.size() - 3) == std::to_string(time), "time");
  require(json["level"] == int_at(block, 12 + shift), "level");
  require(json.isMember("serv") == connection, "members");
  if (connection) require(json["serv"] == int_at(block, 2484) && json["action"] == int_at(block, 2488), "numbers");
}

}  // namespace

extern "C" int __wrap_ks_call(const char*, const char* request, ks_io* io, std::uint32_t, int) {
  std::uint64_t size = 0;
  const auto* text = static_cast<const char*>(ks_io_read(io, &size));
  sent.push_back({request, {text, size}});
  return KS_STATUS_OK;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::size_t kind = input.below(4);  // an event, or a log message of another type and of both known ones
  const std::string record = input.rest();
  std::vector<char> block(kind == 0 ? sizeof(NotifyMessage) + 1 : sizeof(LogMessage) + 1);
  std::copy_n(record.begin(), std::min(record.size(), block.size() - 1 - sizeof(long)), block.begin() + sizeof(long));
  const auto type = static_cast<std::int64_t>(kind) - 1;
  std::memcpy(block.data(), &type, sizeof(type));
  sent.clear();
  kind == 0 ? notify_handler(block.data()) : eventlog_handler(block.data());
  if (kind == 0) {
    check_notify(block);
  } else if (kind == 1) {
    require(sent.empty(), "an unknown type is nothing");
  } else {
    check_log(block, kind == 3);
  }
  return 0;
}
