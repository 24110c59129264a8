// The best-shot score orderings and records, the top-score list and the best-shot decision on a
// live frame history: which frames keep their ZSL buffers (counted through the frame-done
// callbacks of real buffer bookkeeping), and which frame the decision picks, cancels or lets
// replace the capture, on real pictures where a rule looks at pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
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

// Gives a frame the 640x360 picture `view` the way frame creation and the statistics pass do
// (analysis view, small image, Sobel statistics, histogram by the library's own kernels). The
// images the frame had go back to the aligned allocator, as in the frame's destructor.
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
  if (!f->mHistogram) {
    f->mHistogram = static_cast<uint32_t*>(malloc(KoFrameData::HISTOGRAM_BINS * sizeof(uint32_t)));
  }
  DexFrameMetaData::genHistogramPow2(f->mSmallImage->data(), f->mHistogram, f->mSmallWidth, f->mSmallHeight,
                                     f->mSmallWidth, f->mHistogramBins);
}

// The analysis view of the sharp cockatoo frame, read once.
const kocore_test::Plane& sharpView() {
  static const kocore_test::Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  return view;
}

KoBestShot::BSScore score(int32_t frameId, int64_t ts, float bs, float fe = 0, float aux = 0, float faces = 0) {
  KoBestShot::BSScore s;
  memset(&s, 0, sizeof(s));
  s.frameId = frameId, s.timestampUs = ts;
  s.bsScore = bs, s.feScore = fe, s.auxScore = aux, s.facesScore = faces;
  return s;
}

// Sets a frame's focus, best-shot and aux scores.
void scores(const sp<KoFrameData>& f, int32_t fe, float bs, float aux) {
  f->mFeScore = fe, f->mBsScore = bs, f->mAuxScore = aux;
}

