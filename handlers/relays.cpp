// Commands that run programs of the platform or of the package: for shares and their rights, the search index,
// analytics, notifications, and the part of a tiered folder that is in the cloud.
//
// Most of them only run one program, and exit status 0 is success. The others:
//
// `system_call_cloud_analysis_register` also writes a record of the registration to the scratch directory.
// `system_call_nc_notify`
//   request  {"nc_notify": base64 of the arguments, as a shell reads them}
//   runs     /bin/sh -c "INSTALL_PATH/script/nc_wrapper.sh ARGUMENTS", as root
// `notify_return`
//   request  {"cmd": 3, "type": number, "acy": number}; any other "cmd" is a failure and runs nothing
//   runs     INSTALL_PATH/vistalpro_notify.sh NOTIFY_CMD TYPE ACY
// `system_get_tiermount_cloud_usage`
//   request  {"full_path": base64 of the path}
//   runs     /usr/bin/getfattr, to read an attribute that the tiering service sets and only root may read
//   reply    {"result": 0, "size_info": base64 of the output}; the failure reply if there is no output (no such
//            file, attribute or tool) or more than a "size_info" can hold. The exit status is ignored.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/base64.h"
#include "common/captured_run.h"
#include "common/debug_record.h"
#include "common/package_config.h"
#include "common/text.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr char kShareGuard[] = "/sbin/share_guard";

// ---- Analytics

constexpr char kAnalyticsTool[] = "/usr/local/bin/kanalytic_tool";
constexpr char kDataDir[] = "/share/.@analytic";
constexpr char kDebugRecord[] = "cloud_analysis_register.dbg";
constexpr std::size_t kCommandTextSize = 512;  // bytes, including the terminator

void write_record(const std::string& command, const std::string& provider, int result) {
  const UniqueStream record = open_debug_record(HeldFolder(kScratchDir), kDebugRecord);
  if (!record) return;
  const std::string text = format_bounded(kCommandTextSize, "%s %s -p %s -c %s", kAnalyticsTool, command.c_str(),
                                          provider.c_str(), kDataDir);
  std::fprintf(record.get(), "cmd=[%s]\n", command.c_str());
  std::fprintf(record.get(), "provide_id=[%s]\n", provider.c_str());
  std::fprintf(record.get(), "str_cloud_analysis_register=[%s]\n", text.c_str());
  std::fprintf(record.get(), "ret_val=[%d]\n", result);
}

Outcome register_provider(Request& request, const std::string& provider, const std::string& command) {
  const int status = run_quietly(kAnalyticsTool, argument_vector(base_name(kAnalyticsTool), request.arguments()));
  write_record(command, provider, exit_status(status));
  return success_if(status == 0);
}

// ---- Notifications

constexpr char kShell[] = "/bin/sh";
constexpr char kWrapper[] = "script/nc_wrapper.sh";
constexpr char kNotifyScript[] = "vistalpro_notify.sh";

// Bytes, including terminators.
constexpr std::size_t kWrapperPathSize = 512;
constexpr std::size_t kCommandLineSize = 4096;
constexpr std::size_t kScriptPathSize = 256;

constexpr std::int32_t kReturnCommand = 3;  // the only "cmd" that the script supports

Outcome pass_notification(Request&, const std::string& encoded) {
  const std::string wrapper = package_file(kOwnPackage, kWrapper, kWrapperPathSize);
  std::string arguments;
  base64_decode(encoded, &arguments);
  // Not quoted: the client quotes the arguments. Without a wrapper the shell runs the arguments as a command, which
  // clients rely on; an unreadable package list counts as no wrapper.
  const std::string line = format_bounded(kCommandLineSize, "%s %s", wrapper.c_str(), arguments.c_str());
  return success_if(run_quietly(kShell, {base_name(kShell), "-c", line}) == 0);
}

Outcome return_notification(Request&, std::int32_t command, std::int32_t type, std::int32_t acy) {
  if (command != kReturnCommand) return Outcome::failure;
  const std::string script = package_file(kOwnPackage, kNotifyScript, kScriptPathSize);
  if (script.empty()) return Outcome::failure;
  const int status = run_quietly(script, {base_name(script), "NOTIFY_CMD", std::to_string(type), std::to_string(acy)});
  return success_if(status == 0);
}

