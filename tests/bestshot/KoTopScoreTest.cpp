// The best-shot orderings, the top-score list (which frames keep their ZSL buffers, counted
// through the frame-done callbacks of real buffer bookkeeping) and the best-shot decision rules,
// on real pictures where a rule looks at pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include <utils/Vector.h>

#include "../framedata/FrameTestSupport.h"
#include "../kocore/KocoreTestImages.h"
#include "DexFrameMetaData.h"
#include "KoBestShot.h"
#include "KoBestShotTypes.h"
#include "KoFrameHist.h"
#include "KoTopScore.h"
#include "fastcv.h"

using namespace android;

namespace {

const int64_t kFrameUs = 40000;  // 25 frames a second
using Ids = std::vector<int32_t>;

sp<ABuffer> allocImage(size_t bytes) {
  void* mem = fcvMemAlloc(static_cast<unsigned int>(bytes), 16);
  memset(mem, 0, bytes);
  return new ABuffer(mem, bytes);
}

// Gives a frame the 640x360 picture `view` the way frame creation and the statistics pass do;
// the images it had go back to the aligned allocator, as in the frame's destructor.
void setPicture(const sp<KoFrameData>& f, const kocore_test::Plane& view) {
  for (sp<ABuffer>* image : {&f->mDownscaledImage, &f->mSmallImage, &f->mSobelBuffer1, &f->mSobelBuffer2}) {
    if (*image != nullptr) fcvMemFree((*image)->base());
    image->clear();
  }
  ASSERT_EQ(static_cast<int>(KoFrameData::ANALYSIS_WIDTH), view.w);
  ASSERT_EQ(static_cast<int>(KoFrameData::ANALYSIS_HEIGHT), view.h);
  const size_t luma = static_cast<size_t>(view.w) * view.h;
  f->mDownscaledImage = allocImage(luma * 3 / 2);
  memcpy(f->mDownscaledImage->data(), view.data(), luma);
  memset(f->mDownscaledImage->data() + luma, 128, luma / 2);
  f->mWidth = f->mAnalysisWidth = KoFrameData::ANALYSIS_WIDTH;
  f->mHeight = f->mAnalysisHeight = KoFrameData::ANALYSIS_HEIGHT;
  f->mAnalysisImage = f->mDownscaledImage->data();
  f->mSmallWidth = KoFrameData::SMALL_WIDTH;
  f->mSmallHeight = KoFrameData::SMALL_HEIGHT;
  f->mSmallImage = allocImage(KoFrameData::SMALL_IMAGE_BYTES);
  f->mSobelBuffer1 = allocImage(KoFrameData::SOBEL_BUFFER_BYTES);
  f->mSobelBuffer2 = allocImage(KoFrameData::SOBEL_BUFFER_BYTES);
  DexFrameMetaData::downScaleLuma2x(f->mSmallImage->data(), f->mAnalysisImage, f->mAnalysisWidth,
                                    f->mSmallWidth, f->mSmallHeight);
  DexFrameMetaData::calcSobelFrame(f->mSmallImage->data(), &f->mSobelStats, f->mSmallWidth, f->mSmallHeight, 0,
                                   reinterpret_cast<int16_t*>(f->mSobelBuffer1->data()),
                                   reinterpret_cast<int16_t*>(f->mSobelBuffer2->data()));
  f->mHistogramBins = KoFrameData::HISTOGRAM_BINS;
  if (!f->mHistogram) f->mHistogram = static_cast<uint32_t*>(malloc(KoFrameData::HISTOGRAM_BINS * sizeof(uint32_t)));
  DexFrameMetaData::genHistogramPow2(f->mSmallImage->data(), f->mHistogram, f->mSmallWidth, f->mSmallHeight,
                                     f->mSmallWidth, f->mHistogramBins);
}

// The analysis view of the sharp cockatoo frame, read once.
const kocore_test::Plane& sharpView() {
  static const kocore_test::Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  return view;
}

KoBestShot::BSScore score(int32_t frameId, int64_t ts, float bs, float fe = 0, float aux = 0, float faces = 0) {
  KoBestShot::BSScore s{};
  s.frameId = frameId, s.timestampUs = ts;
  s.bsScore = bs, s.feScore = fe, s.auxScore = aux, s.facesScore = faces;
  return s;
}

void scores(const sp<KoFrameData>& f, int32_t fe, float bs, float aux) {
  f->mFeScore = fe, f->mBsScore = bs, f->mAuxScore = aux;
}

// A zeroed decision record pointing at history index frameIndex.
bestShotInfo_t blank(int32_t frameIndex, uint8_t generated = 0) {
  bestShotInfo_t info{};
  info.frameIndex = frameIndex, info.generated = generated;
  return info;
}

// Engine double, history and list, destroyed list first and engine last.
class Bench {
 public:
  Bench() : top(&hist) {}

