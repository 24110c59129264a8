// Best-shot scoring on real frames built by the engine's frame creation: sharp neighbours tie
// at the top, blur, motion blur and exposure steps rank below them, blinks rank below open
// eyes, and the background pass picks an open-eyed neighbour of a blinking capture.
#include "KoBestShot.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>

#include "DexCameraMotion.h"

#include "ScoringTestFrames.h"

using android::KoBestShot;
using android::KoFrameData;
using android::sp;
using scoring_test::Job;
using scoring_test::Nv21;
using scoring_test::ScoringHistory;

namespace {

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

enum class Change { NONE, BLUR, MOTION_BLUR, EXPOSURE };

struct Scene {
  const char* name;
  std::vector<Nv21> pictures;  // used in turn
  double gain;                 // of the exposure step
};

// Background pass over nine frames of a scene; frame 0 has no statistics (no previous frame).
void scoreScene(const Scene& scene) {
  SCOPED_TRACE(scene.name);
  const Change plan[] = {Change::NONE, Change::NONE,        Change::NONE,     Change::NONE, Change::BLUR,
                         Change::NONE, Change::MOTION_BLUR, Change::EXPOSURE, Change::NONE};
  ScoringHistory h;
  for (size_t i = 0; i < 9; ++i) {
    sp<KoFrameData> f = h.make(scene.pictures[i % scene.pictures.size()]);
    ASSERT_NE(f, nullptr);
    if (plan[i] == Change::BLUR) scoring_test::setView(f, kocore_test::gaussianBlur(scoring_test::viewOf(f), 1.5));
    if (plan[i] == Change::MOTION_BLUR) scoring_test::setView(f, kocore_test::motionBlur(scoring_test::viewOf(f), 9));
    if (plan[i] == Change::EXPOSURE) scoring_test::setView(f, kocore_test::contrast(scoring_test::viewOf(f), scene.gain, 0.0));
    h.add(f);
  }
  Job job(h.snapshot(), 8);
  KoBestShot bs;
  ASSERT_EQ(bs.findFrame(&job.seq), 0);
  android::Vector<KoBestShot::BSScore> list;
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

}  // namespace

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
  android::Vector<KoBestShot::BSScore> list;
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
  h.frame(5)->mCamMotion[3] = android::DexCameraMotion::MODE_SHAKING;
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
  android::KoSequenceData empty{};
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
  const android::bestShotInfo_t& info = job.seq.mBestShotInfo[0];
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
  android::KO_cam_face_t big = {};
  big.id = 1, big.left = 600, big.top = 300, big.width = 60, big.height = 60;  // 4.7 % of 1280
  android::KO_cam_face_t small = big;
  small.width = small.height = 40;  // 3.1 %
  h.addFaces(h.frame(2)->mFrameId, {small});
  h.addFaces(h.frame(5)->mFrameId, {big});
  h.addFaces(h.frame(9)->mFrameId, {});
  android::KoFrameHistSnapshot* snap = h.snapshot();
  EXPECT_EQ(KoBestShot::isFaceScene(2, snap), 0) << "face too small";
  EXPECT_EQ(KoBestShot::isFaceScene(5, snap), 1);
  EXPECT_EQ(KoBestShot::isFaceScene(4, snap), 1) << "nearest record is frame 5";
  EXPECT_EQ(KoBestShot::isFaceScene(7, snap), 1) << "frame 5 is within three";
  EXPECT_EQ(KoBestShot::isFaceScene(3, snap), 0) << "nearest record, frame 2, has a small face";
  EXPECT_EQ(KoBestShot::isFaceScene(9, snap), 0) << "its own record has no face";
  EXPECT_EQ(KoBestShot::isFaceScene(10, snap), 0) << "out of range";
}
