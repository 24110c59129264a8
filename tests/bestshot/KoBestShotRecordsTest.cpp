// Best-shot records: the orderings of score records under the stable Vector sort, the
// algorithm bits and the "no pending shutter press" record.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <utils/Vector.h>

#include "KoBestShot.h"
#include "KoBestShotTypes.h"
#include "KoTopScore.h"

using namespace android;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

KoBestShot::BSScore score(int32_t frameId, float bs, float fe = 0.0f, float faces = 0.0f) {
  KoBestShot::BSScore s;
  memset(&s, 0, sizeof(s));
  s.frameId = frameId;
  s.bsScore = bs;
  s.feScore = fe;
  s.facesScore = faces;
  s.timestampUs = 1000 * frameId;
  return s;
}

std::vector<int32_t> ids(const Vector<KoBestShot::BSScore>& v) {
  std::vector<int32_t> out;
  for (size_t i = 0; i < v.size(); ++i) out.push_back(v[i].frameId);
  return out;
}

}  // namespace

// ---- Comparators ---------------------------------------------------------------------------

TEST(KoBestShotCompare, ResultsAreOnlyOneOrZero) {
  KoBestShot::BSScore low = score(1, 1.0f, 1.0f, 1.0f);
  KoBestShot::BSScore high = score(2, 2.0f, 2.0f, 2.0f);
  KoBestShot::BSScore nan = score(3, kNaN, kNaN, kNaN);
  using Cmp = int (*)(const KoBestShot::BSScore*, const KoBestShot::BSScore*);
  for (Cmp cmp : {&KoBestShot::compare, &KoBestShot::compareFaces, &KoBestShot::compareFE}) {
    EXPECT_EQ(1, cmp(&high, &low));
    EXPECT_EQ(0, cmp(&low, &high)) << "never negative";
    EXPECT_EQ(0, cmp(&low, &low));
    EXPECT_EQ(0, cmp(&nan, &low));
    EXPECT_EQ(0, cmp(&low, &nan));
    EXPECT_EQ(0, cmp(&nan, &nan));
  }
}

TEST(KoBestShotSort, AscendingBestLastEqualKeysKeepTheirOrder) {
  Vector<KoBestShot::BSScore> v;
  v.push_back(score(1, 3.0f));
  v.push_back(score(2, 1.0f));
  v.push_back(score(3, 3.0f));
  v.push_back(score(4, 2.0f));
  v.push_back(score(5, 1.0f));
  v.push_back(score(6, 3.0f));
  v.sort(KoBestShot::compare);
  EXPECT_EQ(std::vector<int32_t>({2, 5, 4, 1, 3, 6}), ids(v));
}

TEST(KoBestShotSort, FacesAndFeOrderingsAreStable) {
  Vector<KoBestShot::BSScore> v;
  v.push_back(score(1, 0.0f, 2.0f, 0.0f));
  v.push_back(score(2, 0.0f, 1.0f, 0.7f));
  v.push_back(score(3, 0.0f, 2.0f, 0.0f));
  v.push_back(score(4, 0.0f, 1.0f, 0.2f));
  Vector<KoBestShot::BSScore> byFe = v;
  byFe.sort(KoBestShot::compareFE);
  EXPECT_EQ(std::vector<int32_t>({2, 4, 1, 3}), ids(byFe));
  Vector<KoBestShot::BSScore> byFaces = v;
  byFaces.sort(KoBestShot::compareFaces);
  EXPECT_EQ(std::vector<int32_t>({1, 3, 4, 2}), ids(byFaces));
}

TEST(KoBestShotSort, NaNIsNeverMovedInFrontOfANeighbour) {
  {
    Vector<KoBestShot::BSScore> v;
    v.push_back(score(1, 3.0f));
    v.push_back(score(2, kNaN));
    v.push_back(score(3, 1.0f));
    v.sort(KoBestShot::compare);
    EXPECT_EQ(std::vector<int32_t>({1, 2, 3}), ids(v)) << "the NaN record blocks, nothing moves";
  }
  {
    Vector<KoBestShot::BSScore> v;
    v.push_back(score(1, kNaN));
    v.push_back(score(2, 2.0f));
    v.push_back(score(3, 1.0f));
    v.sort(KoBestShot::compare);
    EXPECT_EQ(std::vector<int32_t>({1, 3, 2}), ids(v)) << "NaN stays first, the rest is sorted";
  }
  {
    Vector<KoBestShot::BSScore> v;
    v.push_back(score(1, 2.0f));
    v.push_back(score(2, 1.0f));
    v.push_back(score(3, kNaN));
    v.sort(KoBestShot::compare);
    EXPECT_EQ(std::vector<int32_t>({2, 1, 3}), ids(v)) << "NaN stays last";
    EXPECT_TRUE(std::isnan(v[2].bsScore));
  }
}

// ---- Algorithm bits ------------------------------------------------------------------------

TEST(KoTopScoreAlgBits, AllFalseClearsOnlyTheThreeRuleBits) {
  bestShotInfo_t info;
  memset(&info, 0, sizeof(info));
  info.algBitField = 0x1 | 0x2 | 0x4 | 0x8 | KO_BS_ALG_REPLACE_SIMILAR | KO_BS_ALG_REPLACE_SIMILAR_SHIFT;
  info.cancelledAlgBitField = 0x3F;
  KoTopScore::setBestShotAlgBits(&info, false, false, false);
  EXPECT_EQ(0x8u | 0x10000u | 0x20000u, info.algBitField);
  EXPECT_EQ(0x3Fu, info.cancelledAlgBitField) << "the cancelled bits are another word";
}

TEST(KoTopScoreAlgBits, EachFlagSetsItsBit) {
  struct Case {
    bool first, second, third;
    uint32_t bits;
  } cases[] = {
      {true, false, false, 0x1},  {false, true, false, 0x2}, {false, false, true, 0x4},
      {true, true, false, 0x3},   {true, false, true, 0x5},  {true, true, true, 0x7},
  };
  for (const Case& c : cases) {
    bestShotInfo_t info;
    memset(&info, 0, sizeof(info));
    info.algBitField = 0x7 | 0x20000;  // earlier bits are replaced, not merged
    KoTopScore::setBestShotAlgBits(&info, c.first, c.second, c.third);
    EXPECT_EQ(c.bits | 0x20000u, info.algBitField) << c.first << c.second << c.third;
  }
}

TEST(KoTopScoreAlgBits, NullRecordIsIgnored) { KoTopScore::setBestShotAlgBits(nullptr, true, true, true); }

// ---- Records -------------------------------------------------------------------------------

TEST(KoTopScoreRecords, NoCapturedInfoIsMinusOneAndZeroes) {
  KoTopScore::capturedShotInfo_t info;
  memset(&info, 0xAB, sizeof(info));
  KoTopScore::getNoCapturedInfo(info);
  EXPECT_EQ(-1, info.jobId);
  EXPECT_EQ(-1, info.frameId);
  EXPECT_EQ(0, info.timestampUs);
  for (uint8_t b : info.reserved) EXPECT_EQ(0, b);
}