  // Adds frame `id` to the history, with a registered ZSL buffer when `zsl`.
  sp<KoFrameData> add(uint32_t id, int64_t ts, bool zsl = true) {
    sp<KoFrameData> f = kovane_test::makeFrame(id, ts);
    hist.addFrameData(f);
    sp<KoMemoryBuffer> memory;
    if (zsl) { EXPECT_TRUE(ctx.memory()->addZslBuffer(kovane_test::zslAddress(id), &memory)) << "frame " << id; }
    if (memory != nullptr) hist.addZslData(memory, nullptr, id);
    return f;
  }
  void meta(uint32_t id, float expTime, int32_t lux = 0) {
    Ko_CameraMetaData_t values{};
    values.expTime = expTime, values.luxLevel = lux;
    sp<ABuffer> buffer = new ABuffer(sizeof(values));
    hist.addMetaData(id, buffer, &values);
  }
  void faces(uint32_t id, uint32_t numFaces, int32_t blinked = 0) {
    sp<KoFaceMetaData> face = new KoFaceMetaData();
    face->mValid = 1, face->mFaceData.record.frameId = id, face->mFaceData.record.numFaces = numFaces;
    face->mFaceData.numBlinkedPredicted = blinked;
    hist.addFaceData(id, face);
  }
  sp<KoFrameData> frame(uint32_t id) {
    sp<KoFrameData> f;
    hist.getItemWithFrameId(id, f);
    return f;
  }
  void merge(const std::vector<KoBestShot::BSScore>& batch, bool missingFaceData = true) {
    Vector<KoBestShot::BSScore> v;
    for (const auto& s : batch) v.push_back(s);
    top.addTopScoreList(v, missingFaceData);
  }
  Ids listIds() const {
    Ids ids;
    for (size_t i = 0; i < top.mTopScoreList.size(); ++i) ids.push_back(top.mTopScoreList[i].frameId);
    return ids;
  }
  // The frames whose buffers went back to the camera, ascending, once per return.
  Ids gone() {
    Ids out;
    for (void* p : ctx.returned()) out.push_back(static_cast<int32_t>((reinterpret_cast<uintptr_t>(p) >> 12) - 16));
    std::sort(out.begin(), out.end());
    return out;
  }

  kovane_test::TestEngineContext ctx;
  KoFrameHist hist;
  KoTopScore top;
};

}  // namespace

