// Block motion on a real picture: camera translation, and a region that moves on its own.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "DexMotionDetection.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

using kocore_test::Plane;
using Result = DexMotionDetection::motionResult_t;

// The group photo at 960x540 gives room to translate a 640x360 view.
const Plane& bigFrame() {
  static const Plane big = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);
  return big;
}

// Current view: the reference translated by (sx, sy); optionally a 120x90 patch around
// (px, py) of the current view additionally moved by (mx, my).
Plane currentView(int sx, int sy, int px = -1, int py = -1, int mx = 0, int my = 0) {
  Plane cur = kocore_test::crop(bigFrame(), 160 - sx, 90 - sy, 640, 360);
  if (px >= 0 && !cur.px.empty()) {
    for (int y = py - 45; y < py + 45; ++y)
      for (int x = px - 60; x < px + 60; ++x)
        cur.px[static_cast<size_t>(y) * 640 + x] =
            bigFrame().at(160 - sx + x - mx, 90 - sy + y - my);
  }
  return cur;
}

// One estimation of `cur` against `ref`, optionally with the caller's scratch buffer; run():
// against the untranslated view, with one.
Result runAgainst(const Plane& ref, const Plane& cur, bool scratch = false) {
  DexMotionDetection md(640, 360);
  EXPECT_EQ(0, md.copyNewRefFrame(ref.data(), 640, 360, 640));
  Result r{};
  std::vector<int16_t> buffer(scratch ? 320 * 180 : 0);
  EXPECT_EQ(0, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, scratch ? buffer.data() : nullptr, 640, &r));
  return r;
}
Result run(const Plane& cur) { return runAgainst(currentView(0, 0), cur, true); }

TEST(BlockMotion, TranslationIsFoundAndAMovingRegionRaisesTheSubjectScore) {
  ASSERT_EQ(960, bigFrame().w);
  const Result still = run(currentView(5, -3));
  EXPECT_GT(still.numBlocks, 300);
  EXPECT_NEAR(5.0f, still.globalDx, 0.5f);
  EXPECT_NEAR(-3.0f, still.globalDy, 0.5f);
  EXPECT_NEAR(std::hypot(5.0, 3.0), still.vecMagMean, 0.5);
  EXPECT_LT(still.frmMotionScoreNorm, 0.03f);
  EXPECT_LT(still.ctrFrmMotionScoreNorm, 0.03f);
  EXPECT_LT(still.matchDiff, 2.0f);
  EXPECT_EQ(0, still.numOpposing);

  const Result side = run(currentView(5, -3, 100, 80, -10, 8));    // top-left region
  const Result centre = run(currentView(5, -3, 320, 180, -10, 8)); // central region
  EXPECT_NEAR(5.0f, side.globalDx, 0.5f);
  EXPECT_NEAR(-3.0f, centre.globalDy, 0.5f);
  EXPECT_GT(side.frmMotionScoreNorm, still.frmMotionScoreNorm + 0.02f);
  EXPECT_GT(centre.frmMotionScoreNorm, still.frmMotionScoreNorm + 0.02f);
  EXPECT_LT(side.ctrFrmMotionScoreNorm, 0.05f);
  EXPECT_GT(centre.ctrFrmMotionScoreNorm, 0.2f);
  EXPECT_GT(centre.ctrFrmMotionScoreNorm, centre.frmMotionScoreNorm);
  EXPECT_GT(side.numOpposing + centre.numOpposing, 0);  // (-10, 8) opposes (5, -3)
}