// ---- Cloud usage

constexpr char kAttributeReader[] = "/usr/bin/getfattr";
constexpr char kAttribute[] = "trusted.tm.cloud_usage";

constexpr std::size_t kEncodedSize = 2048;                     // bytes of a "size_info", including the terminator
constexpr std::size_t kMaxUsage = (kEncodedSize - 1) / 4 * 3;  // bytes whose encoding still fits

MemberValue get_cloud_usage(Request&, const std::string& encoded_path) {
  std::string path;
  base64_decode(encoded_path, &path);
  std::vector<std::string> arguments = {base_name(kAttributeReader), "--only-values", "--absolute-names", "-n",
                                        kAttribute};
  arguments.push_back(std::move(path));  // an initializer list would copy it, and it may be large
  const std::optional<std::string> usage = piped_bytes(kAttributeReader, std::move(arguments), kMaxUsage + 1);
  if (!usage || usage->empty() || usage->size() > kMaxUsage) return std::nullopt;
  return base64_text(*usage);
}

}  // namespace

constexpr Command main_service::system_call_share_guard_add =
    Row{.params = {text("share_name")}, .program = kShareGuard, .args = {"add", param("share_name"), "VistalServer"}};

constexpr Command main_service::system_call_share_guard_remove =
    Row{.params = {text("share_name")}, .program = kShareGuard, .args = {"remove", param("share_name")}};

constexpr Command main_service::system_trn_smb_setfolder_priv =
    Row{.params = {text("share_name"), text("command"), text("priv_type")},
        .program = "/etc/init.d/vistal_smb_update.sh",
        .args = {param("command"), param("share_name"), param("priv_type")}};

constexpr Command main_service::system_call_kseek_list_add =
    Row{.params = {text("exclude_name"), text("exclude_path")},
        .program = kControlScript,
        .args = {"kbus_kseek_list_add", param("exclude_name"), param("exclude_path")}};

constexpr Command main_service::system_call_share_folder_renew =
    Row{.program = kControlScript, .args = {"share_folder_renew"}};

constexpr Command main_service::system_call_vistalpro_disable =
    Row{.log_name = "nos_system_system_call_vistalpro_disable_handler",  // clients expect the doubled word
        .program = kControlScript,
        .args = {"force_stop"}};

constexpr Command main_service::system_call_cloud_analysis_register =
    Row{.params = {text("provide_id"), text("command")},
        .program = kAnalyticsTool,
        .args = {param("command"), "-p", param("provide_id"), "-c", kDataDir},
        .action = calls<register_provider>};

constexpr Command main_service::system_call_cloud_analysis_send =
    Row{.params = {text("provide_id"), text("command"), text("record_type"), text("record_text")},
        .program = kAnalyticsTool,
        .args = {param("command"), "-p", param("provide_id"), "-r", param("record_type"), "-e", param("record_text")}};

constexpr Command main_service::system_call_cloud_analysis_flush =
    Row{.params = {text("provide_id"), text("command")},
        .program = kAnalyticsTool,
        .args = {param("command"), "-p", param("provide_id")}};

constexpr Command main_service::system_call_cloud_analysis_unregister =
    Row{.params = {text("provide_id"), text("command")},
        .program = kAnalyticsTool,
        .args = {param("command"), "-p", param("provide_id")}};

constexpr Command main_service::system_call_nc_notify =
    Row{.params = {text("nc_notify")},
        .runs = "/bin/sh -c \"INSTALL_PATH/script/nc_wrapper.sh ARGUMENTS\", NC_NOTIFY being base64 of the arguments",
        .action = calls<pass_notification>};

constexpr Command main_service::notify_return =
    Row{.log_name = "nos_return_handler",
        .params = {number("cmd"), number("type"), number("acy")},
        .runs = "INSTALL_PATH/vistalpro_notify.sh NOTIFY_CMD TYPE ACY, when CMD is 3",
        .action = calls<return_notification>};

constexpr Command main_service::system_get_tiermount_cloud_usage =
    Row{.params = {text("full_path")},
        .runs =
            "/usr/bin/getfattr --only-values --absolute-names -n trusted.tm.cloud_usage PATH, "
            "FULL_PATH being base64 of it",
        .member = "size_info",
        .action = calls<get_cloud_usage>};
