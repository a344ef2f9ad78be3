// What appliance this is: fields of its vital product data (VPD), its display name, what kind of model it is.
//
//   get_vpd_productnamed,        runs the hardware tool for one field, which prints NAME=VALUE; answers VALUE
//   get_vpd_eepkey,
//   get_vpd_channel
//   get_vpd_ext_area             takes "offest" (spelled so) and "length", runs the hardware tool for that
//                                part of the extended area; answers what it prints without blanks and newlines
//   get_platform_display_name    answers a value of the platform's configuration
//   is_generic_model             answers whether a marker file exists
//   is_trn_model                 answers 0
//   get_dispdeck_status          answers a number of the platform's configuration, or 0
//
// Nothing is kept from one request to the next. A hardware tool that cannot be executed or fails is only
// known by what it prints: to the fields that is no NAME=VALUE, to the extended area an empty text.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/log.h"
#include "common/rdconf.h"
#include "common/text.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"

namespace {

constexpr char kHardwareTool[] = "/sbin/hwctl_app";
constexpr std::size_t kChunkSize = 1023;          // bytes of the tool's output that are taken at a time
constexpr std::size_t kFieldArgumentSize = 64;    // bytes, NUL included
constexpr std::size_t kExtAreaArgumentSize = 32;  // bytes, NUL included

constexpr char kPlatformConfig[] = "/etc/platform.conf";
constexpr char kDisplayConfig[] = "/etc/kos.ui.cp.conf";
constexpr char kGenericMarker[] = "/etc/IS_G";

constexpr int kNotStarted = -2;  // what the log calls a hardware tool that could not be started

// One field of the vital product data.
struct VpdField {
  const char* log_name;
  const char* member;        // of the reply
  const char* object_index;  // the tool's number for it
};

constexpr VpdField kProductName = {
    .log_name = "nos_get_vpd_productnamed_handler", .member = "vpd_productnamed", .object_index = "0:7"};
constexpr VpdField kKey = {
    .log_name = "nos_get_vpd_eepkey_handler", .member = "vpd_eepkey", .object_index = "0:8"};
constexpr VpdField kChannel = {
    .log_name = "nos_get_vpd_channel_handler", .member = "vpd_channel", .object_index = "0:9"};

// VALUE of the tool's NAME=VALUE, without the blanks and newlines around it; nothing when the output is of
// any other form.
std::optional<std::string> field_value(const std::string& output) {
  std::vector<std::string> pieces = split_string(output, "=", true);
  if (pieces.size() != 2) return std::nullopt;
  trim_chars(&pieces[1], " \n");
  return std::move(pieces[1]);
}

std::optional<std::string> read_field(const char* object_index) {
  const std::string argument =
      format_bounded(kFieldArgumentSize, "enc_sys_id=root,obj_index=%s", object_index);
  const std::optional<std::string> output =
      piped_output(kHardwareTool, {base_name(kHardwareTool), "--vpd_get_field", argument}, kChunkSize);
  return output ? field_value(*output) : std::nullopt;
}

void answer_field(ks_io* io, const VpdField& field) {
  handle_bare_request(io, field.log_name, [&](Json::Value& reply) {
    const std::optional<std::string> value = read_field(field.object_index);
    if (!value) return Outcome::failure;
    reply[field.member] = *value;
    return Outcome::success;
  });
}

// Nothing when the tool cannot be started.
std::optional<std::string> read_ext_area(std::int32_t offset, std::int32_t length) {
  constexpr char kLogName[] = "system_call_hwctlapp_vpdget_ext_area";
  const std::string argument = format_bounded(kExtAreaArgumentSize, "offset=%d,length=%d", offset, length);
  LOG_AT(kLogName, "/sbin/hwctl_app --vpd_get_ext_area  %s", argument.c_str());
  std::optional<std::string> output =
      piped_output(kHardwareTool, {base_name(kHardwareTool), "--vpd_get_ext_area", argument}, kChunkSize);
  if (output) {
    LOG_AT(kLogName, "str_output=%s", output->c_str());
    strip_blanks_newlines(&*output);
  }
  return output;
}

}  // namespace

void nos_get_vpd_productnamed_handler(ks_io* io, int) {
  answer_field(io, kProductName);
}

void nos_get_vpd_eepkey_handler(ks_io* io, int) {
  answer_field(io, kKey);
}

void nos_get_vpd_channel_handler(ks_io* io, int) {
  answer_field(io, kChannel);
}

void nos_get_vpd_ext_area_handler(ks_io* io, int) {
  constexpr char kLogName[] = "nos_get_vpd_ext_area_handler";
  std::int32_t offset = 0;
  std::int32_t length = 0;
  handle_request(io, kLogName, {{"offest", &offset}, {"length", &length}}, [&](Json::Value& reply) {
    const std::optional<std::string> area = read_ext_area(offset, length);
    if (!area) {
      LOG_AT(kLogName, "get vpd area failed, ret=%d", kNotStarted);
      return Outcome::failure;
    }
    reply["vpd_ext_area"] = *area;
    return Outcome::success;
  });
}

void nos_get_platform_display_name_handler(ks_io* io, int) {
  handle_bare_request(io, "nos_get_platform_display_name_handler", [](Json::Value& reply) {
    std::string name;
    if (!rdconf_value(kPlatformConfig, "MISC", "DISPLAY_NAME", &name)) return Outcome::failure;
    reply["platform_display_name"] = name;
    return Outcome::success;
  });
}

void nos_is_generic_model_handler(ks_io* io, int) {
  constexpr char kLogName[] = "nos_is_generic_model_handler";
  handle_bare_request(io, kLogName, [&](Json::Value& reply) {
    struct stat marker {};
    const bool generic = stat(kGenericMarker, &marker) == 0;
    LOG_AT(kLogName, "%s", generic ? "is generic." : "normal.");
    reply["is_generic"] = generic ? 1 : 0;
    // A normal model is no failure and has no message; but clients know it by this -1.
    reply["result"] = generic ? 0 : -1;
    return Outcome::own;
  });
}

void nos_system_is_TRN_model_handler(ks_io* io, int) {
  constexpr char kLogName[] = "nos_system_is_TRN_model_handler";
  handle_bare_request(io, kLogName, [&](Json::Value& reply) {
    LOG_AT(kLogName, "normal.");
    // There is no such model on the platforms of this build; clients may still ask.
    reply["is_TRN_model"] = 0;
    return Outcome::success;
  });
}

void nos_get_dispdeck_status_handler(ks_io* io, int) {
  handle_bare_request(io, "nos_get_dispdeck_status_handler", [](Json::Value& reply) {
    std::string status;
    const bool found = rdconf_value(kDisplayConfig, "CP_APP", "dispDeck", &status);
    reply["error_code"] = 0;
    reply["dispDeck_Status"] =
        found ? static_cast<std::int32_t>(std::strtol(status.c_str(), nullptr, 10)) : 0;
    return Outcome::own;
  });
}
