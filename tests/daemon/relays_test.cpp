// What the daemon relays to tools and scripts with more to it than an argument list: the analytics
// registration, notifications, the cloud usage of a folder.
#include <gmock/gmock.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "common/base64.h"
#include "harness.h"
#include "service/ks.h"

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kSuccess = "{\"result\":0}\n";
const std::string kPaserFail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";

std::string failure(const std::string& log_name) {
  return "{\"error_msg\":\"" + log_name + " fail\",\"result\":-1}\n";
}

std::string base64(const std::string& bytes) {
  std::string encoded;
  base64_encode(bytes, &encoded);
  return encoded;
}

class Relays : public DaemonTest {};

TEST_F(Relays, ARegistrationLeavesARecordHoweverItEnds) {
  constexpr char kCommand[] = "system_call_cloud_analysis_register";
  const std::string record = "/tmp/.vistalsurveillance_log/cloud_analysis_register.dbg";
  const std::string failed = failure("nos_system_call_cloud_analysis_register_handler");
  const StandIn tool("/usr/local/bin/kanalytic_tool");
  const std::string body = R"({"provide_id":"p 1","command":"reg"})";
  const std::string head =
      "cmd=[reg]\nprovide_id=[p 1]\n"
      "str_cloud_analysis_register=[/usr/local/bin/kanalytic_tool reg -p p 1 -c /share/.@analytic]\n"
      "ret_val=[";
  write_file(record, std::string(1000, 'x'));
  const struct {
    const char* script;  // null: no tool
    const char* status;
  } rows[] = {
      {"", "0"}, {"bytes 10485760\n", "0"}, {"exit 3\n", "3"}, {"signal 9\n", "137"}, {nullptr, "127"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.status);
    tool.forget();
    if (row.script != nullptr) {
      tool.plays(row.script);
    } else {
      tool.remove();
    }
    const bool well = std::string("0") == row.status;
    EXPECT_EQ(call(kMain, kCommand, body).text, well ? kSuccess : failed);
    EXPECT_EQ(read_file(record), head + row.status + "]\n");
    if (row.script == nullptr) continue;
    ASSERT_EQ(tool.calls().size(), 1u);
    EXPECT_THAT(tool.calls()[0].argv,
                ElementsAre("kanalytic_tool", "reg", "-p", "p 1", "-c", "/share/.@analytic"));
    EXPECT_THAT(tool.calls()[0].environment, IsEmpty());
  }
  tool.restore();
  tool.forget();

  // The tool is given the whole of a long text, the record's third line has its first 511 characters.
  const std::string id(600, 'i');
  EXPECT_EQ(call(kMain, kCommand, R"({"provide_id":")" + id + R"(","command":"reg"})").text, kSuccess);
  ASSERT_EQ(tool.calls().size(), 1u);
  EXPECT_EQ(tool.calls()[0].argv[3], id);
  const std::string text = ("/usr/local/bin/kanalytic_tool reg -p " + id).substr(0, 511);
  EXPECT_EQ(read_file(record),
            "cmd=[reg]\nprovide_id=[" + id + "]\nstr_cloud_analysis_register=[" + text + "]\nret_val=[0]\n");
  // A refused request is no registration.
  EXPECT_EQ(call(kMain, kCommand, R"({"provide_id":"p"})").text, kPaserFail);
  EXPECT_EQ(tool.calls().size(), 1u);
  tool.forget();
  // Without the directory there is no record, and the reply is the same.
  fs::rename("/tmp/.vistalsurveillance_log", "/tmp/away");
  EXPECT_EQ(call(kMain, kCommand, body).text, kSuccess);
  fs::rename("/tmp/away", "/tmp/.vistalsurveillance_log");
  tool.forget();
}

// Replaces the package list by one that does not tell where the package is.
class NoInstallPath {
 public:
  NoInstallPath() { write_file(kList, "[VistalServer]\nShell = /etc/init.d/vistalserver.sh\n"); }
  NoInstallPath(const NoInstallPath&) = delete;
  NoInstallPath& operator=(const NoInstallPath&) = delete;
  ~NoInstallPath() { write_file(kList, list_); }