// A zeroed decision record pointing at history index frameIndex.
bestShotInfo_t blank(int32_t frameIndex, uint8_t generated = 0) {
  bestShotInfo_t info;
  memset(&info, 0, sizeof(info));
  info.frameIndex = frameIndex;
  info.generated = generated;
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
    Ko_CameraMetaData_t values;
    memset(&values, 0, sizeof(values));
    values.expTime = expTime;
    values.luxLevel = lux;
    sp<ABuffer> buffer = new ABuffer(sizeof(values));
    hist.addMetaData(id, buffer, &values);
  }
  void faces(uint32_t id, uint32_t numFaces, int32_t blinked = 0) {
    sp<KoFaceMetaData> face = new KoFaceMetaData();
    face->mValid = 1;
    face->mFaceData.record.frameId = id;
    face->mFaceData.record.numFaces = numFaces;
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
    for (void* p : ctx.returned()) {
      out.push_back(static_cast<int32_t>((reinterpret_cast<uintptr_t>(p) - 0x10000) / 0x1000));
    }
    std::sort(out.begin(), out.end());
    return out;
  }
  // Whether the history still holds frame id's buffer.
  bool held(uint32_t id) {
    for (size_t i = 0; i < hist.mHistory.size(); ++i) {
      if (hist.mHistory[i]->mFrameData->mFrameId == id) return hist.mHistory[i]->mZslMemory != nullptr;
    }
    return false;
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
      {{2, 1, kNaN}, {2, 1, 3}},                 // NaN stays last
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

TEST(KoTopScore, AlgBitsReplaceOnlyTheThreeRuleBitsAndNoCapturedInfoIsMinusOneAndZeroes) {
  const struct { bool first, second, third; uint32_t bits; } cases[] = {
      {false, false, false, 0x0}, {true, false, false, 0x1}, {false, true, false, 0x2},
      {false, false, true, 0x4},  {true, false, true, 0x5},  {true, true, true, 0x7},
  };
  const uint32_t kKept = 0x8 | KO_BS_ALG_REPLACE_SIMILAR | KO_BS_ALG_REPLACE_SIMILAR_SHIFT;
  for (const auto& c : cases) {
    bestShotInfo_t info = blank(0);
    info.algBitField = 0x7 | kKept;  // earlier rule bits are replaced, not merged
    info.cancelledAlgBitField = 0x3F;
    KoTopScore::setBestShotAlgBits(&info, c.first, c.second, c.third);
    EXPECT_EQ(c.bits | kKept, info.algBitField) << c.first << c.second << c.third;
    EXPECT_EQ(0x3Fu, info.cancelledAlgBitField);
  }
  KoTopScore::setBestShotAlgBits(nullptr, true, true, true);  // ignored

  KoTopScore::capturedShotInfo_t none;
  memset(&none, 0xAB, sizeof(none));
  KoTopScore::getNoCapturedInfo(none);
  EXPECT_EQ(-1, none.jobId);
  EXPECT_EQ(-1, none.frameId);
  EXPECT_EQ(0, none.timestampUs);
  for (uint8_t b : none.reserved) EXPECT_EQ(0, b);
}

TEST(KoTopScoreList, BatchCutCapacityAndDuplicatesGiveBuffersBackOnTheSamePass) {
  Bench b;
  // Frame 1 has no ZSL buffer, 2..8 have one each (seven, the most the camera lends).
  for (uint32_t id = 1; id <= 8; ++id) b.add(id, id * kFrameUs, id >= 2);
  b.frame(3)->mSobelBuffer1 = allocImage(KoFrameData::SOBEL_BUFFER_BYTES);
  b.frame(4)->mSobelBuffer1 = allocImage(KoFrameData::SOBEL_BUFFER_BYTES);
  const float bs[9] = {0, 50, 40, 30, 10, 60, 20, 70, 35};
  std::vector<KoBestShot::BSScore> batch;
  for (int32_t id = 1; id <= 8; ++id) batch.push_back(score(id, id * kFrameUs, bs[id]));

  // No pending press, short exposure: the five newest are merged (sorted by bsScore), the
  // three older ones give their buffers back at once, scratch images included.
  b.merge(batch);
  EXPECT_EQ(Ids({4, 6, 8, 5, 7}), b.listIds());
  EXPECT_EQ(Ids({2, 3}), b.gone());
  EXPECT_EQ(5u, b.ctx.memory()->count());
  EXPECT_EQ(nullptr, b.frame(3)->mSobelBuffer1);
  EXPECT_NE(nullptr, b.frame(4)->mSobelBuffer1);
  EXPECT_EQ(8u, b.hist.size());  // frames stay, only their buffers go

  // Rescored frames replace their entries; the two lowest of the seven candidates leave.
  b.add(9, 9 * kFrameUs);
  b.add(10, 10 * kFrameUs);
  b.merge({score(7, 7 * kFrameUs, 72), score(8, 8 * kFrameUs, 36), score(9, 9 * kFrameUs, 5),
           score(10, 10 * kFrameUs, 80)});
  EXPECT_EQ(Ids({6, 8, 5, 7, 10}), b.listIds());
  EXPECT_FLOAT_EQ(72.0f, b.top.mTopScoreList[3].bsScore);
  EXPECT_EQ(Ids({2, 3, 4, 9}), b.gone());
  for (uint32_t id : {5u, 6u, 7u, 8u, 10u}) EXPECT_TRUE(b.held(id)) << id;
  EXPECT_EQ(5u, b.ctx.memory()->count());
}

TEST(KoTopScoreList, EntriesOlderThanTwoSecondsLeaveWithTheirBuffers) {
  Bench b;
  b.add(1, 0);
  b.add(2, 1);
  b.add(3, 1000000);
  b.merge({score(1, 0, 10), score(2, 1, 20), score(3, 1000000, 30)});
  EXPECT_EQ(Ids({1, 2, 3}), b.listIds());
  // Newest frame at 2,000,001: frame 1 is 2,000,001 us older and goes, frame 2 (exactly
  // 2,000,000) stays.
  b.add(4, 2000001);
  b.merge({score(4, 2000001, 5)});
  EXPECT_EQ(Ids({4, 2, 3}), b.listIds());
  EXPECT_EQ(Ids({1}), b.gone());
  // A stale score in a new batch is released instead of merged.
  b.add(5, 2000002);
  b.merge({score(2, 1, 99), score(5, 2000002, 1)});
  EXPECT_EQ(Ids({5, 4, 3}), b.listIds());
  EXPECT_EQ(Ids({1, 2}), b.gone());
  EXPECT_EQ(3u, b.ctx.memory()->count());
}

TEST(KoTopScoreList, BestAuxFrameNearTheCaptureIsProtectedOnlyUnderLongExposure) {
  for (float expTime : {0.02f, 0.0083f, 0.0082f, 0.0f}) {
    SCOPED_TRACE(expTime);
    const bool longExposure = expTime >= 0.0083f;
    Bench b;
    for (uint32_t id = 1; id <= 10; ++id) {  // buffers on 4..10, metadata on all
      b.add(id, id * kFrameUs, id >= 4);
      b.meta(id, expTime);
    }
    // Shutter pressed at frame 6. Frame 5, sixth from the end of the batch, has the best
    // auxScore near it and the lowest bsScore of all.
    b.top.setCapturedFrameId(1, 6, 6 * kFrameUs);
    std::vector<KoBestShot::BSScore> batch;
    for (int32_t id = 1; id <= 10; ++id) {
      batch.push_back(score(id, id * kFrameUs, id == 5 ? 1.0f : 10.0f * id, 0, id == 5 ? 90.0f : 10.0f + id));
    }
    b.merge(batch);
    // Under long exposure frame 5 takes the place of the fifth-newest (6), which is neither
    // listed nor released.
    EXPECT_EQ(longExposure ? Ids({5, 7, 8, 9, 10}) : Ids({6, 7, 8, 9, 10}), b.listIds());
    EXPECT_EQ(longExposure ? Ids({4}) : Ids({4, 5}), b.gone());
    EXPECT_TRUE(b.held(6));
    // One more candidate cuts the list back to five; a protected frame at the bottom stays.
    b.add(11, 11 * kFrameUs);
    b.meta(11, expTime);
    b.merge({score(11, 11 * kFrameUs, 200, 0, 5)});
    EXPECT_EQ(longExposure ? Ids({5, 8, 9, 10, 11}) : Ids({7, 8, 9, 10, 11}), b.listIds());
    EXPECT_EQ(longExposure ? Ids({4, 7}) : Ids({4, 5, 6}), b.gone());
  }
}

TEST(KoTopScoreList, FramesThatWillNeverGetTheirMetadataOrFacesGiveBuffersBack) {
  Bench b;
  for (uint32_t id = 1; id <= 6; ++id) b.add(id, id * kFrameUs);
  for (uint32_t id : {1u, 3u, 5u}) b.meta(id, 0.0f);
  for (uint32_t id : {1u, 4u, 6u}) b.faces(id, 1);
  // Metadata rule: 2 and 4 are older than 5, the newest with metadata; 6 may still get it.
  // Face data is missing (the foreground's mode), so the face rule is off.
  b.merge({}, true);
  EXPECT_EQ(Ids({2, 4}), b.gone());
  // Face data arriving normally: 3 and 5 are older than 6, the newest with faces.
  b.merge({}, false);
  EXPECT_EQ(Ids({2, 3, 4, 5}), b.gone());  // nothing is given back twice
  // Without any metadata nothing is released.
  Bench c;
  for (uint32_t id = 1; id <= 3; ++id) c.add(id, id * kFrameUs);
  c.merge({}, true);
  EXPECT_TRUE(c.gone().empty());
}

TEST(KoTopScoreList, ZoomOrTouchFocusChangeFlushesOlderFrames) {
  {  // Zoom changes between history index 3 and 4.
    Bench b;
    for (uint32_t id = 1; id <= 6; ++id) b.add(id, id * kFrameUs)->mZoom = id >= 5 ? 2 : 0;
    std::vector<KoBestShot::BSScore> batch;
    for (int32_t id = 2; id <= 6; ++id) batch.push_back(score(id, id * kFrameUs, id));
    b.merge(batch);
    ASSERT_EQ(Ids({2, 3, 4, 5, 6}), b.listIds());
    b.top.flushListIfNeeded(false);
    // History frames 0..3 are gone with their buffers; the entry of frame 4 (index 3) stays
    // until the next pruning, which drops it without a second release.
    ASSERT_EQ(2u, b.hist.size());
    EXPECT_EQ(5u, b.hist.mHistory[0]->mFrameData->mFrameId);
    EXPECT_EQ(Ids({4, 5, 6}), b.listIds());
    EXPECT_EQ(Ids({1, 2, 3, 4}), b.gone());
    b.merge({});
    EXPECT_EQ(Ids({5, 6}), b.listIds());
    EXPECT_EQ(Ids({1, 2, 3, 4}), b.gone());
    b.top.flushListIfNeeded(false);  // nothing differs any more
    EXPECT_EQ(2u, b.hist.size());
  }
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
      f->mAfWindow[1] = 20, f->mAfWindow[2] = 100, f->mAfWindow[3] = 80;
    }
    b.top.flushListIfNeeded(false);
    EXPECT_EQ(c.flushed ? 1u : 4u, b.hist.size()) << int(c.olderType) << " " << c.olderWindow0;
  }
  for (bool stop : {false, true}) {  // stop at face data only when asked to
    Bench b;
    for (uint32_t id = 1; id <= 4; ++id) b.add(id, id * kFrameUs, false);
    b.faces(2, 1);
    b.top.flushListIfNeeded(stop);
    EXPECT_EQ(stop ? 2u : 4u, b.hist.size());
  }
}