// An exposure step (gain or offset, clipped as a sensor clips) between the reference and the
// view is no motion; translation and a moving region under an exposure step are still seen.
TEST(BlockMotion, ExposureStepIsNoMotionButMotionUnderItIsSeen) {
  ASSERT_EQ(960, bigFrame().w);
  kocore_test::forEachExposureStep([](const Plane& view, const Plane& stepped) {
    const Result r = runAgainst(view, stepped);
    EXPECT_GT(r.numBlocks, 50);
    EXPECT_EQ(0.0f, r.globalDx);
    EXPECT_EQ(0.0f, r.globalDy);
    EXPECT_LT(r.frmMotionScoreNorm, 0.05f);
    EXPECT_LT(r.ctrFrmMotionScoreNorm, 0.1f);
  });
  const Plane ref = kocore_test::crop(bigFrame(), 160, 90, 640, 360);
  const Plane still = currentView(5, -3), moving = currentView(5, -3, 320, 180, -10, 8);
  for (const kocore_test::ExposureStep& st : kocore_test::kExposureSteps) {
    SCOPED_TRACE(std::to_string(st.gain) + " " + std::to_string(st.offset));
    const Result s = runAgainst(ref, kocore_test::contrast(still, st.gain, st.offset));
    const Result m = runAgainst(ref, kocore_test::contrast(moving, st.gain, st.offset));
    EXPECT_NEAR(5.0f, s.globalDx, 0.5f);
    EXPECT_NEAR(-3.0f, s.globalDy, 0.5f);
    EXPECT_LT(s.frmMotionScoreNorm, 0.03f);
    EXPECT_GT(m.ctrFrmMotionScoreNorm, 0.2f);
    EXPECT_GT(m.frmMotionScoreNorm, s.frmMotionScoreNorm + 0.02f);
  }
  // Two consecutive real frames of the hand-held clip (the bird moves): the subject score
  // hardly depends on a 0.8x exposure step between them.
  const Plane f5 = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  const Plane f6 = kocore_test::analysisView("cockatoo_f006_1280x720.nv21");
  const Result plain = runAgainst(f5, f6), dimmed = runAgainst(f5, kocore_test::contrast(f6, 0.8, 0));
  EXPECT_GT(plain.frmMotionScoreNorm, 0.1f);
  EXPECT_NEAR(plain.frmMotionScoreNorm, dimmed.frmMotionScoreNorm, 0.05f);
}