 private:
  static constexpr char kList[] = "/etc/config/kpkg.conf";
  const std::string list_ = read_file(kList);
};

TEST_F(Relays, NotificationsGoThroughTheWrapperAsTheShellReadsThem) {
  constexpr char kCommand[] = "system_call_nc_notify";
  const std::string path = "/share/VistalServer/script/nc_wrapper.sh";
  const std::string failed = failure("nos_system_call_nc_notify_handler");
  const StandIn wrapper(path);
  const auto notify = [&](const std::string& value) {
    return call(kMain, kCommand, "{\"nc_notify\":\"" + value + "\"}").text;
  };
  const struct {
    std::string value;
    std::vector<std::string> argv;
  } rows[] = {
      {base64("-A 'a b' $((1+1)) \"c;d\""), {path, "-A", "a b", "2", "c;d"}},
      {"", {path}},
      {"-A", {path}},
      {base64("one two") + "=!" + base64(" three"), {path, "one", "two"}},
      {base64("on") + "rest", {path, "on"}},
      {base64(std::string("one\0two", 7)), {path, "one"}},
      {base64(std::string(5000, 'x')), {path, std::string(4095 - path.size() - 1, 'x')}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value);
    wrapper.forget();
    EXPECT_EQ(notify(row.value), kSuccess);
    ASSERT_EQ(wrapper.calls().size(), 1u);
    EXPECT_EQ(wrapper.calls()[0].argv, row.argv);
  }
  for (const char* script : {"exit 3\n", "signal 9\n"}) {
    wrapper.plays(script);
    EXPECT_EQ(notify(base64("x")), failed) << script;
  }
  wrapper.remove();
  EXPECT_EQ(notify(base64("x")), failed);
  wrapper.restore();
  wrapper.forget();
  EXPECT_EQ(call(kMain, kCommand, R"({"nc_notify":7})").text, kPaserFail);
  {
    const NoInstallPath nowhere;
    EXPECT_EQ(notify(base64(path + " alone")), kSuccess);
    EXPECT_EQ(notify(base64("exit 3")), failed);
  }
  ASSERT_EQ(wrapper.calls().size(), 1u);
  EXPECT_THAT(wrapper.calls()[0].argv, ElementsAre(path, "alone"));
  wrapper.forget();
}

TEST_F(Relays, TheNotificationScriptIsRunForCommandThreeOnly) {
  const std::string failed = failure("nos_return_handler");
  const StandIn script("/share/VistalServer/vistalpro_notify.sh");
  const auto notify = [](const std::string& body) { return call(kMain, "notify_return", body).text; };
  const std::string good = R"({"cmd":3,"type":-1,"acy":5})";
  EXPECT_EQ(notify(good), kSuccess);
  EXPECT_EQ(notify(R"({"cmd":3,"type":2147483647,"acy":-2147483648})"), kSuccess);
  const std::vector<StandInCall> calls = script.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_THAT(calls[0].argv, ElementsAre("vistalpro_notify.sh", "NOTIFY_CMD", "-1", "5"));
  EXPECT_THAT(calls[1].argv, ElementsAre("vistalpro_notify.sh", "NOTIFY_CMD", "2147483647", "-2147483648"));
  EXPECT_THAT(calls[0].environment, IsEmpty());
  for (const char* outcome : {"exit 3\n", "signal 9\n"}) {
    script.plays(outcome);
    EXPECT_EQ(notify(good), failed) << outcome;
  }
  script.remove();
  EXPECT_EQ(notify(good), failed);
  script.restore();
  script.forget();

  EXPECT_EQ(notify(R"({"cmd":2,"type":1,"acy":5})"), failed);
  EXPECT_EQ(notify(R"({"cmd":-3,"type":1,"acy":5})"), failed);
  EXPECT_EQ(notify(R"({"cmd":3,"type":4294967296,"acy":5})"), kPaserFail);
  EXPECT_EQ(notify(R"({"cmd":3,"type":1,"acy":"5"})"), kPaserFail);
  EXPECT_EQ(notify(R"({"cmd":2,"type":1})"), kPaserFail);
  {
    const NoInstallPath nowhere;
    EXPECT_EQ(notify(good), failed);
  }
  EXPECT_THAT(script.calls(), IsEmpty());
  script.forget();
}

