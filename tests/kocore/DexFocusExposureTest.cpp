// Focus/exposure choice on frames built from the hand-held bird clip: its whip pan (frames
// 155..170) blurs the picture, and exposure steps are applied to real frames.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DexFocusExposure.h"
#include "KocoreClipViews.h"

namespace android {
namespace {

using kocore_test::Plane;

// The 640x360 analysis views (2x reductions of the 1280x720 frames) of frames first..last.
std::vector<Plane> cockatooViews(int first, int last) {
  return kocore_test::clipViews("cockatoo_1280x720_20fps.mp4", 1280, 720, first, last);
}

// Frames 50 ms apart (the clip's rate) with the foreground's statistics of their small images,
// and the sequence statistics the background computes.
struct Sequence : kocore_test::ViewHistory {
  KO_dataStats_t luma{}, diff{}, sobel{};
  explicit Sequence(const std::vector<Plane>& views) : ViewHistory(views, 50000, [](size_t, KoFrameData&) {}) {
    DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(snapshot, &luma, size(), 0, 0);
    DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(snapshot, &diff, size(), 1, 0);
    DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(snapshot, &sobel, size(), 2, 0);
  }

  // The chosen index for a capture at `captured`; checks that the id goes with the index.
  int best(int captured) {
    DexFocusExposure fe(35);
    int index = captured, id = static_cast<int>(frame(captured)->mFrameId);
    EXPECT_EQ(0, fe.findBestFocusExpKO(snapshot, size(), &index, &id, 0, diff, luma, sobel));
    EXPECT_EQ(static_cast<int>(frame(index)->mFrameId), id);
    return index;
  }
  double sharpness(int i) const {
    return frame(i)->mSobelStats.mean / frame(i)->mLumaStats.stddev;
  }
};

TEST(FocusExposure, ASharperFrameNearAMotionBlurredCaptureIsChosen) {
  // Frames 148..172: the pan starts at 155 and blurs most at 160 (index 12).
  Sequence seq(cockatooViews(148, 172));
  ASSERT_EQ(25u, seq.snapshot->size());
  const int chosen = seq.best(12);
  EXPECT_NE(12, chosen);
  EXPECT_LE(std::abs(chosen - 12), 6);
  // The pan also changes the scene (brighter, less contrast), so the frames at its start,
  // darker than the stretch's median, lose on exposure; the chosen one is clearly sharper.
  EXPECT_GT(seq.sharpness(chosen), 1.1 * seq.sharpness(12));
  EXPECT_GT(seq.frame(chosen)->mSobelStats.mean, 1.2f * seq.frame(12)->mSobelStats.mean);

  // The sharpest frame of the stretch (frame 0 has no statistics) keeps its place as the capture.
  int sharpest = 1;
  for (int i = 2; i < 25; ++i) {
    if (seq.sharpness(i) > seq.sharpness(sharpest)) sharpest = i;
  }
  EXPECT_EQ(sharpest, seq.best(sharpest));
}

TEST(FocusExposure, SharpnessIsJudgedIndependentlyOfExposureAndOnlyWithinReach) {
  const std::vector<Plane> views = cockatooViews(0, 20);  // the steady, sharp start of the clip
  ASSERT_EQ(21u, views.size());
  // A higher-contrast copy of a neighbour (same mean, 1.3x the spread) has stronger edges but is
  // not sharper: the capture stays.
  {
    std::vector<Plane> v = views;
    double mean = 0;
    for (uint8_t p : v[11].px) mean += p;
    mean /= static_cast<double>(v[11].px.size());
    v[11] = kocore_test::contrast(v[11], 1.3, -0.3 * mean);
    Sequence seq(v);
    EXPECT_GT(seq.frame(11)->mSobelStats.mean, 1.2f * seq.frame(10)->mSobelStats.mean);
    EXPECT_EQ(10, seq.best(10));
  }
  // A capture caught in an exposure transient (0.6x) gives way to a well exposed neighbour.
  {
    std::vector<Plane> v = views;
    v[10] = kocore_test::contrast(v[10], 0.6, 0);
    Sequence seq(v);
    const int chosen = seq.best(10);
    EXPECT_NE(10, chosen);
    EXPECT_LE(std::abs(chosen - 10), 6);
  }
  // Every frame blurred except one: chosen 5 frame ids away, not 7.
  for (int distance : {5, 7}) {
    std::vector<Plane> v;
    for (size_t i = 0; i < views.size(); ++i) {
      v.push_back(static_cast<int>(i) == 3 + distance ? views[i] : kocore_test::gaussianBlur(views[i], 2.0));
    }
    Sequence seq(v);
    EXPECT_EQ(distance == 5 ? 8 : 3, seq.best(3)) << distance;
  }
}

TEST(FocusExposure, InvalidArguments) {
  Sequence seq(cockatooViews(0, 4));
  DexFocusExposure fe(35);
  int index = 2, id = 502;
  EXPECT_EQ(-1, fe.findBestFocusExpKO(nullptr, 5, &index, &id, 0, seq.diff, seq.luma, seq.sobel));
  EXPECT_EQ(-1, fe.findBestFocusExpKO(seq.snapshot, 5, nullptr, &id, 0, seq.diff, seq.luma, seq.sobel));
  EXPECT_EQ(-1, fe.findBestFocusExpKO(seq.snapshot, 0, &index, &id, 0, seq.diff, seq.luma, seq.sobel));
  index = 9;
  EXPECT_EQ(-1, fe.findBestFocusExpKO(seq.snapshot, 5, &index, &id, 0, seq.diff, seq.luma, seq.sobel));
  EXPECT_EQ(9, index);
  EXPECT_EQ(502, id);
}

}  // namespace
}  // namespace android