namespace {

struct Decision {
  uint32_t found = 0;
  bestShotInfo_t info, rep;
  unsigned int flags = 0;
};

Decision decide(Bench& b, bool hdr = false, unsigned int flags = 0, int job = 1) {
  Decision d;
  d.info = d.rep = blank(0);
  d.flags = flags;
  d.found = b.top.getBestShot(job, &d.info, &d.rep, hdr, d.flags);
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

// Lists frames 3..7 with the scores their frames carry, then presses the shutter at `captured`.
void listAndPress(Bench& b, uint32_t captured = 4) {
  std::vector<KoBestShot::BSScore> batch;
  for (uint32_t id = 3; id <= 7; ++id) {
    sp<KoFrameData> f = b.frame(id);
    batch.push_back(score(static_cast<int32_t>(id), f->mTimestamp, f->mBsScore, static_cast<float>(f->mFeScore),
                          f->mAuxScore, f->mFacesScore));
  }
  b.merge(batch);
  b.top.setCapturedFrameId(1, captured, b.frame(captured)->mTimestamp);
}

}  // namespace

// The frames here carry no face data, so no face-scene classifier calls them a face scene.
TEST(KoTopScoreDecision, NonFaceSceneTakesTheBestFocusAndReplacesASimilarCapture) {
  {
    auto b = scene();
    listAndPress(*b);
    Decision d = decide(*b);
    EXPECT_EQ(1u, d.found);
    EXPECT_EQ(0, d.info.isFaceScene);
    EXPECT_EQ(1, d.info.generated);
    EXPECT_EQ(6, d.info.frameId);
    EXPECT_EQ(5, d.info.frameIndex);
    EXPECT_EQ(6 * kFrameUs, d.info.timestampUs);
    EXPECT_FLOAT_EQ(70.0f, d.info.bsScore);
    EXPECT_EQ(1, d.info.replace);  // same picture, better aux, nothing overrides
    EXPECT_EQ(KO_BS_ALG_REPLACE_SIMILAR | KO_BS_ALG_NOT_IN_SCORE_BAND, d.info.algBitField);
    EXPECT_EQ(0u, d.info.cancelledAlgBitField);
    EXPECT_LT(d.info.similarityCoeff, 0.01f);
    EXPECT_EQ(0, d.info.expOffset);
    EXPECT_EQ(0, d.info.blurDetected);
    EXPECT_GE(d.info.blurDetectCoeff, 0.17f);
    EXPECT_EQ(-2 * kFrameUs, d.info.captureOffsetUs);
    EXPECT_EQ(4, d.info.referenceFrameId);
    EXPECT_EQ(4, d.rep.referenceFrameId);
    EXPECT_EQ(0, d.rep.generated);
    EXPECT_EQ(0u, d.flags);
    EXPECT_TRUE(b->top.mCapturedShots.isEmpty());
    EXPECT_EQ(0u, decide(*b).found);  // the press was consumed
  }
  // Variations of frame 6 (the best focus) and the flags passed in.
  const struct {
    const char* what;
    int32_t fe6;  // 0: unchanged
    float aux6;   // 0: unchanged
    bool release6;
    unsigned int flags;
    uint32_t found, cancelled;
  } variants[] = {
      // A zoom override keeps the capture; the best shot still stands.
      {"zoom", 0, 0, false, KO_BS_OVERRIDE_ZOOM, 1, 0},
      // Captured focus within 10 of the best (keep) and no replacement allowed: no best shot.
      {"keep", 58, 0, false, KO_BS_OVERRIDE_ZOOM, 0, KO_BS_CANCEL_SIMILAR},
      // A similar best shot with a lower aux than the capture is dropped.
      {"lower aux", 0, 35, false, 0, 0, KO_BS_CANCEL_SIMILAR},
      {"no better focus", 50, 0, false, 0, 0, 0},
      // The candidate's buffer went back: it cannot be populated.
      {"released", 0, 0, true, 0, 0, 0},
  };
  for (const auto& v : variants) {
    SCOPED_TRACE(v.what);
    auto b = scene();
    scores(b->frame(6), v.fe6 ? v.fe6 : 70, v.fe6 ? v.fe6 : 70, v.aux6 ? v.aux6 : 45);
    listAndPress(*b);
    if (v.release6) {
      b->hist.releaseZslWithFrameId(6);
      EXPECT_EQ(1u, b->ctx.timesReturned(kovane_test::zslAddress(6)));
    }
    Decision d = decide(*b, false, v.flags);
    EXPECT_EQ(v.found, d.found);
    EXPECT_EQ(v.cancelled, d.info.cancelledAlgBitField);
    EXPECT_EQ(v.flags, d.flags);
    if (v.found) {
      EXPECT_EQ(6, d.info.frameId);
      EXPECT_EQ(0, d.info.replace);
      EXPECT_EQ(KO_BS_ALG_NOT_IN_SCORE_BAND, d.info.algBitField);
    } else {
      EXPECT_EQ(0, d.info.generated);
    }
    if (v.fe6 == 50) { EXPECT_EQ(0, d.info.frameId); }
  }
  {  // An unknown job changes nothing; a press whose frame left the history is dropped.
    auto b = scene();
    listAndPress(*b);
    EXPECT_EQ(0u, decide(*b, false, 0, 2).found);
    EXPECT_EQ(1u, b->top.mCapturedShots.size());
    b->top.setCapturedFrameId(3, 99, 0);
    EXPECT_EQ(0u, decide(*b, false, 0, 3).found);
    EXPECT_EQ(1u, b->top.mCapturedShots.size());
    EXPECT_EQ(1, b->top.mCapturedShots[0].jobId);
  }
  {  // Empty list: nothing to choose from.
    auto b = scene();
    b->top.setCapturedFrameId(1, 4, 4 * kFrameUs);
    EXPECT_EQ(0u, decide(*b).found);
  }
  // The score band around the capture's aux: 6 % of it, at least 1.0. Inside the band near
  // the top, bit 1 is not set.
  const struct { float capturedAux, top; bool inBand; } bands[] = {
      {50, 52.9f, true}, {50, 53.1f, false}, {10, 10.9f, true}, {10, 11.1f, false}};
  for (const auto& band : bands) {
    auto b = scene();
    b->frame(4)->mAuxScore = band.capturedAux;
    for (uint32_t id : {3u, 5u, 7u}) b->frame(id)->mAuxScore = 5;
    b->frame(6)->mAuxScore = band.top;
    listAndPress(*b);
    Decision d = decide(*b);
    EXPECT_EQ(1u, d.found);
    EXPECT_EQ(KO_BS_ALG_REPLACE_SIMILAR | (band.inBand ? 0u : KO_BS_ALG_NOT_IN_SCORE_BAND), d.info.algBitField)
        << band.capturedAux << " " << band.top;
  }
}

TEST(KoTopScoreDecision, LowLightWithAGoodCaptureCancelsTheBestShot) {
  for (float capturedAux : {70.5f, 70.0f}) {
    auto b = scene(4500);
    b->frame(4)->mAuxScore = capturedAux;
    b->frame(6)->mAuxScore = 90;
    listAndPress(*b);
    Decision d = decide(*b, false, KO_BS_OVERRIDE_ZOOM);
    const bool cancelled = capturedAux > 70.0f;
    EXPECT_EQ(cancelled ? 0u : 1u, d.found);
    EXPECT_EQ(cancelled ? KO_BS_CANCEL_LUX : 0u, d.info.cancelledAlgBitField);
    if (cancelled) { EXPECT_EQ(0, d.info.generated); }
  }
  // The check on its own: captured frame at index 3, best at index 5.
  const struct { int32_t luxCaptured, luxEarlier, luxBest; uint32_t bestFaces; bool cancelled; } cases[] = {
      {4500, 4500, 4500, 0, true},
      {0, 4500, 4500, 0, true},      // unknown: the nearest earlier known level counts
      {-1, 0, 4500, 0, false},       // unknown all the way back
      {4499, 4499, 4500, 0, false},
      {4500, 4500, 4500, 1, false},  // faces in the best shot: not this rule's business
  };
  for (const auto& c : cases) {
    auto b = scene();
    for (uint32_t id = 1; id <= 3; ++id) b->frame(id)->mLuxLevel = c.luxEarlier;
    b->frame(4)->mLuxLevel = c.luxCaptured;
    b->frame(4)->mAuxScore = 75;
    b->frame(6)->mLuxLevel = c.luxBest;
    b->frame(6)->mFaceData.record.numFaces = c.bestFaces;
    bestShotInfo_t info = blank(5, 1);
    bool generated = true;
    b->top.cancelBestShotOnLux(generated, 3, &info);
    EXPECT_EQ(!c.cancelled, generated) << c.luxCaptured << " " << c.luxEarlier;
    EXPECT_EQ(c.cancelled ? KO_BS_CANCEL_LUX : 0u, info.cancelledAlgBitField);
    EXPECT_EQ(c.cancelled ? 0 : 1, info.generated);
  }
}

TEST(KoTopScoreDecision, BlurredBestShotIsCancelled) {
  ASSERT_FALSE(sharpView().px.empty());
  auto b = scene();
  setPicture(b->frame(6), kocore_test::gaussianBlur(sharpView(), 3.0));
  listAndPress(*b);
  Decision d = decide(*b);
  EXPECT_EQ(0u, d.found);
  EXPECT_EQ(0, d.info.generated);
  EXPECT_EQ(1, d.info.blurDetected);
  EXPECT_TRUE(d.info.cancelledAlgBitField & KO_BS_CANCEL_BLUR);
  EXPECT_GE(d.info.blurDetectCoeff, 0.0f);
  EXPECT_LT(d.info.blurDetectCoeff, 0.17f);

  // Not measured: nothing cancelled, measures stay -1.
  bestShotInfo_t info = blank(5);
  bool generated = false;
  b->top.cancelOnBlurDetect(generated, &info, 3);
  EXPECT_EQ(-1.0f, info.blurDetectCoeff);
  EXPECT_EQ(-1.0f, info.blurDetectSubCoeff);
  fcvMemFree(b->frame(6)->mSmallImage->base());  // a frame without its small image
  b->frame(6)->mSmallImage.clear();
  generated = true;
  b->top.cancelOnBlurDetect(generated, &info, 3);
  EXPECT_TRUE(generated);
  EXPECT_EQ(0, info.blurDetected);
  EXPECT_EQ(-1.0f, info.blurDetectCoeff);
}

TEST(KoTopScoreDecision, MacroLensMoveKeepsTheCapture) {
  // Lens steady at 30 around the capture (frame 4); the best-focused frame 7 sits outside that
  // window at lens 49 or 48.
  const struct { int16_t bestLens; unsigned int flagsIn; int16_t frame3Lens; bool fires; } cases[] = {
      {49, 0, 30, true},                             // 19 steps: close-up focus elsewhere
      {48, 0, 30, false},                            // 18 steps
      {49, KO_BS_OVERRIDE_AF_ROI_TOUCH, 30, false},  // touch focus skips the check
      {49, 0, 33, false},                            // the lens moved around the capture
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.bestLens << " " << c.flagsIn << " " << c.frame3Lens);
    auto b = scene();
    for (uint32_t id = 1; id <= 7; ++id) b->frame(id)->mLensPos = 30;
    b->frame(3)->mLensPos = c.frame3Lens;
    scores(b->frame(6), 30, 30, 45);
    scores(b->frame(7), 70, 70, 45);
    b->frame(7)->mLensPos = c.bestLens;
    listAndPress(*b);
    Decision d = decide(*b, false, c.flagsIn);
    EXPECT_EQ(1u, d.found);
    EXPECT_EQ(7, d.info.frameId);
    EXPECT_EQ(c.fires, (d.flags & KO_BS_OVERRIDE_MACRO) != 0);
    EXPECT_EQ(c.flagsIn == 0 && !c.fires ? 1 : 0, d.info.replace);
  }
  // Close focus (lens 20): a best shot 6 steps away whose centre is blurrier is dropped at
  // once (no cancel bit); 5 steps away it goes on to the other checks (here: blur).
  for (int16_t bestLens : {26, 25}) {
    auto b = scene();
    for (uint32_t id = 1; id <= 7; ++id) b->frame(id)->mLensPos = 20;
    b->frame(6)->mFeScore = 30;
    scores(b->frame(7), 70, 30, 45);
    b->frame(7)->mLensPos = bestLens;
    setPicture(b->frame(7), kocore_test::gaussianBlur(sharpView(), 3.0));
    listAndPress(*b);
    bestShotInfo_t probe = blank(6);
    EXPECT_TRUE(b->top.calcCenterRoi(3, &probe));
    probe.frameIndex = 2;  // the same sharp picture
    EXPECT_FALSE(b->top.calcCenterRoi(3, &probe));
    Decision d = decide(*b);
    EXPECT_EQ(0u, d.found);
    EXPECT_EQ(0u, d.flags);
    if (bestLens == 26) { EXPECT_EQ(0u, d.info.cancelledAlgBitField); }
    EXPECT_EQ(bestLens == 26 ? 0 : 1, d.info.blurDetected);
  }
}

