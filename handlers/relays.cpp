// `system_call_cloud_analysis_register`: registers a data provider with the platform's analytics tool.
//
//   request  {"provide_id": text, "command": word}
//   runs     /usr/local/bin/kanalytic_tool COMMAND -p PROVIDE_ID -c /share/.@analytic
//   reply    {"result": 0}, or the failure reply when the tool does not exit with 0
//
// Either way a record of the registration is left in the scratch directory. The tool's other commands need
// none, see tool_commands.cpp.
#include <cstddef>
#include <cstdio>
#include <string>

#include "common/text.h"
#include "handlers/analytics_tool.h"
#include "handlers/captured_run.h"
#include "handlers/debug_record.h"
#include "handlers/handler.h"
#include "handlers/handlers.h"

namespace {

constexpr char kDataDir[] = "/share/.@analytic";
constexpr char kDebugRecord[] = "cloud_analysis_register.dbg";
constexpr std::size_t kCommandTextSize = 512;  // bytes, terminator included

void write_record(const std::string& command, const std::string& provider, int result) {
  const UniqueStream record = open_debug_record(HeldFolder(kScratchDir), kDebugRecord);
  if (!record) return;
  const std::string text = format_bounded(kCommandTextSize, "%s %s -p %s -c %s", kAnalyticsTool,
                                          command.c_str(), provider.c_str(), kDataDir);
  std::fprintf(record.get(), "cmd=[%s]\n", command.c_str());
  std::fprintf(record.get(), "provide_id=[%s]\n", provider.c_str());
  std::fprintf(record.get(), "str_cloud_analysis_register=[%s]\n", text.c_str());
  std::fprintf(record.get(), "ret_val=[%d]\n", result);
}

}  // namespace

void nos_system_call_cloud_analysis_register_handler(ks_io* io, int) {
  std::string provider;
  std::string command;
  const Params params = {{"provide_id", &provider}, {"command", &command}};
  handle_request(io, "nos_system_call_cloud_analysis_register_handler", params, [&](Json::Value&) {
    const int status =
        run_quietly(kAnalyticsTool, {base_name(kAnalyticsTool), command, "-p", provider, "-c", kDataDir});
    write_record(command, provider, exit_status(status));
    return status == 0 ? Outcome::success : Outcome::failure;
  });
}
