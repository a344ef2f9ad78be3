#include "handlers/package_config.h"

#include <strings.h>

#include "common/rdconf.h"
#include "common/text.h"

namespace {

constexpr char kPackageConfig[] = "/etc/config/kpkg.conf";

bool install_path_of(const char* package, std::string* path) {
  return rdconf_value(kPackageConfig, package, "Install_Path", path);
}

}  // namespace

std::string package_file(const char* package, const char* name, std::size_t size) {
  std::string install_path;
  if (!install_path_of(package, &install_path)) return {};
  return format_bounded(size, "%s/%s", install_path.c_str(), name);
}

bool package_enabled(const char* package) {
  std::string enabled;
  return rdconf_value(kPackageConfig, package, "Enable", &enabled) &&
         strcasecmp(enabled.c_str(), "TRUE") == 0;
}

bool package_install_path(std::string* path) {
  return install_path_of(kOwnPackage, path);
}

bool package_control_script(std::string* path) {
  return rdconf_value(kPackageConfig, kOwnPackage, "Shell", path);
}
