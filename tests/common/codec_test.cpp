// Small readers: base64, typed request parameters, and what the configuration reader prints.
#include "common/base64.h"
#include "common/json_param.h"
#include "common/log.h"
#include "common/rdconf.h"
#include "support/guard.h"

namespace {

TEST(Base64, DecodesUpToTheFirstForeignCharacter) {
  const char* const rows[][2] = {
      {"Zm8", "fo"}, {"Y", ""}, {"=YQ=", ""}, {"Zm9v\nYmFy", "foo"}, {"+/+/", "\xfb\xff\xbf"}};
  for (const auto& [text, bytes] : rows) {
    std::string out = "kept:";
    base64_decode(text, &out);
    EXPECT_EQ(out, std::string("kept:") + bytes) << text;
  }
}

TEST(Base64, DecodesWhatItEncodes) {
  std::string bytes;
  for (std::size_t length = 0; length <= 64; ++length) {
    std::string text, decoded;
    EXPECT_EQ(base64_encode(bytes, &text), static_cast<int>((length + 2) / 3 * 4));
    EXPECT_EQ(base64_decode(text, &decoded), length);
    EXPECT_EQ(decoded, bytes);
    bytes += static_cast<char>(length * 37);
  }
}

TEST(ConfigurationReader, OnlyTheBeginningOfTheFirstLineIsAValue) {
  const std::string x127(127, 'x');
  const struct {
    std::string printed;
    const char* value;  // null: none is found
  } rows[] = {
      {"a b\nc\n", "a b"},    {x127 + "y\n", x127.c_str()}, {"", nullptr},
      {"\nvalue\n", nullptr}, {"RDCONF_FAILD\n", nullptr},  {"a RDCONF_FAILD\n", "a RDCONF_FAILD"},
  };
  for (const auto& row : rows) {
    std::string printed = row.printed + std::string(1, '\0'), value = "before";
    const UniqueStream output(fmemopen(printed.data(), std::max<std::size_t>(row.printed.size(), 1), "r"));
    EXPECT_EQ(rdconf_read_value(output.get(), &value), row.value != nullptr) << row.printed;
    EXPECT_EQ(value, row.value != nullptr ? row.value : "before");
  }
}

using JsonParamTest = GuardedTest;

TEST_F(JsonParamTest, TakesExactlyTheNamedType) {
  log_set_dir(in_dir("log").c_str());
  const struct {
    const char *value, *type;
    bool taken;
  } rows[] = {
      {"5", "string", false},       {"null", "string", false},    {"2147483647", "int", true}, {"5.5", "int", false},
      {"2147483648", "int", false}, {"4294967296", "long", true}, {"true", "bool", true},      {"true", "int", false},
  };
  for (const auto& row : rows) {
    Json::Value root;
    ASSERT_TRUE(json_parse(R"({"k":)" + std::string(row.value) + "}", &root));
    std::int64_t out[4] = {};  // room for any of the types that are taken here
    bool error = false;
    parser_param_from_json_str(root, "k", out, row.type, &error);
    EXPECT_EQ(error, !row.taken) << row.value << " " << row.type;
    EXPECT_EQ(out[0], row.taken ? root["k"].asInt64() : 0);
  }
}

}  // namespace