constexpr char kUsageCommand[] = "system_get_tiermount_cloud_usage";
const std::string kUsageFailed = failure("nos_system_get_tiermount_cloud_usage_handler");

std::string usage_of(const std::string& path) {
  return call(kMain, kUsageCommand, "{\"full_path\":\"" + base64(path) + "\"}").text;
}

std::string usage_reply(const std::string& output) {
  return "{\"result\":0,\"size_info\":\"" + base64(output) + "\"}\n";
}

// Puts a stand-in in the place of the machine's own attribute reader, which is kept as a copy: an ordinary
// user's view of the machine lets him delete another user's file, but not move it.
class StandInReader {
 public:
  StandInReader() {
    fs::copy_file(kPath, kAside);
    fs::remove(kPath);
    fs::copy_file("/sbin/share_guard", kPath);
  }
  StandInReader(const StandInReader&) = delete;
  StandInReader& operator=(const StandInReader&) = delete;
  ~StandInReader() {
    tool.forget();
    fs::rename(kAside, kPath);
  }
  const StandIn tool{kPath};

 private:
  static constexpr char kPath[] = "/usr/bin/getfattr";
  static constexpr char kAside[] = "/usr/bin/getfattr.real";
};

TEST_F(Relays, CloudUsageIsWhatTheReaderPrints) {
  const StandInReader reader;
  const struct {
    const char* script;
    std::string reply;
  } rows[] = {
      {"stdout 12345\nstderr no\n", usage_reply("12345")},
      {"stdout a\\x00\\xFF\\n\n", usage_reply(std::string("a\0\xFF\n", 4))},
      {"stdout 1\ndelay 20\nstdout 2\nexit 1\n", usage_reply("12")},
      {"stdout 7\nsignal 9\n", usage_reply("7")},
      {"stdout 8\nlinger 50\n", usage_reply("8")},
      {"bytes 1533\n", usage_reply(std::string(1533, '#'))},
      {"bytes 1534\n", kUsageFailed},
      {"bytes 10485760\n", kUsageFailed},
      {"stderr no such attribute\nexit 1\n", kUsageFailed},
      {"signal 9\n", kUsageFailed},
  };
  for (const auto& row : rows) {
    reader.tool.plays(row.script);
    EXPECT_EQ(usage_of("/share/Cold 1"), row.reply) << row.script;
  }
  ASSERT_EQ(reader.tool.calls().size(), std::size(rows));
  EXPECT_THAT(reader.tool.calls()[0].argv, ElementsAre("getfattr", "--only-values", "--absolute-names", "-n",
                                                       "trusted.tm.cloud_usage", "/share/Cold 1"));
  reader.tool.forget();
  usage_of(std::string("/a\0b", 4));
  ASSERT_EQ(reader.tool.calls().size(), 1u);
  EXPECT_EQ(reader.tool.calls()[0].argv.back(), "/a");
  EXPECT_EQ(call(kMain, kUsageCommand, R"({"full_path":["x"]})").text, kPaserFail);
  reader.tool.remove();
  EXPECT_EQ(usage_of("/share/Cold 1"), kUsageFailed);
  reader.tool.restore();
}

TEST_F(Relays, CloudUsageReadByTheRealReader) {
  const std::string path = "/tmp/tiered folder";
  fs::create_directory(path);
  EXPECT_EQ(usage_of(path), kUsageFailed) << "no attribute";
  const std::string usage("1048576\0 of 7", 13);
  if (setxattr(path.c_str(), "trusted.tm.cloud_usage", usage.data(), usage.size(), 0) != 0) {
    const int reason = errno;
    fs::remove(path);
    GTEST_SKIP() << "no trusted attributes here: " << std::strerror(reason);
  }
  EXPECT_EQ(usage_of(path), usage_reply(usage));
  fs::remove(path);
  EXPECT_EQ(usage_of(path), kUsageFailed) << "no folder";
}

}  // namespace
