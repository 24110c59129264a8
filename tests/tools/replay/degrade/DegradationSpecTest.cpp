// Reading the --degrade text: kinds, times and counts, and one-line errors naming the bad item.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "DegradationSpec.h"

using kovane_replay::DegradationRequest;
using kovane_replay::DegradationSpec;
using ::testing::HasSubstr;

namespace {

// Each request as "kind@seconds item" (an automatic time is -1).
std::vector<std::string> parsed(const std::string& text) {
  std::vector<DegradationRequest> out;
  std::string error;
  EXPECT_TRUE(DegradationSpec::parse(text, &out, &error)) << text << ": " << error;
  std::vector<std::string> requests;
  for (const DegradationRequest& r : out) {
    std::ostringstream s;
    s << r.kind << "@" << r.atSeconds << " " << r.item;
    requests.push_back(s.str());
    EXPECT_EQ(r.automatic(), r.atSeconds < 0) << s.str();
  }
  return requests;
}

TEST(DegradationSpec, ReadsKindsTimesAndCounts) {
  EXPECT_TRUE(parsed("").empty());
  EXPECT_TRUE(parsed("  ").empty());
  EXPECT_EQ(parsed("blink@2.5, shake ,defocus*3,Exposure@7,noise@0"),
            (std::vector<std::string>{"blink@2.5 blink@2.5", "shake@-1 shake", "defocus@-1 defocus*3",
                                      "defocus@-1 defocus*3", "defocus@-1 defocus*3", "exposure@7 Exposure@7",
                                      "noise@0 noise@0"}));
  EXPECT_EQ(parsed("noise*1"), (std::vector<std::string>{"noise@-1 noise*1"}));
  EXPECT_EQ(parsed("shake@.5"), (std::vector<std::string>{"shake@0.5 shake@.5"}));
  EXPECT_EQ(parsed("shake@1e1"), (std::vector<std::string>{"shake@10 shake@1e1"}));
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