// The kernel sets (portable, 128-bit vectors, the widest the CPU has) give the same result to
// the bit on real pictures: consecutive frames of the hand-held clip, a translated view with a
// region moving on its own, exposure steps, and views with a row stride above their width. Each
// case runs as the engine runs it: estimate against the stored reference, then store the view.
TEST(BlockMotion, AllKernelSetsGiveIdenticalResults) {
  ASSERT_EQ(960, bigFrame().w);
  struct KernelsRestorer {
    ~KernelsRestorer() { DexMotionDetection::setKernels(DexMotionDetection::KERNELS_FASTEST); }
  } restore;
  const Plane f5 = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  const Plane f6 = kocore_test::analysisView("cockatoo_f006_1280x720.nv21");
  const Plane f100 = kocore_test::analysisView("cockatoo_f100_1280x720.nv21");
  const Plane f101 = kocore_test::analysisView("cockatoo_f101_1280x720.nv21");
  const Plane f155 = kocore_test::analysisView("cockatoo_f155_1280x720.nv21");
  const Plane f160 = kocore_test::analysisView("cockatoo_f160_1280x720.nv21");
  const Plane ref = kocore_test::crop(bigFrame(), 160, 90, 640, 360);
  // A sequence of views, each estimated against the one before.
  const std::vector<Plane> views = {
      f5, f6, kocore_test::contrast(f6, 0.8, 0), f5, f100, f101,
      kocore_test::contrast(f101, 1.25, 0), kocore_test::contrast(f100, 1.0, -25), f155, f160,
      ref, currentView(5, -3), currentView(5, -3, 320, 180, -10, 8),
      kocore_test::contrast(currentView(-7, 4, 100, 80, 9, -6), 0.8, 12), ref};
  // The same views cut to 600x330 and kept with a row stride of 640.
  auto cut = [](const Plane& p) {
    Plane o = p;
    for (int y = 0; y < 330; ++y) std::fill_n(&o.px[static_cast<size_t>(y) * 640 + 600], 40, 0xee);
    return o;
  };
  using Results = std::vector<Result>;
  auto runAll = [&](DexMotionDetection::KernelSet set) {
    DexMotionDetection::setKernels(set);
    Results out;
    for (int w : {640, 600}) {
      DexMotionDetection md(640, 360);
      for (const Plane& v : views) {
        const Plane view = w == 640 ? v : cut(v);
        Result r;
        std::memset(&r, 0x5a, sizeof r);
        EXPECT_EQ(0, md.processMEPerFrame(view.data(), nullptr, nullptr, nullptr, nullptr, 640, &r));
        EXPECT_EQ(0, md.copyNewRefFrame(view.data(), w, w == 640 ? 360 : 330, 640));
        out.push_back(r);
      }
    }
    return out;
  };
  const Results portable = runAll(DexMotionDetection::KERNELS_PORTABLE);
  const Results vector = runAll(DexMotionDetection::KERNELS_VECTOR);
  const Results fastest = runAll(DexMotionDetection::KERNELS_FASTEST);
  ASSERT_EQ(portable.size(), 2 * views.size());
  ASSERT_EQ(vector.size(), portable.size());
  ASSERT_EQ(fastest.size(), portable.size());
  int matched = 0;
  for (size_t i = 0; i < portable.size(); ++i) {
    SCOPED_TRACE("view " + std::to_string(i % views.size()) + (i < views.size() ? "" : " (cut)"));
    EXPECT_EQ(0, std::memcmp(&portable[i], &vector[i], sizeof(Result)));
    EXPECT_EQ(0, std::memcmp(&portable[i], &fastest[i], sizeof(Result)));
    if (i % views.size() != 0) {
      EXPECT_GT(portable[i].numBlocks, 0);
    }
    if (portable[i].numBlocks > 50) ++matched;
  }
  // Not a comparison of empty results: every estimation but the first of each run matched
  // blocks, nearly all of them many (the blurred frame 160 as reference leaves few textured).
  EXPECT_GE(matched, static_cast<int>(portable.size()) - 4);
  EXPECT_EQ(0, portable[0].numBlocks);
  EXPECT_NEAR(5.0f, portable[11].globalDx, 0.5f);  // ref -> currentView(5, -3)
  EXPECT_NEAR(-3.0f, portable[11].globalDy, 0.5f);
}

TEST(BlockMotion, NoReferenceAndBadArguments) {
  ASSERT_EQ(960, bigFrame().w);
  DexMotionDetection md(640, 360);
  const Plane cur = currentView(0, 0);
  Result r;
  std::memset(&r, 0x5a, sizeof r);
  EXPECT_EQ(0, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, nullptr, 640, &r));
  EXPECT_EQ(0, r.numBlocks);
  EXPECT_EQ(0.0f, r.frmMotionScoreNorm);
  EXPECT_EQ(0.0f, r.globalDx);

  EXPECT_EQ(-1, md.copyNewRefFrame(nullptr, 640, 360, 640));
  EXPECT_EQ(-1, md.copyNewRefFrame(cur.data(), 0, 360, 640));
  EXPECT_EQ(-1, md.copyNewRefFrame(cur.data(), 640, -1, 640));
  EXPECT_EQ(-1, md.copyNewRefFrame(cur.data(), 641, 360, 641));  // larger than configured
  ASSERT_EQ(0, md.copyNewRefFrame(cur.data(), 640, 360, 640));
  std::memset(&r, 0x5a, sizeof r);
  const Result before = r;
  EXPECT_EQ(-1, md.processMEPerFrame(nullptr, nullptr, nullptr, nullptr, nullptr, 640, &r));
  EXPECT_EQ(-1, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, nullptr, 320, &r));
  EXPECT_EQ(-1, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, nullptr, 640, nullptr));
  EXPECT_EQ(0, std::memcmp(&before, &r, sizeof r));
}

}  // namespace
}  // namespace android