// Blinks as hand-labelled in webcam clip a: frames 640 to 643 have closed eyes.
TEST(KoTopScoreDecision, HdrCaptureIsOnlyExchangedForAnEarlierFrameWithOpenEyes) {
  struct Setup { uint32_t capturedFaces; bool blinks, bestIsEarlier, emptyList; };
  auto run = [](const Setup& s) {
    auto b = std::make_unique<Bench>();
    for (uint32_t id = 636; id <= 647; ++id) {
      sp<KoFrameData> f = b->add(id, id * kFrameUs, id >= 637 && id <= 643);
      b->faces(id, id == 641 ? s.capturedFaces : 1, s.blinks && id >= 640 && id <= 643 ? 1 : 0);
      scores(f, 30, 30, 20);
      f->mLensPos = 100;
      f->mCafState = 1;
    }
    scores(b->frame(641), 50, 50, 40);
    // bs and fe rank alike, so that face and non-face regimes pick the same candidate.
    const struct { uint32_t id; int32_t fe; float bs; } listed[] = {
        {638, 30, 40}, {639, 35, 45}, {643, 60, 60}, {642, 80, 70}};
    std::vector<KoBestShot::BSScore> batch;
    for (const auto& l : listed) {
      sp<KoFrameData> f = b->frame(l.id);
      const bool boosted = s.bestIsEarlier && l.id == 639;
      scores(f, boosted ? 90 : l.fe, boosted ? 80 : l.bs, 60);
      batch.push_back(score(static_cast<int32_t>(l.id), f->mTimestamp, f->mBsScore, static_cast<float>(f->mFeScore),
                            f->mAuxScore));
    }
    if (!s.emptyList) b->merge(batch);
    b->top.setCapturedFrameId(1, 641, 641 * kFrameUs);
    return decide(*b, true);
  };
  const uint32_t kFaceHdr = KO_BS_ALG_NOT_IN_SCORE_BAND | KO_BS_ALG_FACE_SCENE | KO_BS_ALG_HDR;
  const struct { const char* what; Setup setup; uint32_t found, alg, cancelled; } cases[] = {
      // 642 is later and blinks, 643 blinks: exchanged for 639.
      {"blinks", {1, true, false, false}, 1, kFaceHdr, 0},
      // The best shot is already earlier: it stands, without the HDR bit.
      {"best already earlier", {1, true, true, false}, 1, KO_BS_ALG_NOT_IN_SCORE_BAND, 0},
      {"four faces: always cancelled", {4, true, false, false}, 0, KO_BS_ALG_NOT_IN_SCORE_BAND, KO_BS_CANCEL_HDR},
      {"nobody blinks: the HDR picture stays", {1, false, false, false}, 0, KO_BS_ALG_NOT_IN_SCORE_BAND,
       KO_BS_CANCEL_HDR},
      {"empty list: the rule runs, finds nothing", {1, true, false, true}, 0, 0, KO_BS_CANCEL_HDR},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Decision d = run(c.setup);
    EXPECT_EQ(c.found, d.found);
    EXPECT_EQ(c.alg, d.info.algBitField);
    EXPECT_EQ(c.cancelled, d.info.cancelledAlgBitField);
    if (c.found) {
      EXPECT_EQ(639, d.info.frameId);
      EXPECT_EQ(2 * kFrameUs, d.info.captureOffsetUs);
      EXPECT_EQ(0, d.info.replace);
    }
  }
}

