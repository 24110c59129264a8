// Reading the --degrade text: kinds, times and counts, and one-line errors naming the bad item.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DegradationSpec.h"

using kovane_replay::DegradationRequest;
using kovane_replay::DegradationSpec;
using ::testing::HasSubstr;

namespace {

std::vector<DegradationRequest> parsed(const std::string& text) {
  std::vector<DegradationRequest> out;
  std::string error;
  EXPECT_TRUE(DegradationSpec::parse(text, &out, &error)) << text << ": " << error;
  return out;
}

TEST(DegradationSpec, ReadsKindsTimesAndCounts) {
  EXPECT_TRUE(parsed("").empty());
  EXPECT_TRUE(parsed("  ").empty());

  auto r = parsed("blink@2.5, shake ,defocus*3,Exposure@7,noise@0");
  ASSERT_EQ(r.size(), 7u);
  EXPECT_EQ(r[0].kind, "blink");
  EXPECT_DOUBLE_EQ(r[0].atSeconds, 2.5);
  EXPECT_EQ(r[1].kind, "shake");
  EXPECT_TRUE(r[1].automatic());
  for (int i = 2; i < 5; ++i) {
    EXPECT_EQ(r[i].kind, "defocus");
    EXPECT_EQ(r[i].atSeconds, -1.0);
    EXPECT_EQ(r[i].item, "defocus*3");
  }
  EXPECT_EQ(r[5].kind, "exposure");
  EXPECT_DOUBLE_EQ(r[5].atSeconds, 7.0);
  EXPECT_EQ(r[6].kind, "noise");
  EXPECT_DOUBLE_EQ(r[6].atSeconds, 0.0);

  EXPECT_EQ(parsed("noise*1").size(), 1u);
  EXPECT_DOUBLE_EQ(parsed("shake@.5")[0].atSeconds, 0.5);
  EXPECT_DOUBLE_EQ(parsed("shake@1e1")[0].atSeconds, 10.0);
}

TEST(DegradationSpec, RejectsBadItemsNamingThem) {
  const struct {
    const char* text;
    const char* named;
  } bad[] = {
      {"wobble", "wobble"},       {"blink,glare@3", "glare"}, {"blink@", "blink@"},         {"blink@abc", "abc"},
      {"blink@2.5s", "2.5s"},     {"shake@-1", "shake@-1"},   {"blink*0", "blink*0"},       {"blink*-2", "-2"},
      {"blink*1.5", "1.5"},       {"noise*", "noise*"},       {"blink,,shake", "empty"},    {"blink,", "empty"},
      {"shake@2*3", "shake@2*3"}, {"blink@nan", "nan"},       {"shake*5000", "shake*5000"},
  };
  for (const auto& b : bad) {
    std::vector<DegradationRequest> out = {{"blink", 1.0, "left over"}};
    std::string error;
    EXPECT_FALSE(DegradationSpec::parse(b.text, &out, &error)) << b.text;
    EXPECT_THAT(error, HasSubstr(b.named)) << b.text;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_TRUE(out.empty()) << b.text;
  }
  std::string error;
  EXPECT_FALSE(DegradationSpec::parse("blur", nullptr, &error));
  EXPECT_THAT(error, HasSubstr("blink, shake, defocus, exposure, noise"));
  EXPECT_FALSE(DegradationSpec::parse("blur", nullptr, nullptr));
}

}  // namespace