TEST(KoBestShotSort, EachOrderingIsStableAndNeverMovesNaNInFront) {
  const float kNaN = std::numeric_limits<float>::quiet_NaN();
  using Cmp = int (*)(const KoBestShot::BSScore*, const KoBestShot::BSScore*);
  const std::pair<Cmp, float KoBestShot::BSScore::*> orderings[] = {
      {&KoBestShot::compare, &KoBestShot::BSScore::bsScore},
      {&KoBestShot::compareFaces, &KoBestShot::BSScore::facesScore},
      {&KoBestShot::compareFE, &KoBestShot::BSScore::feScore}};
  const struct { std::vector<float> keys; Ids sorted; } cases[] = {  // keys of frames 1, 2, ...
      {{3, 1, 3, 2, 1, 3}, {2, 5, 4, 1, 3, 6}},  // ascending, equal keys keep their order
      {{3, kNaN, 1}, {1, 2, 3}},                 // the NaN record blocks, nothing moves
      {{kNaN, 2, 1}, {1, 3, 2}},                 // NaN stays first, the rest is sorted
  };
  for (const auto& o : orderings) {
    for (const auto& c : cases) {
      Vector<KoBestShot::BSScore> v;
      for (size_t i = 0; i < c.keys.size(); ++i) {
        // The other two scores run the other way: an ordering on the wrong field shows.
        KoBestShot::BSScore s = score(static_cast<int32_t>(i + 1), 0, -c.keys[i], -c.keys[i], 0, -c.keys[i]);
        s.*o.second = c.keys[i];
        v.push_back(s);
      }
      v.sort(o.first);
      Ids ids;
      for (size_t i = 0; i < v.size(); ++i) ids.push_back(v[i].frameId);
      EXPECT_EQ(c.sorted, ids) << "ordering " << (&o - orderings);
    }
  }
}

TEST(KoTopScoreList, BatchCutGivesBuffersBackWithTheirScratchImages) {
  Bench b;
  for (uint32_t id = 1; id <= 8; ++id) b.add(id, id * kFrameUs, id >= 2);  // frame 1 has no buffer
  b.frame(3)->mSobelBuffer1 = allocImage(KoFrameData::SOBEL_BUFFER_BYTES);
  const float bs[9] = {0, 50, 40, 30, 10, 60, 20, 70, 35};
  std::vector<KoBestShot::BSScore> batch;
  for (int32_t id = 1; id <= 8; ++id) batch.push_back(score(id, id * kFrameUs, bs[id]));
  // The five newest are merged (sorted by bsScore); the older ones give their buffers back.
  b.merge(batch);
  EXPECT_EQ(Ids({4, 6, 8, 5, 7}), b.listIds());
  EXPECT_EQ(Ids({2, 3}), b.gone());
  EXPECT_EQ(nullptr, b.frame(3)->mSobelBuffer1);
  EXPECT_EQ(8u, b.hist.size());  // frames stay, only their buffers go
}

TEST(KoTopScoreList, EntriesOlderThanTwoSecondsLeaveWithTheirBuffers) {
  Bench b;
  for (int64_t ts : {0, 1, 1000000}) b.add(static_cast<uint32_t>(b.hist.size() + 1), ts);
  b.merge({score(1, 0, 10), score(2, 1, 20), score(3, 1000000, 30)});
  // Newest at 2,000,001: frame 1 is older than two seconds, frame 2 is exactly two seconds.
  b.add(4, 2000001);
  b.merge({score(4, 2000001, 5)});
  EXPECT_EQ(Ids({4, 2, 3}), b.listIds());
  EXPECT_EQ(Ids({1}), b.gone());
  // A stale score in a new batch is released instead of merged.
  b.add(5, 2000002);
  b.merge({score(2, 1, 99), score(5, 2000002, 1)});
  EXPECT_EQ(Ids({5, 4, 3}), b.listIds());
  EXPECT_EQ(Ids({1, 2}), b.gone());
}