TEST(KoTopScoreDecision, LongExposureExchangesTheCaptureForASharperNeighbour) {
  for (float expTime : {0.02f, 0.005f}) {
    SCOPED_TRACE(expTime);
    const bool longExposure = expTime >= 0.0083f;
    Bench b;
    // Frames 1..9; captured 5 (Sobel mean 20). Listed: 5 itself (aux 60), 6 (25), 7 (30),
    // 8 exactly 430,000 us after the capture (32), 9 one microsecond further (40).
    const float aux[10] = {0, 0, 0, 0, 0, 60, 25, 30, 32, 40};
    std::vector<KoBestShot::BSScore> batch;
    for (int32_t id = 1; id <= 9; ++id) {
      const int64_t ts = id < 8 ? id * kFrameUs : 5 * kFrameUs + 430000 + (id - 8);
      sp<KoFrameData> f = b.add(id, ts, id >= 3);
      scores(f, 30, 30, aux[id]);
      f->mCafState = 1;
      f->mSobelStats.mean = 20.0f;
      b.meta(id, expTime);
      if (id >= 5) batch.push_back(score(id, ts, 30.0f + id, 30.0f, aux[id]));
    }
    b.merge(batch);
    ASSERT_EQ(5u, b.top.mTopScoreList.size());

    b.top.setCapturedFrameId(1, 5, 5 * kFrameUs);
    Decision d = decide(b);
    EXPECT_EQ(longExposure ? 1u : 0u, d.found);
    EXPECT_EQ(longExposure ? KO_BS_OVERRIDE_CAPTURE_REPLACED : 0u, d.flags);
    EXPECT_EQ(longExposure ? 1 : 0, d.rep.generated);
    EXPECT_EQ(longExposure ? 8 : 5, d.info.referenceFrameId);
    if (longExposure) {
      EXPECT_EQ(8, d.rep.frameId);
      EXPECT_EQ(1, d.rep.replace);
      EXPECT_EQ(KO_BS_ALG_NOT_IN_SCORE_BAND, d.rep.algBitField);
      EXPECT_EQ(5, d.rep.referenceFrameId);
      EXPECT_EQ(-430000, d.rep.captureOffsetUs);
      EXPECT_EQ(0, d.info.generated);  // nothing is better focused than the new capture
    }
  }
}

