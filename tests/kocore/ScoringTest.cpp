// Scores on real pictures: the blur measure, and best-shot scores and blink prediction on the
// webcam clips' hand-labelled blinks.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../framedata/FrameTestSupport.h"
#include "ClipDecoder.h"
#include "ClipFaceAnalysis.h"
#include "DexBlurDetect.h"
#include "KoBestShot.h"
#include "KoFaceIdBasedData.h"
#include "KoFaceMetaData.h"
#include "KoFrameDataCreate.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoSequenceData.h"
#include "KocoreTestImages.h"
#include "TestData.h"

namespace android {
namespace {

// Frames first..last of a webcam clip at a 640x480 preview (NV21), with the faces the replay
// tool's face analysis finds in them as the camera reports faces (the fields the scores read).
struct ClipStretch {
  std::vector<kovane_replay::Nv21Image> pictures;  // index 0 = frame `first`
  std::vector<std::vector<KO_cam_face_t>> faces;
  int first = 0;
};
ClipStretch loadClipStretch(const std::string& name, int first, int last) {
  ClipStretch c{{}, {}, first};
  kovane_replay::ClipFaceAnalysis::Options opt;
  opt.width = 640, opt.height = 480;
  kovane_replay::ClipFaces faces;
  kovane_replay::ClipDecoder decoder;
  std::string error;
  const std::string path = kovane_test::testDataPath(name);
  if (path.empty() || !kovane_replay::ClipFaceAnalysis::analyseRange(path, opt, first, last, faces, &error) ||
      !decoder.open(path) || !decoder.setOutput(640, 480, kovane_replay::ClipDecoder::FIT_CROP)) {
    ADD_FAILURE() << name << ": " << error << decoder.error();
    return c;
  }
  kovane_replay::ClipFrame frame;
  while (decoder.next(frame) && frame.index <= last) {
    if (frame.index < first) continue;
    c.pictures.push_back(frame.image);
    c.faces.emplace_back();
    for (size_t k = 0; static_cast<size_t>(frame.index) < faces.size() && k < faces[frame.index].size(); ++k) {
      const kovane_replay::FaceRecord& r = faces[frame.index][k];
      KO_cam_face_t o = {};
      o.id = r.id;
      o.score = static_cast<int8_t>(std::clamp(r.score, 0, 100));
      o.left = r.left, o.top = r.top, o.width = r.width, o.height = r.height;
      o.smileDegree = static_cast<uint8_t>(std::clamp(r.smile, 0, 100));
      o.leftBlink = static_cast<uint8_t>(std::clamp(r.leftBlink, 0, 100));
      o.rightBlink = static_cast<uint8_t>(std::clamp(r.rightBlink, 0, 100));
      c.faces.back().push_back(o);
    }
  }
  return c;
}

// Frames built the way the engine builds them, in a history with statistics, faces and ZSL buffers.
class ScoringHistory {
 public:
  ScoringHistory() : mFactory(&mEngine) {}
  ~ScoringHistory() { delete mSnapshot; }

  // A new frame (its own id, 33 ms on) added with the foreground's statistics of its small image
  // against the previous frame (the first frame of a history gets none).
  sp<KoFrameData> add(const kovane_replay::Nv21Image& pic) {
    KO_cam_frame_len_offset_t planes = {};
    planes.numPlanes = 2;
    planes.mp[0] = {pic.width * pic.height, 0, pic.width, pic.height};
    planes.mp[1] = {pic.width * pic.height / 2, 0, pic.width, pic.height / 2};
    planes.frameLen = static_cast<uint32_t>(pic.data.size());
    KO_PreviewFrameData_t preview = {};
    preview.timeStamp = 5000000 + 33333LL * mNextId;
    preview.frameId = 1000 + mNextId++;
    preview.streamType = KO_STREAM_TYPE_PREVIEW;
    preview.width = pic.width;
    preview.height = pic.height;
    preview.data = const_cast<uint8_t*>(pic.data.data());
    preview.colorFormat = KO_COLOR_FORMAT_NV21;
    preview.planes = &planes;
    sp<KoFrameData> cur;
    mFactory.newFrame(&preview, cur);
    if (cur == nullptr) return cur;
    mHist.addFrameData(cur);
    if (mPrevious != nullptr) {
      const int sw = static_cast<int>(cur->mSmallWidth), sh = static_cast<int>(cur->mSmallHeight);
      for (KoFrameData* f : {cur.get(), mPrevious.get()}) {
        DexFrameMetaData::downScaleLuma2x(f->mSmallImage->data(), f->mAnalysisImage, f->mWidth, sw, sh);
      }
      DexFrameMetaData::calcSmallFrameStats(cur->mSmallImage->data(), mPrevious->mSmallImage->data(), sw, sh,
                                            &cur->mLumaStats, &cur->mSobelStats, &cur->mDiffStats, cur->mHistogram,
                                            static_cast<int>(cur->mHistogramBins),
                                            reinterpret_cast<int16_t*>(cur->mSobelBuffer1->data()),
                                            reinterpret_cast<int16_t*>(cur->mSobelBuffer2->data()));
      cur->mStatsWidth = static_cast<uint32_t>(sw);
      cur->mStatsHeight = static_cast<uint32_t>(sh);
      cur->setProcessedEvents(KoFrameData::EVENT_STATS);
    }
    mPrevious = cur;
    return cur;
  }