TEST(KoTopScoreList, BestAuxFrameNearTheCaptureIsProtectedOnlyUnderLongExposure) {
  for (float expTime : {0.0083f, 0.0082f}) {
    SCOPED_TRACE(expTime);
    const bool longExposure = expTime >= 0.0083f;
    Bench b;
    for (uint32_t id = 1; id <= 10; ++id) {  // buffers on 4..10, metadata on all
      b.add(id, id * kFrameUs, id >= 4);
      b.meta(id, expTime);
    }
    // Shutter at frame 6; frame 5 has the best auxScore near it and the lowest bsScore of all.
    b.top.setCapturedFrameId(1, 6, 6 * kFrameUs);
    std::vector<KoBestShot::BSScore> batch;
    for (int32_t id = 1; id <= 10; ++id) {
      batch.push_back(score(id, id * kFrameUs, id == 5 ? 1.0f : 10.0f * id, 0, id == 5 ? 90.0f : 10.0f + id));
    }
    b.merge(batch);
    // Under long exposure frame 5 takes the place of the fifth-newest (6), which keeps its buffer.
    EXPECT_EQ(longExposure ? Ids({5, 7, 8, 9, 10}) : Ids({6, 7, 8, 9, 10}), b.listIds());
    EXPECT_EQ(longExposure ? Ids({4}) : Ids({4, 5}), b.gone());
    // One more candidate cuts the list back to five; a protected frame at the bottom stays.
    b.add(11, 11 * kFrameUs);
    b.meta(11, expTime);
    b.merge({score(11, 11 * kFrameUs, 200, 0, 5)});
    EXPECT_EQ(longExposure ? Ids({5, 8, 9, 10, 11}) : Ids({7, 8, 9, 10, 11}), b.listIds());
    EXPECT_EQ(longExposure ? Ids({4, 7}) : Ids({4, 5, 6}), b.gone());
  }
}

// A touch-focus region that moved or started flushes the frames before the change.
TEST(KoTopScoreList, TouchFocusChangeFlushesOlderFrames) {
  const struct { uint8_t olderType; uint16_t olderWindow0; uint8_t newestType; bool flushed; } cases[] = {
      {2, 10, 2, false},  // same touch region
      {2, 12, 2, true},   // moved touch region
      {0, 10, 2, true},   // touch focus started
      {2, 12, 0, false},  // newest not a touch region: windows do not matter
  };
  for (const auto& c : cases) {
    Bench b;
    for (uint32_t id = 1; id <= 4; ++id) {
      sp<KoFrameData> f = b.add(id, id * kFrameUs, false);
      f->mAfRoiType = id == 4 ? c.newestType : c.olderType;
      f->mAfWindow[0] = id == 4 ? 10 : c.olderWindow0;
    }
    b.top.flushListIfNeeded(false);
    EXPECT_EQ(c.flushed ? 1u : 4u, b.hist.size()) << int(c.olderType) << " " << c.olderWindow0;
  }
}

namespace {

struct Decision {
  uint32_t found = 0;
  bestShotInfo_t info, rep;
  unsigned int flags = 0;
};

Decision decide(Bench& b, bool hdr = false, unsigned int flags = 0) {
  Decision d;
  d.info = d.rep = blank(0);
  d.flags = flags;
  d.found = b.top.getBestShot(1, &d.info, &d.rep, hdr, d.flags);
  return d;
}

// Frames 1..7 at 25 fps showing the same sharp picture, each with its buffer and metadata;
// frame 4 will be the captured one (fe 50, aux 40), frame 6 the one with the best fe (70).
std::unique_ptr<Bench> scene(int32_t lux = 0) {
  auto b = std::make_unique<Bench>();
  const int32_t fe[8] = {0, 30, 30, 30, 50, 30, 70, 30};
  const float aux[8] = {0, 20, 20, 20, 40, 30, 45, 25};
  for (uint32_t id = 1; id <= 7; ++id) {
    sp<KoFrameData> f = b->add(id, id * kFrameUs);
    setPicture(f, sharpView());
    scores(f, fe[id], static_cast<float>(fe[id]), aux[id]);
    f->mLensPos = 100;
    f->mCafState = 1;
    b->meta(id, 0.0f, lux);
  }
  return b;
}

// Lists frames 3..7 with the scores their frames carry, then presses the shutter at frame 4.
void listAndPress(Bench& b) {
  std::vector<KoBestShot::BSScore> batch;
  for (uint32_t id = 3; id <= 7; ++id) {
    sp<KoFrameData> f = b.frame(id);
    batch.push_back(score(static_cast<int32_t>(id), f->mTimestamp, f->mBsScore, static_cast<float>(f->mFeScore),
                          f->mAuxScore, f->mFacesScore));
  }
  b.merge(batch);
  b.top.setCapturedFrameId(1, 4, b.frame(4)->mTimestamp);
}

}  // namespace

