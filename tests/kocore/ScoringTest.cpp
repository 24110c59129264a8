// Scores on real pictures: the blur measure on photographs and their blurred and noisy copies;
// the focus/exposure choice on frames of the hand-held bird clip (its whip pan, frames 155..170,
// blurs the picture); best-shot scoring on frames built by the engine's frame creation (sharp
// neighbours tie at the top, blur, motion blur and exposure steps rank below them, blinks below
// open eyes); and blink prediction per face id on the webcam clips' hand-labelled blinks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "DexBlurDetect.h"
#include "DexCameraMotion.h"
#include "DexFocusExposure.h"
#include "KoBestShot.h"
#include "KoFaceIdBasedData.h"
#include "KocoreClips.h"

namespace android {
namespace {

using kocore_test::Plane;
using scoring_test::Job;
using scoring_test::Nv21;
using scoring_test::ScoringHistory;

struct Measure {
  float coeff = -2.0f;
  float sub = -2.0f;
};

// The engine's call: the 2x reduction of the view, and the view for the centre.
Measure engineMeasure(const Plane& view) {
  Plane small = kocore_test::half(view);
  DexBlurDetect det(small.w, small.h, small.w);
  std::vector<short> s1(static_cast<size_t>(small.w) * small.h), s2(s1.size());
  Measure m;
  EXPECT_EQ(0, det.calcBlurMeasure(small.data(), small.w, small.h, small.w, m.coeff, s1.data(),
                                   s2.data(), const_cast<uint8_t*>(view.data()), view.w, m.sub));
  return m;
}

// On analysis views of sharp real pictures of different content: two sharp frames of the
// hand-held bird clip, the group photograph, two portraits (their own view).
TEST(BlurMeasure, BlurAtTheAnalysisViewIsFlaggedSharpAndNoisyPicturesAreNot) {
  constexpr float kThreshold = 0.17f;  // the engine cancels a best shot below this
  unsigned seed = 1;
  for (const char* name : {"cockatoo_f005_1280x720.nv21", "cockatoo_f006_1280x720.nv21", "solvay_1920x1080.nv21",
                           "hopper_512x600.pgm", "astronaut_512x512.pgm"}) {
    SCOPED_TRACE(name);
    const Plane view = std::string(name).find(".pgm") != std::string::npos ? kocore_test::pgmPlane(name)
                                                                            : kocore_test::analysisView(name);
    ASSERT_GT(view.w, 0);
    const Measure sharp = engineMeasure(view);
    const Measure noisy = engineMeasure(kocore_test::noisy(view, 4.0, seed++));
    // Sharp, with or without sensor noise: far above the threshold.
    for (float m : {sharp.coeff, sharp.sub, noisy.coeff, noisy.sub}) EXPECT_GE(m, 0.6f);
    EXPECT_LE(sharp.coeff, 1.0f);
    // Noise is not detail: it changes the measure by little.
    EXPECT_NEAR(sharp.coeff, noisy.coeff, 0.05f);

    const Plane gauss = kocore_test::gaussianBlur(view, 1.5);
    const Plane streak = kocore_test::motionBlur(view, 7);
    for (const Plane& blurred : {gauss, streak, kocore_test::noisy(gauss, 4.0, seed++),
                                 kocore_test::noisy(streak, 4.0, seed++)}) {
      const Measure m = engineMeasure(blurred);
      EXPECT_GE(m.coeff, 0.0f);
      EXPECT_LT(m.coeff, kThreshold - 0.03f);
      // The centre holds a quarter of the picture and reads a little higher on some; the
      // engine decides on the whole picture.
      EXPECT_LT(m.sub, kThreshold + 0.02f);
    }

    // Falls with growing blur; halving the contrast hardly matters.
    float previous = sharp.coeff + 1e-6f;
    for (double sigma : {0.5, 1.0, 1.5, 2.5}) {
      const float c = engineMeasure(kocore_test::gaussianBlur(view, sigma)).coeff;
      EXPECT_LT(c, previous) << sigma;
      previous = c;
    }
    EXPECT_NEAR(sharp.coeff, engineMeasure(kocore_test::contrast(view, 0.5, 64)).coeff, 0.05f);
  }
}

TEST(BlurMeasure, RealMotionBlurOfTheClipIsFlaggedOrdinaryFramesAreNot) {
  auto coeffOf = [](const char* name) {
    return engineMeasure(kocore_test::analysisView(name)).coeff;
  };
  const float sharp = coeffOf("cockatoo_f005_1280x720.nv21");
  const float whip = coeffOf("cockatoo_f160_1280x720.nv21");  // most motion-blurred frame
  EXPECT_LT(whip, 0.17f);
  EXPECT_GE(whip, 0.0f);
  // Frames of moderate sharpness and the start of the pan stay above the threshold, below
  // the sharp frame.
  for (const char* name : {"cockatoo_f100_1280x720.nv21", "cockatoo_f101_1280x720.nv21",
                           "cockatoo_f155_1280x720.nv21"}) {
    const float c = coeffOf(name);
    EXPECT_GE(c, 0.2f) << name;
    EXPECT_LT(c, sharp) << name;
    EXPECT_GT(c, whip) << name;
  }
}

TEST(BlurMeasure, EngineCallMeasuresWholeAndCentreAndRejectsBadArguments) {
  const Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  Plane small = kocore_test::half(view);
  DexBlurDetect det(320, 180, 320);
  std::vector<short> s1(320 * 180), s2(320 * 180);
  const Measure sharp = engineMeasure(view), soft = engineMeasure(kocore_test::gaussianBlur(view, 3.0));
  EXPECT_LT(soft.coeff, 0.17f);
  EXPECT_LT(soft.sub, 0.17f);
  // The static measure of the small image is the engine call's coeff.
  EXPECT_FLOAT_EQ(sharp.coeff, DexBlurDetect::measure(small.data(), 320, 180, 320, s1.data(), s2.data()));
  // Without a view only coeff is measured.
  float c = -1, sub = 0.25f;
  ASSERT_EQ(0, det.calcBlurMeasure(small.data(), 320, 180, 320, c, s1.data(), s2.data(), nullptr, 640, sub));
  EXPECT_FLOAT_EQ(sharp.coeff, c);
  EXPECT_EQ(0.25f, sub);

  // A textureless picture has no measure, nor has a flat one with sensor noise on it.
  std::fill(small.px.begin(), small.px.end(), 128);
  Plane flatView = view;
  std::fill(flatView.px.begin(), flatView.px.end(), 90);
  c = sub = 0.5f;
  ASSERT_EQ(0, det.calcBlurMeasure(small.data(), 320, 180, 320, c, s1.data(), s2.data(), flatView.data(), 640, sub));
  EXPECT_EQ(-1.0f, c);
  EXPECT_EQ(-1.0f, sub);
  const Plane noisyFlat = kocore_test::half(kocore_test::noisy(flatView, 4.0, 3));
  EXPECT_EQ(-1.0f, DexBlurDetect::measure(noisyFlat.data(), 320, 180, 320, s1.data(), s2.data()));

  uint8_t* img = flatView.data();
  c = sub = -1.0f;
  EXPECT_EQ(-1, det.calcBlurMeasure(nullptr, 320, 180, 320, c, s1.data(), s2.data(), img, 640, sub));
  EXPECT_EQ(-1, det.calcBlurMeasure(img, 320, 180, 320, c, nullptr, s2.data(), img, 640, sub));
  EXPECT_EQ(-1, det.calcBlurMeasure(img, 0, 180, 320, c, s1.data(), s2.data(), img, 640, sub));
  EXPECT_EQ(-1, det.calcBlurMeasure(img, 320, -4, 320, c, s1.data(), s2.data(), img, 640, sub));
  EXPECT_EQ(-1.0f, c);
  EXPECT_EQ(-1.0f, sub);
}

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

// An NV21 picture moved by (dx, dy) pixels (even), edges repeated: the small shake between
// consecutive hand-held frames.
Nv21 shifted(const Nv21& p, int dx, int dy) {
  Nv21 o = p;
  for (int k : {1, 2}) {  // luma samples, then the V,U pairs at half the resolution
    const size_t base = k == 1 ? 0 : static_cast<size_t>(p.w) * p.h;
    const int rows = p.h / k, cols = p.w / k;
    for (int y = 0; y < rows; ++y) {
      const size_t from = base + static_cast<size_t>(std::clamp(y - dy / k, 0, rows - 1)) * p.w;
      for (int x = 0; x < cols; ++x) {
        const int sx = std::clamp(x - dx / k, 0, cols - 1);
        std::copy_n(&p.bytes[from + k * sx], k, &o.bytes[base + static_cast<size_t>(y) * p.w + k * x]);
      }
    }
  }
  return o;
}

struct Scene {
  const char* name;
  std::vector<Nv21> pictures;  // used in turn
  double gain;                 // of the exposure step
};

// Background pass over nine frames of a scene; frame 0 has no statistics (no previous frame),
// frames 4, 6 and 7 get a Gaussian blur of 1.5, a motion blur of 9 pixels, the exposure step.
void scoreScene(const Scene& scene) {
  SCOPED_TRACE(scene.name);
  ScoringHistory h;
  for (size_t i = 0; i < 9; ++i) {
    sp<KoFrameData> f = h.make(scene.pictures[i % scene.pictures.size()]);
    ASSERT_NE(f, nullptr);
    const Plane v = scoring_test::viewOf(f);
    if (i == 4) scoring_test::setView(f, kocore_test::gaussianBlur(v, 1.5));
    if (i == 6) scoring_test::setView(f, kocore_test::motionBlur(v, 9));
    if (i == 7) scoring_test::setView(f, kocore_test::contrast(v, scene.gain, 0.0));
    h.add(f);
  }
  Job job(h.snapshot(), 8);
  KoBestShot bs;
  ASSERT_EQ(bs.findFrame(&job.seq), 0);
  Vector<KoBestShot::BSScore> list;
  ASSERT_EQ(bs.getBestShotList(list), 8);
  ASSERT_EQ(job.seq.mBestShotScores.size(), 8u);

  std::map<size_t, KoBestShot::BSScore> byIndex;
  for (size_t k = 0; k < list.size(); ++k) {
    const KoBestShot::BSScore& s = list[k];
    const size_t i = k + 1;  // oldest first, frame 0 unscored
    const sp<KoFrameData> f = h.frame(i);
    EXPECT_EQ(s.frameId, static_cast<int32_t>(f->mFrameId));
    EXPECT_EQ(s.timestampUs, f->mTimestamp);
    EXPECT_EQ(job.seq.mBestShotScores[k].frameIndex, static_cast<int32_t>(i));
    EXPECT_EQ(job.seq.mBestShotScores[k].bsScore, s.bsScore);
    // The frame carries the same scores.
    EXPECT_EQ(static_cast<float>(f->mFeScore), s.feScore);
    EXPECT_EQ(f->mAuxScore, s.auxScore);
    EXPECT_EQ(f->mFacesScore, 0.0f);
    EXPECT_EQ(s.facesScore, 0.0f) << "no face, faces score exactly 0";
    EXPECT_EQ(s.bsScore, s.feScore);
    EXPECT_EQ(std::fmod(s.feScore, 5.0f), 0.0f) << "penalties come in steps of 5";
    byIndex[i] = s;
  }
  const size_t steady[] = {1, 2, 3, 5, 8};
  float lowestSteadyAux = 1e9f;
  for (size_t i : steady) {
    EXPECT_EQ(byIndex[i].feScore, 100.0f) << "steady frame " << i << " scores exactly 100";
    EXPECT_NEAR(byIndex[i].auxScore, h.frame(i)->mSobelStats.mean * 0.92f, 1e-3f) << i;
    lowestSteadyAux = std::min(lowestSteadyAux, byIndex[i].auxScore);
  }
  EXPECT_LE(byIndex[4].feScore, 85.0f) << "Gaussian blur 1.5";
  EXPECT_LE(byIndex[6].feScore, 85.0f) << "motion blur 9 px";
  EXPECT_LT(byIndex[7].feScore, 100.0f) << "exposure step x" << scene.gain;
  EXPECT_EQ(byIndex[4].auxField & KoBestShot::AUX_BLUR, KoBestShot::AUX_BLUR);
  EXPECT_EQ(byIndex[7].auxField & KoBestShot::AUX_EXPOSURE, KoBestShot::AUX_EXPOSURE);
  EXPECT_EQ(byIndex[7].auxField & KoBestShot::AUX_BLUR, 0) << "exposure is not read as blur";
  for (size_t bad : {4, 6, 7}) {
    EXPECT_LT(byIndex[bad].auxScore, lowestSteadyAux) << bad;
    EXPECT_LT(byIndex[bad].bsScore, byIndex[8].bsScore) << bad;
  }
  // The capture is clean: no frame beats it clearly.
  EXPECT_EQ(job.seq.mBestShotInfo[0].generated, 0);
}

TEST(KoBestShotScores, DefectsRankBelowSteadyFramesOnRealScenes) {
  const Nv21 f005 = scoring_test::loadNv21("cockatoo_f005_1280x720.nv21", 1280, 720);
  const Nv21 f006 = scoring_test::loadNv21("cockatoo_f006_1280x720.nv21", 1280, 720);
  const Nv21 solvay = scoring_test::loadNv21("solvay_1920x1080.nv21", 1920, 1080);
  ASSERT_FALSE(f005.bytes.empty() || f006.bytes.empty() || solvay.bytes.empty());
  scoreScene({"cockatoo", {f005, f006}, 0.8});
  scoreScene({"solvay", {solvay, shifted(solvay, 2, 0), shifted(solvay, 2, 2)}, 1.25});
}

TEST(KoBestShotScores, ForegroundPassScoresTheNewestFramesWithStatistics) {
  const Nv21 a = scoring_test::loadNv21("cockatoo_f100_1280x720.nv21", 1280, 720);
  const Nv21 b = scoring_test::loadNv21("cockatoo_f101_1280x720.nv21", 1280, 720);
  ASSERT_FALSE(a.bytes.empty() || b.bytes.empty());
  ScoringHistory h;
  for (int i = 0; i < 8; ++i) {
    sp<KoFrameData> f = h.make(i % 2 ? b : a);
    h.add(f);
    // Frames 1-7 hold a ZSL buffer: only they can become candidates.
    if (i > 0) {
      ASSERT_TRUE(h.addZsl(f->mFrameId));
    }
  }
  KoBestShot bs;
  Vector<KoBestShot::BSScore> list;
  {
    // A newer frame with statistics but no ZSL buffer (yet) is scored, not proposed.
    ScoringHistory g;
    for (int i = 0; i < 4; ++i) {
      sp<KoFrameData> f = g.make(i % 2 ? b : a);
      g.add(f);
      if (i < 3) {
        ASSERT_TRUE(g.addZsl(f->mFrameId));
      }
    }
    Job job(g.snapshot(), 3);
    ASSERT_EQ(bs.findFrameInFG(&job.seq, false), 0);
    ASSERT_EQ(bs.getBestShotList(list), 2);
    EXPECT_EQ(list[0].frameId, static_cast<int32_t>(g.frame(2)->mFrameId));
    EXPECT_EQ(g.frame(3)->mFeScore, 100);
  }
  {
    Job job(h.snapshot(), 7);
    ASSERT_EQ(bs.findFrameInFG(&job.seq, false), 0);
    ASSERT_EQ(bs.getBestShotList(list), 5);
    for (size_t k = 0; k < 5; ++k) {
      const sp<KoFrameData> f = h.frame(7 - k);
      EXPECT_EQ(list[k].frameId, static_cast<int32_t>(f->mFrameId)) << "newest five, newest first";
      EXPECT_EQ(list[k].feScore, 100.0f);
      EXPECT_EQ(static_cast<float>(f->mFeScore), list[k].feScore);
      EXPECT_EQ(f->mBsScore, list[k].bsScore);
      EXPECT_GT(list[k].auxScore, 0.0f);
    }
    EXPECT_EQ(h.frame(2)->mFeScore, 0) << "older frames are left alone";
  }
  // A newer frame whose statistics are not done yet is passed over.
  sp<KoFrameData> late = h.make(a);
  h.hist().addFrameData(late);
  {
    Job job(h.snapshot(), 8);
    ASSERT_EQ(bs.findFrameInFG(&job.seq, false), 0);
    ASSERT_EQ(bs.getBestShotList(list), 5);
    EXPECT_EQ(list[0].frameId, static_cast<int32_t>(h.frame(7)->mFrameId));
    EXPECT_EQ(list[4].frameId, static_cast<int32_t>(h.frame(3)->mFrameId));
  }
  // Camera shake on frame 5, strong subject motion measured on frame 6 (frame 7, without an
  // estimate of its own, shares it): each ranks below the steady frames.
  h.frame(5)->mCamMotion[3] = DexCameraMotion::MODE_SHAKING;
  h.frame(5)->setProcessedEvents(KoFrameData::EVENT_CAM_MOTION);
  const float strong = 0.9f;
  memcpy(&h.frame(6)->mMotionResult[8], &strong, sizeof(strong));
  h.frame(6)->setProcessedEvents(KoFrameData::EVENT_MOTION);
  h.frame(4)->setProcessedEvents(KoFrameData::EVENT_MOTION);  // an estimate of no motion, nearer
                                                              // to frame 5 than that of frame 6
  {
    Job job(h.snapshot(), 7);
    ASSERT_EQ(bs.findFrameInFG(&job.seq, false), 0);
    ASSERT_EQ(bs.getBestShotList(list), 5);
    // Newest first: frames 7, 6, 5, 4, 3.
    EXPECT_EQ(list[4].feScore, 100.0f);
    EXPECT_EQ(list[3].feScore, 100.0f);
    EXPECT_EQ(list[2].feScore, 85.0f) << "shaking camera";
    EXPECT_EQ(list[2].auxField, KoBestShot::AUX_CAMERA_MOTION);
    EXPECT_LE(list[1].feScore, 90.0f) << "subject motion";
    EXPECT_EQ(list[0].feScore, list[1].feScore) << "shares the estimate of frame 6";
    for (size_t k = 0; k < 3; ++k) {
      EXPECT_LT(list[k].auxScore, std::min(list[3].auxScore, list[4].auxScore)) << k;
      EXPECT_LT(list[k].bsScore, list[3].bsScore) << k;
    }
  }
  // No snapshot: nothing.
  KoSequenceData empty{};
  EXPECT_EQ(bs.findFrameInFG(&empty, false), -1);
  EXPECT_EQ(bs.getBestShotList(list), 0);
  EXPECT_EQ(bs.findFrame(&empty), -1);
  EXPECT_EQ(KoBestShot::isFaceScene(0, nullptr), 0);
}

TEST(KoBestShotScores, BlinksRankBelowOpenEyesOnAWebcamClip) {
  // Clip a, frames 630..652: open eyes, the blink 640..643 (hand labels), open again.
  scoring_test::ClipStretch clip;
  ASSERT_TRUE(scoring_test::loadClipStretch("webcam_face_a_400x300_25fps.mp4", 630, 652, clip));
  ScoringHistory h;
  for (size_t i = 0; i < clip.pictures.size(); ++i) {
    sp<KoFrameData> f = h.make(clip.pictures[i]);
    ASSERT_EQ(f->mFaceRefWidth, 640u);
    h.add(f);
  }
  auto idx = [&](int clipFrame) { return static_cast<size_t>(clipFrame - clip.first); };
  // The newest frame's face record has not arrived yet.
  for (size_t i = 0; i + 1 < clip.pictures.size(); ++i) h.addFaces(h.frame(i)->mFrameId, clip.faces[i]);
  for (int frame = 634; frame <= 640; ++frame) ASSERT_TRUE(h.addZsl(h.frame(idx(frame))->mFrameId));

  KoBestShot bs;
  const size_t newest = clip.pictures.size() - 1;
  {
    // Foreground: the newest frame borrows its neighbour's faces score until its record comes;
    // with face records missing altogether it stays unknown.
    Job job(h.snapshot(), static_cast<int>(newest));
    ASSERT_EQ(bs.findFrameInFG(&job.seq, false), 0);
    EXPECT_EQ(h.frame(newest)->mFacesScore, h.frame(newest - 1)->mFacesScore);
    EXPECT_GT(h.frame(newest)->mFacesScore, 0.0f);
    ASSERT_EQ(bs.findFrameInFG(&job.seq, true), 0);
    EXPECT_EQ(h.frame(newest)->mFacesScore, 0.0f);
    EXPECT_EQ(KoBestShot::isFaceScene(static_cast<unsigned>(newest), job.seq.mSnapshot), 1)
        << "judged by the neighbours' faces";
  }
  h.addFaces(h.frame(newest)->mFrameId, clip.faces[newest]);

  Job job(h.snapshot(), static_cast<int>(idx(641)));
  ASSERT_EQ(bs.findFrame(&job.seq), 0);
  const int open[] = {636, 638, 650};
  const int blink[] = {640, 641, 642, 643};
  const float openFaces = h.frame(idx(636))->mFacesScore;
  EXPECT_GE(openFaces, 50.0f);
  EXPECT_LE(openFaces, 80.0f);
  for (int o : open) {
    const sp<KoFrameData> fo = h.frame(idx(o));
    EXPECT_EQ(fo->mFacesScore, openFaces) << "open-eyed frames tie, frame " << o;
    for (int b : blink) {
      const sp<KoFrameData> fb = h.frame(idx(b));
      SCOPED_TRACE(testing::Message() << "open " << o << " blink " << b);
      EXPECT_LT(fb->mFacesScore, fo->mFacesScore);
      EXPECT_LT(fo->mFacesScore - fb->mFacesScore, 25.0f);
      EXPECT_GE(fb->mFacesScore, 50.0f);
      EXPECT_LT(fb->mBsScore, fo->mBsScore);
      EXPECT_LT(fb->mAuxScore, fo->mAuxScore);
    }
  }
  EXPECT_EQ(KoBestShot::isFaceScene(static_cast<unsigned>(idx(641)), job.seq.mSnapshot), 1);

  // The capture blinks: the best frame is an open-eyed neighbour holding a ZSL buffer.
  const bestShotInfo_t& info = job.seq.mBestShotInfo[0];
  ASSERT_EQ(info.generated, 1);
  EXPECT_EQ(info.replace, 1);
  ASSERT_GE(info.frameIndex, static_cast<int32_t>(idx(634)));
  ASSERT_LE(info.frameIndex, static_cast<int32_t>(idx(639)));
  const sp<KoFrameData> chosen = h.frame(static_cast<size_t>(info.frameIndex));
  EXPECT_EQ(info.frameId, static_cast<int32_t>(chosen->mFrameId));
  EXPECT_EQ(info.timestampUs, chosen->mTimestamp);
  EXPECT_EQ(info.bsScore, chosen->mBsScore);
  EXPECT_EQ(chosen->mFacesScore, openFaces);
  EXPECT_GE(chosen->mFeScore, h.frame(idx(641))->mFeScore);

  // An open-eyed capture is not beaten clearly.
  Job openJob(h.snapshot(), static_cast<int>(idx(637)));
  ASSERT_EQ(bs.findFrame(&openJob.seq), 0);
  EXPECT_EQ(openJob.seq.mBestShotInfo[0].generated, 0);
}

TEST(KoBestShotScores, FaceSceneNeedsAFaceOfNoteNearTheFrame) {
  const Nv21 a = scoring_test::loadNv21("cockatoo_f005_1280x720.nv21", 1280, 720);
  ASSERT_FALSE(a.bytes.empty());
  ScoringHistory h;
  for (int i = 0; i < 10; ++i) {
    sp<KoFrameData> f = h.make(a);
    h.add(f);
  }
  KO_cam_face_t big = {};
  big.id = 1, big.left = 600, big.top = 300, big.width = 60, big.height = 60;  // 4.7 % of 1280
  KO_cam_face_t small = big;
  small.width = small.height = 40;  // 3.1 %
  h.addFaces(h.frame(2)->mFrameId, {small});
  h.addFaces(h.frame(5)->mFrameId, {big});
  h.addFaces(h.frame(9)->mFrameId, {});
  KoFrameHistSnapshot* snap = h.snapshot();
  EXPECT_EQ(KoBestShot::isFaceScene(2, snap), 0) << "face too small";
  EXPECT_EQ(KoBestShot::isFaceScene(5, snap), 1);
  EXPECT_EQ(KoBestShot::isFaceScene(4, snap), 1) << "nearest record is frame 5";
  EXPECT_EQ(KoBestShot::isFaceScene(7, snap), 1) << "frame 5 is within three";
  EXPECT_EQ(KoBestShot::isFaceScene(3, snap), 0) << "nearest record, frame 2, has a small face";
  EXPECT_EQ(KoBestShot::isFaceScene(9, snap), 0) << "its own record has no face";
  EXPECT_EQ(KoBestShot::isFaceScene(10, snap), 0) << "out of range";
}
// A history of image-less frames carrying the face records of a clip stretch.
struct RecordHistory {
  KoFrameHist hist;
  KoFrameHistSnapshot* snapshot = nullptr;
  ~RecordHistory() { delete snapshot; }