  // Face records arriving for a frame.
  void addFaces(uint32_t frameId, const std::vector<KO_cam_face_t>& faces) {
    KO_cam_face_detection_data_t record = {};
    record.frameId = frameId;
    record.numFaces = static_cast<uint32_t>(std::min<size_t>(faces.size(), KO_MAX_FACES));
    for (uint32_t k = 0; k < record.numFaces; ++k) record.faces[k] = faces[k];
    sp<KoFaceMetaData> meta;
    mFactory.newFaceData(&record, meta);
    mHist.addFaceData(frameId, meta);
  }

  // A ZSL buffer arriving for a frame (at most seven are lent at once).
  bool addZsl(uint32_t frameId) {
    KO_ZslFrameData_t zsl = {kovane_test::zslAddress(mZsl.size() + 1), frameId};
    sp<KoMemoryBuffer> memory;
    mFactory.newZslFrame(&zsl, memory);
    if (memory == nullptr) return false;
    mZsl.push_back(memory);
    mHist.addZslData(memory, &zsl, frameId);
    return true;
  }

  // A fresh snapshot of the history (owned here).
  KoFrameHistSnapshot* snapshot() {
    delete mSnapshot;
    return mSnapshot = new KoFrameHistSnapshot(&mHist);
  }
  sp<KoFrameData> frame(size_t i) { return mHist.mHistory[i]->mFrameData; }