// The frames carry no face data, so no face-scene classifier calls them a face scene.
TEST(KoTopScoreDecision, NonFaceSceneTakesTheBestFocusAndReplacesASimilarCapture) {
  auto b = scene();
  listAndPress(*b);
  Decision d = decide(*b);
  EXPECT_EQ(1u, d.found);
  EXPECT_EQ(0, d.info.isFaceScene);
  EXPECT_EQ(6, d.info.frameId);
  EXPECT_EQ(1, d.info.replace);  // same picture, better aux, nothing overrides
  EXPECT_EQ(KO_BS_ALG_REPLACE_SIMILAR | KO_BS_ALG_NOT_IN_SCORE_BAND, d.info.algBitField);
  EXPECT_EQ(0, d.info.blurDetected);
  EXPECT_EQ(-2 * kFrameUs, d.info.captureOffsetUs);
  EXPECT_EQ(0u, decide(*b).found);  // the press was consumed
}

TEST(KoTopScoreDecision, LowLightWithAGoodCaptureCancelsTheBestShot) {
  for (float capturedAux : {70.5f, 70.0f}) {
    auto b = scene(4500);
    b->frame(4)->mAuxScore = capturedAux;
    b->frame(6)->mAuxScore = 90;
    listAndPress(*b);
    Decision d = decide(*b, false, KO_BS_OVERRIDE_ZOOM);
    const bool cancelled = capturedAux > 70.0f;
    EXPECT_EQ(cancelled ? 0u : 1u, d.found) << capturedAux;
    EXPECT_EQ(cancelled ? KO_BS_CANCEL_LUX : 0u, d.info.cancelledAlgBitField) << capturedAux;
  }
}

TEST(KoTopScoreDecision, BlurredBestShotIsCancelled) {
  ASSERT_FALSE(sharpView().px.empty());
  auto b = scene();
  setPicture(b->frame(6), kocore_test::gaussianBlur(sharpView(), 3.0));
  listAndPress(*b);
  Decision d = decide(*b);
  EXPECT_EQ(0u, d.found);
  EXPECT_EQ(1, d.info.blurDetected);
  EXPECT_TRUE(d.info.cancelledAlgBitField & KO_BS_CANCEL_BLUR);
  EXPECT_GE(d.info.blurDetectCoeff, 0.0f);
  EXPECT_LT(d.info.blurDetectCoeff, 0.17f);
  // Nothing to measure: the measures stay -1.
  bestShotInfo_t info = blank(5);
  bool generated = false;
  b->top.cancelOnBlurDetect(generated, &info, 3);
  EXPECT_EQ(-1.0f, info.blurDetectCoeff);
}

TEST(KoTopScoreDecision, MacroLensMoveKeepsTheCapture) {
  // Lens steady at 30 around the capture (frame 4); the best-focused frame 7 is 19 or 18 steps away.
  for (int16_t bestLens : {49, 48}) {
    auto b = scene();
    for (uint32_t id = 1; id <= 7; ++id) b->frame(id)->mLensPos = 30;
    scores(b->frame(6), 30, 30, 45);
    scores(b->frame(7), 70, 70, 45);
    b->frame(7)->mLensPos = bestLens;
    listAndPress(*b);
    Decision d = decide(*b);
    EXPECT_EQ(7, d.info.frameId);
    EXPECT_EQ(bestLens == 49, (d.flags & KO_BS_OVERRIDE_MACRO) != 0) << bestLens;
  }
  // Close focus (lens 20): a best shot 6 steps away whose centre is blurrier is dropped at once.
  auto b = scene();
  for (uint32_t id = 1; id <= 7; ++id) b->frame(id)->mLensPos = 20;
  b->frame(6)->mFeScore = 30;
  scores(b->frame(7), 70, 30, 45);
  b->frame(7)->mLensPos = 26;
  setPicture(b->frame(7), kocore_test::gaussianBlur(sharpView(), 3.0));
  listAndPress(*b);
  Decision d = decide(*b);
  EXPECT_EQ(0u, d.found);
  EXPECT_EQ(0u, d.info.cancelledAlgBitField);
  EXPECT_EQ(0, d.info.blurDetected);
}

