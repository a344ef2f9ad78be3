// `install_app`: installs an application package with the package centre's script, which is in the folder that the
// request names, and replies with the script's output. No reply if the script fails.
#include <stdlib.h>

#include <cstddef>
#include <string>
#include <utility>

#include "common/logged_run.h"
#include "common/text.h"
#include "handlers/catalogue.h"
#include "handlers/handler.h"

namespace {

constexpr std::size_t kScriptPathSize = 1024;  // bytes, terminator included

// Sets the variable that permits programs to install. All programs started later with the daemon's environment get it;
// this command's script does not. Set only once, because other threads read the environment: the first change copies
// the original array and is harmless to them, but growing the copy would not be.
void allow_installation() {
  static char variable[] = "KPKGD=ALLOW";  // becomes part of the environment
  // NOLINTNEXTLINE(concurrency-mt-unsafe): see above
  static const int done = putenv(variable);
  (void)done;
}

Outcome install(Request& request) {
  const Json::Value& body = request.body;
  const std::string folder = member_or(body, "sys_install_folder", "").asString();
  std::string package = member_or(body, "app_file_path", "").asString();
  (void)member_or(body, "install_volume", "").asString();  // must be convertible to a text, but is unused
  allow_installation();
  const std::string script = format_bounded(kScriptPathSize, "%s/script/operate_kpkgcenter_app.sh", folder.c_str());
  LoggedRun run{.program = script, .arguments = {"install"}, .failure_shows_output = true};
  run.arguments.push_back(std::move(package));
  return relay_logged(request, std::move(run));
}

}  // namespace

constexpr Command main_service::install_app = Row{
    .params = {optional(text("sys_install_folder")), optional(text("app_file_path")), optional(text("install_volume"))},
    .runs = "SYS_INSTALL_FOLDER/script/operate_kpkgcenter_app.sh install APP_FILE_PATH",
    .answers = "cli_ret, result, result_out",
    .action = {install, Reads::members},
    .indented = true};
