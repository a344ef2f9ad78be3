// Identifies the appliance: fields of its vital product data (VPD), its display name, its kind of model.
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
// Nothing is cached. The hardware tool's exit status is ignored. If the tool cannot be executed, its output is empty:
// that is a failure for a field, and an empty text for the extended area.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/captured_run.h"
#include "common/log.h"
#include "common/rdconf.h"
#include "common/text.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kHardwareTool[] = "/sbin/hwctl_app";
constexpr std::size_t kExtAreaArgumentSize = 32;  // bytes, NUL included

constexpr char kPlatformConfig[] = "/etc/platform.conf";
constexpr char kDisplayConfig[] = "/etc/kos.ui.cp.conf";
constexpr char kGenericMarker[] = "/etc/IS_G";

constexpr int kNotStarted = -2;  // logged as the status of a hardware tool that could not be started

// VALUE of the tool's NAME=VALUE, without surrounding blanks and newlines; nothing if the output has another form.
std::optional<std::string> field_value(const std::string& output) {
  std::vector<std::string> pieces = split_string(output, "=", true);
  if (pieces.size() != 2) return std::nullopt;
  trim_chars(&pieces[1], " \n");
  return std::move(pieces[1]);
}

MemberValue get_vpd_field(Request& request) {
  const std::optional<std::string> output =
      piped_output(kHardwareTool, argument_vector(base_name(kHardwareTool), request.arguments()));
  return output ? field_value(*output) : std::nullopt;
}

MemberValue get_ext_area(Request& request, std::int32_t offset, std::int32_t length) {
  constexpr char kReader[] = "system_call_hwctlapp_vpdget_ext_area";  // in the log
  const std::string argument = format_bounded(kExtAreaArgumentSize, "offset=%d,length=%d", offset, length);
  LOG_AT(kReader, "/sbin/hwctl_app --vpd_get_ext_area  %s", argument.c_str());
  std::optional<std::string> output =
      piped_output(kHardwareTool, {base_name(kHardwareTool), "--vpd_get_ext_area", argument});
  if (!output) {
    LOG_AT(request.log_name.c_str(), "get vpd area failed, ret=%d", kNotStarted);
    return std::nullopt;
  }
  LOG_AT(kReader, "str_output=%s", output->c_str());
  strip_blanks_newlines(&*output);
  return output;
}

MemberValue get_display_name(Request&) {
  std::string name;
  if (!rdconf_value(kPlatformConfig, "MISC", "DISPLAY_NAME", &name)) return std::nullopt;
  return name;
}

Outcome answer_generic_model(Request& request) {
  const bool generic = access(kGenericMarker, F_OK) == 0;
  LOG_AT(request.log_name.c_str(), "%s", generic ? "is generic." : "normal.");
  request.reply["is_generic"] = generic ? 1 : 0;
  // Not a failure, so there is no message; clients recognise a normal model by this -1.
  request.reply["result"] = generic ? 0 : -1;
  return Outcome::own;
}

// The platforms of this build have no such model; clients may still ask.
MemberValue get_trn_model(Request& request) {
  LOG_AT(request.log_name.c_str(), "normal.");
  return 0;
}

Outcome answer_dispdeck_status(Request& request) {
  std::string status;
  const bool found = rdconf_value(kDisplayConfig, "CP_APP", "dispDeck", &status);
  request.reply["error_code"] = 0;
  request.reply["dispDeck_Status"] = found ? static_cast<std::int32_t>(std::strtol(status.c_str(), nullptr, 10)) : 0;
  return Outcome::own;
}

}  // namespace

constexpr Command main_service::get_vpd_productnamed = Row{.program = kHardwareTool,
                                                           .args = {"--vpd_get_field", "enc_sys_id=root,obj_index=0:7"},
                                                           .member = "vpd_productnamed",
                                                           .action = calls<get_vpd_field>};

constexpr Command main_service::get_vpd_eepkey = Row{.program = kHardwareTool,
                                                     .args = {"--vpd_get_field", "enc_sys_id=root,obj_index=0:8"},
                                                     .member = "vpd_eepkey",
                                                     .action = calls<get_vpd_field>};

constexpr Command main_service::get_vpd_channel = Row{.program = kHardwareTool,
                                                      .args = {"--vpd_get_field", "enc_sys_id=root,obj_index=0:9"},
                                                      .member = "vpd_channel",
                                                      .action = calls<get_vpd_field>};

constexpr Command main_service::get_vpd_ext_area =
    Row{.params = {number("offest"), number("length")},
        .runs = "/sbin/hwctl_app --vpd_get_ext_area offset=OFFEST,length=LENGTH",
        .member = "vpd_ext_area",
        .action = calls<get_ext_area>};

constexpr Command main_service::get_platform_display_name =
    Row{.runs = "reads DISPLAY_NAME of section MISC in /etc/platform.conf",
        .member = "platform_display_name",
        .action = calls<get_display_name>};

constexpr Command main_service::is_generic_model =
    Row{.runs = "looks for /etc/IS_G", .answers = "is_generic, result", .action = answer_generic_model};

constexpr Command main_service::is_trn_model = Row{.log_name = "nos_system_is_TRN_model_handler",
                                                   .runs = "nothing",
                                                   .member = "is_TRN_model",
                                                   .action = calls<get_trn_model>};

constexpr Command main_service::get_dispdeck_status =
    Row{.runs = "reads dispDeck of section CP_APP in /etc/kos.ui.cp.conf",
        .answers = "dispDeck_Status, error_code",
        .action = answer_dispdeck_status};
