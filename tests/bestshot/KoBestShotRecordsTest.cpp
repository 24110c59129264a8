// Best-shot records: the orderings of score records under the stable Vector sort, the
// algorithm bits and the "no pending shutter press" record.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <vector>

#include <utils/Vector.h>

#include "KoBestShot.h"
#include "KoBestShotTypes.h"
#include "KoTopScore.h"

using namespace android;

TEST(KoBestShotSort, EachOrderingIsStableAndNeverMovesNaNInFront) {
  const float kNaN = std::numeric_limits<float>::quiet_NaN();
  using Cmp = int (*)(const KoBestShot::BSScore*, const KoBestShot::BSScore*);
  struct Ordering {
    Cmp cmp;
    float KoBestShot::BSScore::*key;
  } orderings[] = {{&KoBestShot::compare, &KoBestShot::BSScore::bsScore},
                   {&KoBestShot::compareFaces, &KoBestShot::BSScore::facesScore},
                   {&KoBestShot::compareFE, &KoBestShot::BSScore::feScore}};
  struct Case {
    std::vector<float> keys;      // of frames 1, 2, ...
    std::vector<int32_t> sorted;  // frame ids after the sort
  } cases[] = {
      {{3, 1, 3, 2, 1, 3}, {2, 5, 4, 1, 3, 6}},  // ascending, equal keys keep their order
      {{3, kNaN, 1}, {1, 2, 3}},                 // the NaN record blocks, nothing moves
      {{kNaN, 2, 1}, {1, 3, 2}},                 // NaN stays first, the rest is sorted
      {{2, 1, kNaN}, {2, 1, 3}},                 // NaN stays last
  };
  for (const Ordering& o : orderings) {
    for (const Case& c : cases) {
      Vector<KoBestShot::BSScore> v;
      for (size_t i = 0; i < c.keys.size(); ++i) {
        KoBestShot::BSScore s;
        memset(&s, 0, sizeof(s));
        s.frameId = static_cast<int32_t>(i + 1);
        // The other two scores run the other way: an ordering on the wrong field shows.
        s.bsScore = s.facesScore = s.feScore = -c.keys[i];
        s.*o.key = c.keys[i];
        v.push_back(s);
      }
      v.sort(o.cmp);
      std::vector<int32_t> ids;
      for (size_t i = 0; i < v.size(); ++i) ids.push_back(v[i].frameId);
      EXPECT_EQ(c.sorted, ids) << "ordering " << (&o - orderings);
    }
  }
}

TEST(KoTopScore, SetBestShotAlgBitsReplacesOnlyTheThreeRuleBits) {
  struct Case { bool first, second, third; uint32_t bits; } cases[] = {
      {false, false, false, 0x0}, {true, false, false, 0x1}, {false, true, false, 0x2},
      {false, false, true, 0x4},  {true, false, true, 0x5},  {true, true, true, 0x7},
  };
  const uint32_t kKept = 0x8 | KO_BS_ALG_REPLACE_SIMILAR | KO_BS_ALG_REPLACE_SIMILAR_SHIFT;
  for (const Case& c : cases) {
    bestShotInfo_t info;
    memset(&info, 0, sizeof(info));
    info.algBitField = 0x7 | kKept;  // earlier rule bits are replaced, not merged
    info.cancelledAlgBitField = 0x3F;
    KoTopScore::setBestShotAlgBits(&info, c.first, c.second, c.third);
    EXPECT_EQ(c.bits | kKept, info.algBitField) << c.first << c.second << c.third;
    EXPECT_EQ(0x3Fu, info.cancelledAlgBitField);
  }
  KoTopScore::setBestShotAlgBits(nullptr, true, true, true);  // ignored
}

TEST(KoTopScore, NoCapturedInfoIsMinusOneAndZeroes) {
  KoTopScore::capturedShotInfo_t info;
  memset(&info, 0xAB, sizeof(info));
  KoTopScore::getNoCapturedInfo(info);
  EXPECT_EQ(-1, info.jobId);
  EXPECT_EQ(-1, info.frameId);
  EXPECT_EQ(0, info.timestampUs);
  for (uint8_t b : info.reserved) EXPECT_EQ(0, b);
}
