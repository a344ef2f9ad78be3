// `system_get_tiermount_cloud_usage`: how much of a tiered folder lies in the cloud, as the tiering service
// has noted it in an attribute of the folder that only root may read.
//
//   request  {"full_path": base64 of the path}
//   runs     /usr/bin/getfattr --only-values --absolute-names -n trusted.tm.cloud_usage PATH
//   reply    {"result": 0, "size_info": base64 of what it printed}
//
// The failure reply when it printed nothing (no such file or attribute, no such tool), or more than a
// "size_info" holds. Its exit status is not looked at.
#include <cstddef>
#include <optional>
#include <string>

#include "common/base64.h"
#include "handlers/captured_run.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"

namespace {

constexpr char kAttributeReader[] = "/usr/bin/getfattr";
constexpr char kAttribute[] = "trusted.tm.cloud_usage";

constexpr std::size_t kEncodedSize = 2048;                     // bytes of a "size_info", terminator included
constexpr std::size_t kMaxUsage = (kEncodedSize - 1) / 4 * 3;  // bytes whose encoding still fits

}  // namespace

void nos_system_get_tiermount_cloud_usage_handler(ks_io* io, int) {
  std::string encoded_path;
  handle_request(io, "nos_system_get_tiermount_cloud_usage_handler", {{"full_path", &encoded_path}},
                 [&](Json::Value& reply) {
                   std::string path;
                   base64_decode(encoded_path, &path);
                   const std::optional<std::string> usage =
                       piped_bytes(kAttributeReader,
                                   {base_name(kAttributeReader), "--only-values", "--absolute-names", "-n",
                                    kAttribute, path.c_str()},
                                   kMaxUsage + 1);
                   if (!usage || usage->empty() || usage->size() > kMaxUsage) return Outcome::failure;
                   reply["size_info"] = base64_text(*usage);
                   return Outcome::success;
                 });
}