  void add(uint32_t id, const std::vector<KO_cam_face_t>* faces) {
    sp<KoFrameData> f = kovane_test::makeFrame(id, 1000000 + 40000LL * id);
    hist.addFrameData(f);
    if (faces == nullptr) return;
    sp<KoFaceMetaData> meta = new KoFaceMetaData();
    meta->mValid = 1;
    meta->mFaceData.record.frameId = id;
    meta->mFaceData.record.numFaces = static_cast<uint32_t>(std::min<size_t>(faces->size(), KO_MAX_FACES));
    for (uint32_t k = 0; k < meta->mFaceData.record.numFaces; ++k) meta->mFaceData.record.faces[k] = (*faces)[k];
    hist.addFaceData(id, meta);
  }
  KoFrameHistSnapshot* snap() {
    delete snapshot;
    snapshot = new KoFrameHistSnapshot(&hist);
    return snapshot;
  }
  int32_t predicted(size_t i) { return snapshot->mHistory[i]->mFrameData->mFaceData.numBlinkedPredicted; }
};

KO_cam_face_t face(int id, int left, int right, int smile = 0) {
  KO_cam_face_t f = {};
  f.id = id;
  f.left = 100 * id, f.top = 100, f.width = 80, f.height = 80;
  f.leftBlink = static_cast<uint8_t>(left);
  f.rightBlink = static_cast<uint8_t>(right);
  f.smileDegree = static_cast<uint8_t>(smile);
  return f;
}

struct Stretch {
  const char* clip;
  int first, last;
  std::vector<int> blink;  // hand-labelled closed frames
  std::vector<int> open;   // hand-labelled open frames
};

TEST(KoFaceIdBasedData, PredictsTheHandLabelledBlinksOfTheWebcamClips) {
  const Stretch stretches[] = {
      {"webcam_face_a_400x300_25fps.mp4", 630, 652, {640, 641, 642, 643}, {636, 638, 650}},
      {"webcam_face_a_400x300_25fps.mp4", 762, 786, {774, 775}, {771, 772}},
      {"webcam_face_b_400x300_25fps.mp4", 416, 440, {426, 427, 428, 429}, {422, 423, 433}},
  };
  for (const Stretch& s : stretches) {
    SCOPED_TRACE(testing::Message() << s.clip << " " << s.first << ".." << s.last);
    scoring_test::ClipStretch clip;
    ASSERT_TRUE(scoring_test::loadClipStretch(s.clip, s.first, s.last, clip));
    RecordHistory h;
    for (size_t i = 0; i < clip.faces.size(); ++i) h.add(static_cast<uint32_t>(100 + i), &clip.faces[i]);
    KoFaceIdBasedData data(h.snap());
    const int frames = data.populateFaceIdBasedData();
    for (int b : s.blink) EXPECT_GE(h.predicted(static_cast<size_t>(b - s.first)), 1) << "blink frame " << b;
    for (int o : s.open) EXPECT_EQ(h.predicted(static_cast<size_t>(o - s.first)), 0) << "open frame " << o;
    // The closed frames, and at most the closing and opening frames around them.
    EXPECT_GE(frames, static_cast<int>(s.blink.size()));
    EXPECT_LE(frames, static_cast<int>(s.blink.size()) + 4);
    int blinks = 0;
    for (size_t k = 0; k < data.faceTracks().size(); ++k) blinks += data.faceTracks()[k].blinks;
    EXPECT_EQ(blinks, 1);
  }
}

TEST(KoFaceIdBasedData, ABlinkNeedsOpenEyesOfTheSameFaceAround) {
  RecordHistory h;
  // Face 1 blinks at 4..6 (mid-way, closed, mid-way); face 2 squints throughout (45), face 3
  // keeps its eyes closed throughout; a face record is missing at frame 8.
  const int degrees1[] = {5, 10, 8, 12, 45, 95, 60, 10, 0, 6, 4, 9};
  for (int i = 0; i < 12; ++i) {
    std::vector<KO_cam_face_t> faces = {face(1, degrees1[i], degrees1[i] / 2, 20 + i),
                                                 face(2, 45, 44), face(3, 90, 95)};
    h.add(static_cast<uint32_t>(200 + i), i == 8 ? nullptr : &faces);
  }
  KoFaceIdBasedData data(h.snap());
  EXPECT_EQ(data.populateFaceIdBasedData(), 3);
  for (size_t i = 0; i < 12; ++i) EXPECT_EQ(h.predicted(i), (i >= 4 && i <= 6) ? 1 : 0) << "frame " << i;
  ASSERT_EQ(data.faceTracks().size(), 3u);
  const KoFaceIdBasedData::FaceTrack& t1 = data.faceTracks()[0];
  EXPECT_EQ(t1.id, 1);
  EXPECT_EQ(t1.frames, 11);
  EXPECT_EQ(t1.firstIndex, 0);
  EXPECT_EQ(t1.lastIndex, 11);
  EXPECT_EQ(t1.blinks, 1);
  EXPECT_EQ(t1.blinkFrames, 3);
  EXPECT_EQ(t1.maxSmile, 31);
  EXPECT_EQ(data.faceTracks()[1].blinks, 0) << "squinting is not blinking";
  EXPECT_EQ(data.faceTracks()[2].blinks, 0) << "eyes closed throughout";

  // A second pass over a history in which face 2 blinks too at frame 5 counts both faces there.
  RecordHistory h2;
  for (int i = 0; i < 12; ++i) {
    std::vector<KO_cam_face_t> faces = {face(1, degrees1[i], 0), face(2, i == 5 ? 90 : 5, 5)};
    h2.add(static_cast<uint32_t>(300 + i), &faces);
  }
  KoFaceIdBasedData both(h2.snap());
  EXPECT_EQ(both.populateFaceIdBasedData(), 3);
  EXPECT_EQ(h2.predicted(5), 2);
  EXPECT_EQ(h2.predicted(4), 1);

  // A long closure (more than ten frames) is not a blink; a blink at the newest frame, open
  // before it, is one in progress.
  RecordHistory h3;
  for (int i = 0; i < 26; ++i) {
    const int d = (i >= 3 && i <= 13) || i == 25 ? 90 : 5;
    std::vector<KO_cam_face_t> faces = {face(1, d, d)};
    h3.add(static_cast<uint32_t>(400 + i), &faces);
  }
  KoFaceIdBasedData longClosure(h3.snap());
  EXPECT_EQ(longClosure.populateFaceIdBasedData(), 1);
  EXPECT_EQ(h3.predicted(25), 1);
  EXPECT_EQ(h3.predicted(9), 0);

  KoFaceIdBasedData none(nullptr);
  EXPECT_EQ(none.populateFaceIdBasedData(), -1);
}

}  // namespace
}  // namespace android
