// `install_app`: installs an application package by the package centre's script.
//
//   request  {"sys_install_folder": folder of the script, "app_file_path": the package, "install_volume": text,
//            not used}
//   runs     SYS_INSTALL_FOLDER/script/operate_kpkgcenter_app.sh install APP_FILE_PATH
//   reply    {"cli_ret": 0, "result": 0, "result_out": base64 of the output}, indented; none when the script
//            failed
#include <stdlib.h>

#include <cstddef>
#include <string>

#include "common/text.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"
#include "handlers/logged_run.h"

namespace {

constexpr char kLogName[] = "nos_install_app_handler";
constexpr std::size_t kScriptPathSize = 1024;  // bytes, terminator included

// Tells programs that are started with the daemon's environment from then on, not this command's script, that
// they may install. Once, because other threads read the environment meanwhile: that the C library replaces
// the array of its own start is harmless to them, that it grows its replacement would not be.
void allow_installation() {
  static char variable[] = "KPKGD=ALLOW";  // becomes part of the environment
  // NOLINTNEXTLINE(concurrency-mt-unsafe): see above
  static const int done = putenv(variable);
  (void)done;
}

}  // namespace

void nos_install_app_handler(ks_io* io, int) {
  handle_object_request(io, kLogName, Layout::indented, [](const Json::Value& request, Json::Value& reply) {
    const std::string folder = request.get("sys_install_folder", "").asString();
    const std::string package = request.get("app_file_path", "").asString();
    (void)request.get("install_volume", "").asString();  // must be convertible, but is not passed on
    allow_installation();
    const LoggedRun run = {
        .program = format_bounded(kScriptPathSize, "%s/script/operate_kpkgcenter_app.sh", folder.c_str()),
        .arguments = {"install", package},
        .failure_shows_output = true};
    return run_logged(kLogName, run, reply);
  });
}