 private:
  kovane_test::TestEngineContext mEngine;
  KoFrameDataCreate mFactory;
  KoFrameHist mHist;
  KoFrameHistSnapshot* mSnapshot = nullptr;
  sp<KoFrameData> mPrevious;
  std::vector<sp<KoMemoryBuffer>> mZsl;
  int mNextId = 0;
};

// A capture sequence on a snapshot (which stays the caller's) with the captured frame at `index`.
struct Job {
  KoSequenceData seq{};
  Job(KoFrameHistSnapshot* snapshot, int index) {
    seq.mSnapshot = snapshot;
    seq.mJobId = 7;
    seq.mCapturedFrameIndex = index;
    const KoFrameData* f = snapshot->mHistory[static_cast<size_t>(index)]->mFrameData.get();
    seq.mCapturedFrameId = static_cast<int32_t>(f->mFrameId);
    seq.mCapturedTsUs = f->mTimestamp;
  }
  ~Job() { seq.mSnapshot = nullptr; }
};

using kocore_test::Plane;

struct Measure { float coeff = -2.0f, sub = -2.0f; };  // whole picture, centre

// The engine's call: the 2x reduction of the view, and the view for the centre.
Measure engineMeasure(const Plane& view) {
  Plane small = kocore_test::half(view);
  DexBlurDetect det(small.w, small.h, small.w);
  std::vector<short> s1(static_cast<size_t>(small.w) * small.h), s2(s1.size());
  Measure m;
  EXPECT_EQ(0, det.calcBlurMeasure(small.data(), small.w, small.h, small.w, m.coeff, s1.data(), s2.data(),
                                   const_cast<uint8_t*>(view.data()), view.w, m.sub));
  return m;
}

// A sharp frame of the hand-held bird clip, with or without sensor noise, is far above the
// threshold; a Gaussian blur of 1.5 or a 7-pixel motion blur at the analysis view is below it.
TEST(BlurMeasure, BlurredCopiesOfARealFrameAreFlaggedTheSharpOneIsNotAndBadArgumentsAreRefused) {
  constexpr float kThreshold = 0.17f;  // the engine cancels a best shot below this
  const Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  ASSERT_EQ(640, view.w);
  const Measure sharp = engineMeasure(view), noisy = engineMeasure(kocore_test::noisy(view, 4.0, 1));
  for (float m : {sharp.coeff, sharp.sub, noisy.coeff, noisy.sub}) EXPECT_GE(m, 0.6f);
  EXPECT_LE(sharp.coeff, 1.0f);
  EXPECT_NEAR(sharp.coeff, noisy.coeff, 0.05f) << "noise is not detail";
  for (const Plane& blurred : {kocore_test::gaussianBlur(view, 1.5), kocore_test::motionBlur(view, 7)}) {
    const Measure m = engineMeasure(blurred);
    EXPECT_GE(m.coeff, 0.0f);
    EXPECT_LT(m.coeff, kThreshold - 0.03f);
    EXPECT_LT(m.sub, kThreshold + 0.02f);  // the centre reads a little higher on some pictures
  }

  // The static measure of the small image (the best-shot check's call) is the engine call's coeff.
  Plane small = kocore_test::half(view);
  DexBlurDetect det(320, 180, 320);
  std::vector<short> s1(320 * 180), s2(320 * 180);
  EXPECT_FLOAT_EQ(sharp.coeff, DexBlurDetect::measure(small.data(), 320, 180, 320, s1.data(), s2.data()));

  // A textureless picture has no measure, nor has a flat one with sensor noise on it.
  std::fill(small.px.begin(), small.px.end(), 128);
  Plane flatView = view;
  std::fill(flatView.px.begin(), flatView.px.end(), 90);
  float c = 0.5f, sub = 0.5f;
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

// Clip a, frames 630..652: open eyes, the blink 640..643 (hand labels), open again.
TEST(KoBestShotScores, BlinksRankBelowOpenEyesOnAWebcamClip) {
  const ClipStretch clip = loadClipStretch("webcam_face_a_400x300_25fps.mp4", 630, 652);
  ASSERT_EQ(clip.pictures.size(), 23u);
  ScoringHistory h;
  for (const kovane_replay::Nv21Image& picture : clip.pictures) {
    sp<KoFrameData> f = h.add(picture);
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(f->mFaceRefWidth, 640u);
  }
  auto idx = [&](int clipFrame) { return static_cast<size_t>(clipFrame - clip.first); };
  // The newest frame's face record has not arrived yet.
  const size_t newest = clip.pictures.size() - 1;
  for (size_t i = 0; i < newest; ++i) h.addFaces(h.frame(i)->mFrameId, clip.faces[i]);
  for (int frame = 634; frame <= 640; ++frame) ASSERT_TRUE(h.addZsl(h.frame(idx(frame))->mFrameId));

  KoBestShot bs;
  {
    // Foreground: the newest frame borrows its neighbour's faces score until its record comes.
    Job job(h.snapshot(), static_cast<int>(newest));
    ASSERT_EQ(bs.findFrameInFG(&job.seq, false), 0);
    EXPECT_EQ(h.frame(newest)->mFacesScore, h.frame(newest - 1)->mFacesScore);
    EXPECT_GT(h.frame(newest)->mFacesScore, 0.0f);
  }
  h.addFaces(h.frame(newest)->mFrameId, clip.faces[newest]);

  Job job(h.snapshot(), static_cast<int>(idx(641)));
  ASSERT_EQ(bs.findFrame(&job.seq), 0);
  const float openFaces = h.frame(idx(636))->mFacesScore;
  EXPECT_GE(openFaces, 50.0f);
  EXPECT_LE(openFaces, 80.0f);
  for (int o : {636, 638, 650}) {
    const sp<KoFrameData> fo = h.frame(idx(o));
    EXPECT_EQ(fo->mFacesScore, openFaces) << "open-eyed frames tie, frame " << o;
    for (int b : {640, 641, 642, 643}) {
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

TEST(KoFaceIdBasedData, PredictsTheHandLabelledBlinksOfTheWebcamClips) {
  struct Stretch {
    const char* clip;
    int first, last;
    std::vector<int> blink, open;  // hand-labelled closed and open frames
  };
  const Stretch stretches[] = {
      {"webcam_face_a_400x300_25fps.mp4", 630, 652, {640, 641, 642, 643}, {636, 638, 650}},
      {"webcam_face_a_400x300_25fps.mp4", 762, 786, {774, 775}, {771, 772}},
      {"webcam_face_b_400x300_25fps.mp4", 416, 440, {426, 427, 428, 429}, {422, 423, 433}},
  };
  for (const Stretch& s : stretches) {
    SCOPED_TRACE(testing::Message() << s.clip << " " << s.first << ".." << s.last);
    const ClipStretch clip = loadClipStretch(s.clip, s.first, s.last);
    ASSERT_EQ(static_cast<int>(clip.faces.size()), s.last - s.first + 1);
    ScoringHistory h;
    for (size_t i = 0; i < clip.pictures.size(); ++i) h.addFaces(h.add(clip.pictures[i])->mFrameId, clip.faces[i]);
    KoFrameHistSnapshot& snapshot = *h.snapshot();
    KoFaceIdBasedData data(&snapshot);
    const int frames = data.populateFaceIdBasedData();
    auto predicted = [&](int frame) {
      return snapshot.mHistory[static_cast<size_t>(frame - s.first)]->mFrameData->mFaceData.numBlinkedPredicted;
    };
    for (int b : s.blink) EXPECT_GE(predicted(b), 1) << "blink frame " << b;
    for (int o : s.open) EXPECT_EQ(predicted(o), 0) << "open frame " << o;
    // The closed frames, and at most the closing and opening frames around them.
    EXPECT_GE(frames, static_cast<int>(s.blink.size()));
    EXPECT_LE(frames, static_cast<int>(s.blink.size()) + 4);
    int blinks = 0;
    for (size_t k = 0; k < data.faceTracks().size(); ++k) blinks += data.faceTracks()[k].blinks;
    EXPECT_EQ(blinks, 1);
  }
}

}  // namespace
}  // namespace android
