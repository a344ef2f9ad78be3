#include "common/package_config.h"

#include <strings.h>

#include "common/rdconf.h"
#include "common/text.h"

namespace {

constexpr char kPackageConfig[] = "/etc/config/kpkg.conf";

// Empty if missing: the reader does not distinguish empty and missing values.
std::string entry(const char* package, const char* key) {
  std::string value;
  rdconf_value(kPackageConfig, package, key, &value);
  return value;
}

}  // namespace

std::string package_file(const char* package, const char* name, std::size_t size) {
  const std::string install_path = entry(package, "Install_Path");
  if (install_path.empty()) return {};
  return format_bounded(size, "%s/%s", install_path.c_str(), name);
}

bool package_enabled(const char* package) {
  return strcasecmp(entry(package, "Enable").c_str(), "TRUE") == 0;
}

std::string package_install_path() {
  return entry(kOwnPackage, "Install_Path");
}

std::string package_control_script() {
  return entry(kOwnPackage, "Shell");
}
