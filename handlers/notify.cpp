// Notifications that the application passes on through scripts of its own package, run as root.
//
// `system_call_nc_notify`
//   request  {"nc_notify": base64 of the arguments, as a shell reads them}
//   runs     /bin/sh -c "INSTALL_PATH/script/nc_wrapper.sh ARGUMENTS"
// `notify_return`
//   request  {"cmd": 3, "type": number, "acy": number}; any other "cmd" is a failure and runs nothing
//   runs     INSTALL_PATH/vistalpro_notify.sh NOTIFY_CMD TYPE ACY
//
// Both reply {"result": 0}, or the failure reply when the script does not exit with 0.
#include <cstddef>
#include <cstdint>
#include <string>

#include "common/base64.h"
#include "common/text.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/package_config.h"

namespace {

constexpr char kShell[] = "/bin/sh";
constexpr char kWrapper[] = "script/nc_wrapper.sh";
constexpr char kNotifyScript[] = "vistalpro_notify.sh";

// Bytes, terminators included.
constexpr std::size_t kWrapperPathSize = 512;
constexpr std::size_t kCommandLineSize = 4096;
constexpr std::size_t kScriptPathSize = 256;

constexpr std::int32_t kReturnCommand = 3;  // the one "cmd" that the script has a use for

}  // namespace

void nos_system_call_nc_notify_handler(ks_io* io, int) {
  std::string encoded;
  handle_request(io, "nos_system_call_nc_notify_handler", {{"nc_notify", &encoded}}, [&](Json::Value&) {
    const std::string wrapper = package_file(kOwnPackage, kWrapper, kWrapperPathSize);
    std::string arguments;
    base64_decode(encoded, &arguments);
    // Not quoted: the arguments are the client's to quote. Without a wrapper the shell runs them by
    // themselves, which clients rely on; a package list that could not be read counts as one without.
    const std::string line = format_bounded(kCommandLineSize, "%s %s", wrapper.c_str(), arguments.c_str());
    return run_quietly(kShell, {base_name(kShell), "-c", line}) == 0 ? Outcome::success : Outcome::failure;
  });
}

void nos_return_handler(ks_io* io, int) {
  std::int32_t command = 0;
  std::int32_t type = 0;
  std::int32_t acy = 0;
  handle_request(
      io, "nos_return_handler", {{"cmd", &command}, {"type", &type}, {"acy", &acy}}, [&](Json::Value&) {
        if (command != kReturnCommand) return Outcome::failure;
        const std::string script = package_file(kOwnPackage, kNotifyScript, kScriptPathSize);
        if (script.empty()) return Outcome::failure;
        const int status =
            run_quietly(script, {base_name(script), "NOTIFY_CMD", std::to_string(type), std::to_string(acy)});
        return status == 0 ? Outcome::success : Outcome::failure;
      });
}