namespace {

// A 640x360 window of the group photograph reduced by 2, at (x, y).
kocore_test::Plane groupWindow(int x, int y) {
  static const kocore_test::Plane half = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);
  return kocore_test::crop(half, x, y, 640, 360);
}

}  // namespace

// Similarity and replacement, on a captured frame (index 0) and a best frame (index 1); both
// fe 50, aux 40, faces 50 unless the case says otherwise for the best one.
TEST(KoTopScoreSimilarity, ReplacementAndCancellationOfSimilarBestShots) {
  const kocore_test::Plane sharp = sharpView();
  // Low-contrast pictures, the best one brighter by one histogram bin (8 grey levels) or two;
  // and a shifted view of a group with different exposure.
  const kocore_test::Plane low = kocore_test::contrast(sharp, 0.25, 100);
  const kocore_test::Plane pictures[][2] = {
      {sharp, sharp},
      {low, kocore_test::contrast(sharp, 0.25, 108)},
      {low, kocore_test::contrast(sharp, 0.25, 116)},
      {kocore_test::contrast(groupWindow(100, 80), 0.5, 40), kocore_test::contrast(groupWindow(112, 86), 0.5, 56)},
  };
  const uint32_t kSim = KO_BS_ALG_REPLACE_SIMILAR, kShift = KO_BS_ALG_REPLACE_SIMILAR_SHIFT;
  const uint32_t kCancel = KO_BS_CANCEL_SIMILAR, kCancelShift = KO_BS_CANCEL_SIMILAR_SHIFT;
  const int64_t kNear = kFrameUs, kEdge = 300000, kFar = 300001;
  const struct {
    const char* what;
    int pic;
    bool faceScene, keep;
    float aux, faces;  // of the best frame
    int32_t fe;
    unsigned int flags;
    int64_t distance;
    int replace;
    bool generated;
    uint32_t alg, cancelled;
    int expOffset, shift;
  } cases[] = {
      // Face scene: replaced only by a close frame with better faces near the capture (within
      // 300,000 us); further away dropped only when keep holds (nearly identical).
      {"faces better", 0, true, true, 40, 60, 50, 0, kNear, 1, true, kSim, 0, 0, 0},
      {"faces at the edge", 0, true, true, 40, 60, 50, 0, kEdge, 1, true, kSim, 0, 0, 0},
      {"faces far, keep", 0, true, true, 40, 60, 50, 0, kFar, 0, false, 0, kCancel, 0, 0},
      {"faces far", 0, true, false, 40, 60, 50, 0, kFar, 0, true, 0, 0, 0, 0},
      // Every override flag forbids the replacement, and a similar best shot that may not
      // replace is dropped.
      {"missing faces", 0, true, false, 40, 60, 50, KO_BS_OVERRIDE_MISSING_FACE_DATA, kNear, 0, false, 0, kCancel, 0, 0},
      {"zoom", 0, true, false, 40, 60, 50, KO_BS_OVERRIDE_ZOOM, kNear, 0, false, 0, kCancel, 0, 0},
      {"touch", 0, true, false, 40, 60, 50, KO_BS_OVERRIDE_AF_ROI_TOUCH, kNear, 0, false, 0, kCancel, 0, 0},
      {"macro", 0, true, false, 40, 60, 50, KO_BS_OVERRIDE_MACRO, kNear, 0, false, 0, kCancel, 0, 0},
      {"replaced", 0, true, false, 40, 60, 50, KO_BS_OVERRIDE_CAPTURE_REPLACED, kNear, 0, false, 0, kCancel, 0, 0},
      // Faces no better: no replacement, and the similar best shot goes.
      {"faces equal", 0, true, false, 40, 50, 50, 0, kNear, 0, false, 0, kCancel, 0, 0},
      // Faces far apart: the best shot stays unless the capture is within the margin (keep).
      {"faces apart", 0, true, false, 40, 75, 50, 0, kNear, 0, true, 0, 0, 0, 0},
      {"faces apart, keep", 0, true, true, 40, 75, 50, 0, kNear, 0, false, 0, kCancel, 0, 0},
      // Focus scores 15 apart count as different too.
      {"focus apart", 0, true, false, 40, 60, 65, 0, kNear, 0, true, 0, 0, 0, 0},
      // Not a face scene: aux within 15 % and exposure one bin off is similar.
      {"one bin", 1, false, false, 44, 50, 50, 0, kNear, 1, true, kSim, 0, -1, 0},
      {"one bin, aux apart", 1, false, false, 48, 50, 50, 0, kNear, 0, true, 0, 0, -1, 0},
      {"two bins", 2, false, false, 44, 50, 50, 0, kNear, 0, true, 0, 0, -2, 0},
      {"two bins, keep", 2, false, true, 44, 50, 50, 0, kNear, 0, false, 0, kCancel, -2, 0},
      // Identical pictures far from the capture: no replacement, dropped only with keep.
      {"identical far", 0, false, false, 50, 50, 50, 0, kFar, 0, true, 0, 0, 0, 0},
      {"identical far, keep", 0, false, true, 50, 50, 50, 0, kFar, 0, false, 0, kCancel, 0, 0},
      {"identical at the edge", 0, false, false, 50, 50, 50, 0, kEdge, 1, true, kSim, 0, 0, 0},
      // A shifted view with different exposure: the shift decides.
      {"shift", 3, false, false, 60, 50, 50, 0, kNear, 1, true, kShift, 0, -2, 1},
      {"shift, capture better", 3, false, false, 30, 50, 50, 0, kNear, 0, false, 0, kCancelShift, -2, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Bench b;
    setPicture(b.add(1, kFrameUs), pictures[c.pic][0]);
    setPicture(b.add(2, 2 * kFrameUs), pictures[c.pic][1]);
    sp<KoFrameData> captured = b.frame(1), best = b.frame(2);
    scores(captured, 50, 0, 40);
    captured->mFacesScore = 50;
    scores(best, c.fe, 0, c.aux);
    best->mFacesScore = c.faces;
    bestShotInfo_t info = blank(1, 1);
    info.isFaceScene = c.faceScene ? 1 : 0;
    bool generated = true;
    b.top.replaceOnSimilar(generated, 0, &info, c.keep, captured->mAuxScore, captured->mFacesScore, c.flags,
                           c.distance);
    EXPECT_EQ(c.replace, info.replace);
    EXPECT_EQ(c.generated, generated);
    EXPECT_EQ(c.alg, info.algBitField);
    EXPECT_EQ(c.cancelled, info.cancelledAlgBitField);
    EXPECT_EQ(c.expOffset, info.expOffset);
    EXPECT_EQ(c.shift, info.shiftDetected);
    if (generated) { EXPECT_EQ(1, info.generated); }
    if (c.pic == 0) { EXPECT_LT(info.similarityCoeff, 0.05f); }
    if (c.pic == 1 || c.pic == 3) { EXPECT_GE(info.similarityCoeff, 0.1f); }
    if (c.pic == 1) { EXPECT_LT(info.expSimilarity, info.similarityCoeff); }
    if (std::string(c.what) == "identical far") {  // no exposure step apart
      bestShotInfo_t exposure = blank(1);
      EXPECT_FALSE(b.top.checkSimilarityExposure(0, &exposure));
      EXPECT_EQ(0, exposure.expOffset);
      EXPECT_LT(exposure.expSimilarity, 0.01f);
    }
  }
}

TEST(KoTopScoreDecision, PopulationNeedsTheFrameAndItsBuffer) {
  Bench b;
  for (uint32_t id = 0; id < 7; ++id) b.add(id + 1, id * kFrameUs, id == 1);
  bestShotInfo_t info = blank(42);
  info.cancelledAlgBitField = 0x10;
  bool generated = false;
  b.top.populateBestShot(score(3, 1, 7.0f), &info, generated);  // no buffer
  EXPECT_FALSE(generated);
  EXPECT_EQ(0, info.frameId);
  b.top.populateBestShot(score(99, 1, 7.0f), &info, generated);  // not in the history
  EXPECT_FALSE(generated);
  b.top.populateBestShot(score(2, 123, 7.0f), &info, generated);
  EXPECT_TRUE(generated);
  EXPECT_EQ(1, info.generated);
  EXPECT_EQ(2, info.frameId);
  EXPECT_EQ(1, info.frameIndex);
  EXPECT_EQ(123, info.timestampUs);
  EXPECT_FLOAT_EQ(7.0f, info.bsScore);
  EXPECT_EQ(0u, info.cancelledAlgBitField);
}
