#include "handlers/package_config.h"

#include "common/rdconf.h"

namespace {

constexpr char kPackageConfig[] = "/etc/config/kpkg.conf";
constexpr char kPackageSection[] = "VistalServer";
constexpr char kInstallPathKey[] = "Install_Path";
constexpr char kControlScriptKey[] = "Shell";

}  // namespace

bool package_install_path(std::string* path) {
  return rdconf_value(kPackageConfig, kPackageSection, kInstallPathKey, path);
}

bool package_control_script(std::string* path) {
  return rdconf_value(kPackageConfig, kPackageSection, kControlScriptKey, path);
}