// Blinks as hand-labelled in webcam clip a: frames 640 to 643 have closed eyes.
TEST(KoTopScoreDecision, HdrCaptureIsOnlyExchangedForAnEarlierFrameWithOpenEyes) {
  auto run = [](uint32_t capturedFaces, uint32_t blinkFrom) {  // frames blinkFrom..643 blink
    auto b = std::make_unique<Bench>();
    for (uint32_t id = 636; id <= 647; ++id) {
      sp<KoFrameData> f = b->add(id, id * kFrameUs, id >= 637 && id <= 643);
      b->faces(id, id == 641 ? capturedFaces : 1, blinkFrom != 0 && id >= blinkFrom && id <= 643 ? 1 : 0);
      scores(f, 30, 30, 20);
      f->mLensPos = 100;
      f->mCafState = 1;
    }
    scores(b->frame(641), 50, 50, 40);
    const struct { uint32_t id; int32_t fe; float bs; } listed[] = {
        {638, 30, 40}, {639, 35, 45}, {643, 60, 60}, {642, 80, 70}};
    std::vector<KoBestShot::BSScore> batch;
    for (const auto& l : listed) {
      scores(b->frame(l.id), l.fe, l.bs, 60);
      batch.push_back(score(static_cast<int32_t>(l.id), l.id * kFrameUs, l.bs, static_cast<float>(l.fe), 60));
    }
    b->merge(batch);
    b->top.setCapturedFrameId(1, 641, 641 * kFrameUs);
    return decide(*b, true);
  };
  Decision d = run(1, 640);  // 642 is later and blinks, 643 blinks: exchanged for 639
  EXPECT_EQ(1u, d.found);
  EXPECT_EQ(639, d.info.frameId);
  EXPECT_EQ(KO_BS_ALG_NOT_IN_SCORE_BAND | KO_BS_ALG_FACE_SCENE | KO_BS_ALG_HDR, d.info.algBitField);
  // Nobody blinks; four faces; every earlier listed frame blinks as well.
  for (Decision cancelled : {run(1, 0), run(4, 640), run(1, 638)}) {
    EXPECT_EQ(0u, cancelled.found);
    EXPECT_EQ(KO_BS_CANCEL_HDR, cancelled.info.cancelledAlgBitField);
  }
}

TEST(KoTopScoreDecision, LongExposureExchangesTheCaptureForASharperNeighbour) {
  // Frames 1..9; captured 5. Listed: 5 itself (aux 60), 6 (25), 7 (30), 8 exactly 430,000 us
  // after the capture (32), 9 one microsecond further (40).
  Bench b;
  const float aux[10] = {0, 0, 0, 0, 0, 60, 25, 30, 32, 40};
  std::vector<KoBestShot::BSScore> batch;
  for (int32_t id = 1; id <= 9; ++id) {
    const int64_t ts = id < 8 ? id * kFrameUs : 5 * kFrameUs + 430000 + (id - 8);
    sp<KoFrameData> f = b.add(id, ts, id >= 3);
    scores(f, 30, 30, aux[id]);
    f->mCafState = 1;
    f->mSobelStats.mean = 20.0f;
    b.meta(id, 0.02f);
    if (id >= 5) batch.push_back(score(id, ts, 30.0f + id, 30.0f, aux[id]));
  }
  b.merge(batch);
  b.top.setCapturedFrameId(1, 5, 5 * kFrameUs);
  Decision d = decide(b);
  EXPECT_EQ(1u, d.found);
  EXPECT_EQ(KO_BS_OVERRIDE_CAPTURE_REPLACED, d.flags);
  EXPECT_EQ(8, d.rep.frameId);
  EXPECT_EQ(1, d.rep.replace);
  EXPECT_EQ(-430000, d.rep.captureOffsetUs);
}

