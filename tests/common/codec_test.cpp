// Base64, the text helpers, temporary files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "common/base64.h"
#include "common/temp_file.h"
#include "common/text.h"
#include "fixture.h"

namespace {

using ::testing::ElementsAre;

TEST(Base64, RoundTripsEveryLengthInPlace) {
  std::mt19937 random(1);
  for (std::size_t length = 0; length <= 300; ++length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    std::string text = bytes;
    ASSERT_EQ(base64_encode(text, &text), static_cast<int>((length + 2) / 3 * 4));
    std::string decoded;
    ASSERT_EQ(base64_decode(text, &decoded), length);
    ASSERT_EQ(decoded, bytes);
  }
}

TEST(Base64, EncodesTheStandardVectorsOverOldContent) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""}, {"a", "YQ=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff\xbf", "+/+/"}};
  for (const auto& [bytes, text] : rows) {
    std::string out = "old";
    EXPECT_EQ(base64_encode(bytes, &out), static_cast<int>(text.size()));
    EXPECT_EQ(out, text);
  }
}

TEST(Base64, DecodesWhatStandsBeforeTheFirstForeignCharacter) {
  const std::pair<std::string, std::string> rows[] = {{"YQ==", "a"},
                                                      {"YQ", "a"},
                                                      {"Zm8", "fo"},
                                                      {"Y", ""},
                                                      {"=YQ=", ""},
                                                      {"Zm9v\nYmFy", "foo"},
                                                      {"Zm9vY", "foo"},
                                                      {"Zm9v-_-_", "foo"},
                                                      {"YQ==YQ==", "a"},
                                                      {" YQ==", ""},
                                                      {std::string("Zm9v\0YmFy", 9), "foo"},
                                                      {"Zm9v\xc3\xa4", "foo"}};
  for (const auto& [text, bytes] : rows) {
    std::string out = "kept:";
    EXPECT_EQ(base64_decode(text, &out), 5 + bytes.size()) << text;
    EXPECT_EQ(out, "kept:" + bytes) << text;
  }
}

TEST(Text, Splits) {
  EXPECT_THAT(split_string(",a,,b,", ",", true), ElementsAre("a", "b"));
  EXPECT_THAT(split_string(",a,,b,", ",", false), ElementsAre("", "a", "", "b", ""));
  EXPECT_THAT(split_string("a b,c", ", ", false), ElementsAre("a", "b", "c"));
  EXPECT_THAT(split_string("whole", ",", true), ElementsAre("whole"));
  EXPECT_THAT(split_string("", ",", false), ElementsAre(""));
  EXPECT_THAT(split_string("", ",", true), ElementsAre());
}

TEST(Text, ErasesAndTrims) {
  const struct {
    const char *text, *stripped, *trimmed;
  } rows[] = {{" a b \n c\n", "abc", "a b \n c"}, {"a\tb", "a\tb", "a\tb"}, {" \n ", "", ""}, {"", "", ""}};
  for (const auto& row : rows) {
    std::string stripped = row.text;
    std::string trimmed = row.text;
    strip_blanks_newlines(&stripped);
    trim_chars(&trimmed, "\n ");
    EXPECT_EQ(stripped, row.stripped);
    EXPECT_EQ(trimmed, row.trimmed);
  }
}

TEST(Text, FormatsIntoTheGivenSize) {
  EXPECT_EQ(format_bounded(8, "-au%s", "four"), "-aufour");
  EXPECT_EQ(format_bounded(8, "-au%s", "fiver"), "-aufive");
  EXPECT_EQ(format_bounded(8, "a%cb", 0), "a");
  EXPECT_EQ(format_bounded(1, "%d", 7), "");
  EXPECT_EQ(format_bounded(0, "%d", 7), "");
}

using TempFileTest = CommonTest;

TEST_F(TempFileTest, IsPrivateAndGoesUnlessReleased) {
  std::string gone;
  std::string kept;
  std::string replaced;
  {
    const TempFile plain;
    TempFile released;
    TempFile removed;
    gone = plain.path();
    kept = released.path();
    replaced = removed.path();
    struct stat info {};
    ASSERT_EQ(stat(gone.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, S_IFREG | 0600u);
    EXPECT_THAT(gone, ::testing::MatchesRegex("/tmp/file[A-Za-z0-9]{6}"));
    released.release();
    EXPECT_TRUE(removed.remove());
    EXPECT_FALSE(removed.remove());
    write_file(replaced, "somebody else's by now");
  }
  EXPECT_FALSE(exists(gone));
  EXPECT_TRUE(std::filesystem::remove(kept));
  EXPECT_TRUE(std::filesystem::remove(replaced));
}

}  // namespace