// Similarity and replacement, on a captured frame (index 0) and a best frame (index 1); both
// fe 50, aux 40, faces 50 unless the case says otherwise for the best one.
TEST(KoTopScoreSimilarity, ReplacementAndCancellationOfSimilarBestShots) {
  const kocore_test::Plane sharp = sharpView();
  static const kocore_test::Plane half = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);
  // Low-contrast pictures, the best one brighter by one histogram bin (8 grey levels); and a
  // shifted view of a group photograph with different exposure.
  const kocore_test::Plane pictures[][2] = {
      {sharp, sharp},
      {kocore_test::contrast(sharp, 0.25, 100), kocore_test::contrast(sharp, 0.25, 108)},
      {kocore_test::contrast(kocore_test::crop(half, 100, 80, 640, 360), 0.5, 40),
       kocore_test::contrast(kocore_test::crop(half, 112, 86, 640, 360), 0.5, 56)},
  };
  const uint32_t kSim = KO_BS_ALG_REPLACE_SIMILAR, kCancel = KO_BS_CANCEL_SIMILAR;
  const int64_t kNear = kFrameUs, kFar = 300001;
  const struct {
    const char* what;
    int pic;
    bool faceScene, keep;
    float aux, faces;  // of the best frame
    unsigned int flags;
    int64_t distance;
    int replace;
    bool generated;
    uint32_t alg, cancelled;
    int expOffset, shift;
  } cases[] = {
      // Face scene: replaced by a close frame with better faces, unless an override forbids it.
      {"faces better", 0, true, true, 40, 60, 0, kNear, 1, true, kSim, 0, 0, 0},
      {"zoom", 0, true, false, 40, 60, KO_BS_OVERRIDE_ZOOM, kNear, 0, false, 0, kCancel, 0, 0},
      {"faces equal", 0, true, false, 40, 50, 0, kNear, 0, false, 0, kCancel, 0, 0},
      // Not a face scene: aux within 15 % and exposure one bin off is similar.
      {"one bin", 1, false, false, 44, 50, 0, kNear, 1, true, kSim, 0, -1, 0},
      // Identical pictures far from the capture: no replacement, dropped only with keep.
      {"identical far", 0, false, false, 50, 50, 0, kFar, 0, true, 0, 0, 0, 0},
      {"identical far, keep", 0, false, true, 50, 50, 0, kFar, 0, false, 0, kCancel, 0, 0},
      // A shifted view with different exposure: the shift decides.
      {"shift", 2, false, false, 60, 50, 0, kNear, 1, true, KO_BS_ALG_REPLACE_SIMILAR_SHIFT, 0, -2, 1},
      {"shift, capture better", 2, false, false, 30, 50, 0, kNear, 0, false, 0, KO_BS_CANCEL_SIMILAR_SHIFT, -2, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Bench b;
    setPicture(b.add(1, kFrameUs), pictures[c.pic][0]);
    setPicture(b.add(2, 2 * kFrameUs), pictures[c.pic][1]);
    scores(b.frame(1), 50, 0, 40);
    b.frame(1)->mFacesScore = 50;
    scores(b.frame(2), 50, 0, c.aux);
    b.frame(2)->mFacesScore = c.faces;
    bestShotInfo_t info = blank(1, 1);
    info.isFaceScene = c.faceScene ? 1 : 0;
    bool generated = true;
    b.top.replaceOnSimilar(generated, 0, &info, c.keep, 40, 50, c.flags, c.distance);
    EXPECT_EQ(c.replace, info.replace);
    EXPECT_EQ(c.generated, generated);
    EXPECT_EQ(c.alg, info.algBitField);
    EXPECT_EQ(c.cancelled, info.cancelledAlgBitField);
    EXPECT_EQ(c.expOffset, info.expOffset);
    EXPECT_EQ(c.shift, info.shiftDetected);
  }
}
