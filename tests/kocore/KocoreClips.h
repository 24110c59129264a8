#pragma once
// Real clips and engine frames for the analysis-library tests: analysis views of clips (the
// 640x360 view the engine analyses: the 2x reduction of a 1280x720 preview, or the central band
// of a 640x480 one), planar frames for the preview encoder, histories of frames holding the
// statistics of views, a recorder of the encoder's completion reports; and, for the scoring
// tests, real pictures through the engine's own frame creation with the foreground's per-frame
// statistics, face records, ZSL buffers, a history, its snapshot and a capture sequence.
#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../framedata/FrameTestSupport.h"
#include "ClipDecoder.h"
#include "ClipFaceAnalysis.h"
#include "DexFrameMetaData.h"
#include "KoFaceMetaData.h"
#include "KoFrameData.h"
#include "KoFrameDataCreate.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoSequenceData.h"
#include "KocoreTestImages.h"
#include "TestData.h"
#include "TestWait.h"

namespace kocore_test {

// Calls fn(frame) for frames first..last of a clip decoded at w x h (fitted by cropping); false
// (with a test failure when the clip is there but cannot be decoded) when the clip is missing.
template <typename Fn>
bool forEachClipFrame(const std::string& name, int w, int h, int first, int last, Fn fn) {
  const std::string path = kovane_test::testDataPath(name);
  if (path.empty()) return false;
  kovane_replay::ClipDecoder decoder;
  if (!decoder.open(path) || !decoder.setOutput(w, h, kovane_replay::ClipDecoder::FIT_CROP)) {
    ADD_FAILURE() << name << ": " << decoder.error();
    return false;
  }
  kovane_replay::ClipFrame frame;
  while (decoder.next(frame) && frame.index <= last) {
    if (frame.index >= first) fn(frame);
  }
  return true;
}

// Views of frames first..last of the clip decoded at previewW x previewH (1280x720 or 640x480).
inline std::vector<Plane> clipViews(const std::string& name, int previewW, int previewH, int first, int last) {
  std::vector<Plane> out;
  forEachClipFrame(name, previewW, previewH, first, last, [&](const kovane_replay::ClipFrame& frame) {
    Plane p;
    p.w = 640;
    p.h = 360;
    if (previewW == 1280) {
      p.px.resize(640 * 360);
      android::DexFrameMetaData::downScaleLuma2x(p.data(), frame.image.y(), 1280, 640, 360);
    } else {
      const int top = (previewH - 360) / 2;
      p.px.assign(frame.image.y() + top * previewW, frame.image.y() + (top + 360) * previewW);
    }
    out.push_back(std::move(p));
  });
  EXPECT_EQ(last - first + 1, static_cast<int>(out.size())) << name;
  return out;
}

// The first `count` frames of a clip at w x h as planar 4:2:0 (Y, U, V planes, rows packed),
// the form the preview encoder keeps, with the clip's own times; loaded once per clip and size.
struct PlanarClip {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<int64_t> ptsUs;
};
inline const PlanarClip& planarClip(const std::string& name, int w, int h, size_t count) {
  static std::map<std::string, PlanarClip> cache;
  PlanarClip& c = cache[name + "/" + std::to_string(w) + "x" + std::to_string(h) + "/" + std::to_string(count)];
  if (!c.frames.empty()) return c;
  const size_t luma = static_cast<size_t>(w) * h;
  forEachClipFrame(name, w, h, 0, static_cast<int>(count) - 1, [&](const kovane_replay::ClipFrame& f) {
    std::vector<uint8_t> p(luma * 3 / 2);
    std::copy_n(f.image.y(), luma, p.begin());
    for (size_t i = 0; i < luma / 4; ++i) {  // V,U pairs to a U plane and a V plane
      p[luma + i] = f.image.vu()[2 * i + 1];
      p[luma + luma / 4 + i] = f.image.vu()[2 * i];
    }
    c.frames.push_back(std::move(p));
    c.ptsUs.push_back(f.ptsUs);
  });
  EXPECT_EQ(c.frames.size(), count) << name;
  return c;
}

// Image-less frames `frameUs` apart (ids from 500) holding the foreground's statistics of the 2x
// reductions of their views: luma and Sobel, and from the second frame on (the first frame of a
// history gets none) the difference to the previous one; more(i, frame) adds per-frame work.
// Kept in a history, with a snapshot of it.
struct ViewHistory {
  android::KoFrameHist hist;
  android::KoFrameHistSnapshot* snapshot = nullptr;

  template <typename More>
  ViewHistory(const std::vector<Plane>& views, int64_t frameUs, More more) {
    using android::DexFrameMetaData;
    std::vector<int16_t> s1(320 * 180), s2(320 * 180);
    Plane previous;
    for (size_t i = 0; i < views.size(); ++i) {
      android::sp<android::KoFrameData> f = new android::KoFrameData();
      f->mFrameId = 500 + static_cast<uint32_t>(i);
      f->mTimestamp = 9000000 + frameUs * static_cast<int64_t>(i);
      const Plane small = half(views[i]);
      DexFrameMetaData::calcMeanStddev(small.data(), &f->mLumaStats, 320 * 180);
      DexFrameMetaData::calcSobelFrame(small.data(), &f->mSobelStats, 320, 180, 0, s1.data(), s2.data());
      if (i > 0) {
        DexFrameMetaData::calcMFrameDiff(small.data(), previous.data(), &f->mDiffStats, 320 * 180);
        f->setProcessedEvents(android::KoFrameData::EVENT_STATS);
      }
      previous = small;
      more(i, *f);
      hist.addFrameData(f);
    }
    snapshot = new android::KoFrameHistSnapshot(&hist);
  }
  ~ViewHistory() { delete snapshot; }
  ViewHistory(const ViewHistory&) = delete;
  ViewHistory& operator=(const ViewHistory&) = delete;
  const android::sp<android::KoFrameData>& frame(int i) const { return snapshot->mHistory[i]->mFrameData; }
  int size() const { return static_cast<int>(snapshot->size()); }
};

// An owner of the shape the engine's foreground handler has, recording the preview encoder's
// completion reports (job, saved) and the thread that made the last one.
class ClipReports : public android::RefBase {
 public:
  static void cb(android::sp<ClipReports>& owner, int jobId, bool saved) {
    std::lock_guard<std::mutex> lock(owner->mLock);
    owner->mCalls.push_back({jobId, saved});
    owner->mThread = std::this_thread::get_id();
  }
  std::vector<std::pair<int, bool>> calls() {
    std::lock_guard<std::mutex> lock(mLock);
    return mCalls;
  }
  std::thread::id thread() {
    std::lock_guard<std::mutex> lock(mLock);
    return mThread;
  }
  // Waits for `n` reports in all.
  bool reported(size_t n, int timeoutMs = 30000) {
    return kovane_test::waitUntil([&] { return calls().size() >= n; }, timeoutMs);
  }

 private:
  std::mutex mLock;
  std::vector<std::pair<int, bool>> mCalls;
  std::thread::id mThread;
};

}  // namespace kocore_test

namespace scoring_test {

using android::sp;

// An NV21 picture (luma, then interleaved V,U pairs), tightly packed.
struct Nv21 {
  int w = 0;
  int h = 0;
  std::vector<uint8_t> bytes;
};

inline Nv21 loadNv21(const std::string& name, int w, int h) {
  Nv21 p;
  p.w = w;
  p.h = h;
  p.bytes = kovane_test::readNv21(name, w, h);
  return p;
}

// The analysis view of a frame as a plane, and back.
inline kocore_test::Plane viewOf(const sp<android::KoFrameData>& f) {
  kocore_test::Plane p;
  p.w = static_cast<int>(f->mAnalysisWidth);
  p.h = static_cast<int>(f->mAnalysisHeight);
  p.px.resize(static_cast<size_t>(p.w) * p.h);
  for (int y = 0; y < p.h; ++y) {
    memcpy(&p.px[static_cast<size_t>(y) * p.w], f->mAnalysisImage + static_cast<size_t>(y) * f->mWidth, p.w);
  }
  return p;
}

inline void setView(const sp<android::KoFrameData>& f, const kocore_test::Plane& p) {
  for (int y = 0; y < p.h; ++y) {
    memcpy(f->mAnalysisImage + static_cast<size_t>(y) * f->mWidth, &p.px[static_cast<size_t>(y) * p.w], p.w);
  }
}

// Builds frames the way the engine does and keeps them in a history.
class ScoringHistory {
 public:
  ScoringHistory() : mFactory(&mEngine) {}
  ~ScoringHistory() {
    delete mSnapshot;
    mZsl.clear();
  }
  ScoringHistory(const ScoringHistory&) = delete;
  ScoringHistory& operator=(const ScoringHistory&) = delete;

  // A new frame from an NV21 picture (its own id and a 33 ms step in time), not yet added.
  sp<android::KoFrameData> make(const Nv21& pic) {
    android::KO_cam_frame_len_offset_t planes = {};
    planes.numPlanes = 2;
    planes.mp[0] = {pic.w * pic.h, 0, pic.w, pic.h};
    planes.mp[1] = {pic.w * pic.h / 2, 0, pic.w, pic.h / 2};
    planes.frameLen = static_cast<uint32_t>(pic.bytes.size());
    android::KO_PreviewFrameData_t preview = {};
    preview.timeStamp = 5000000 + 33333LL * mNextId;
    preview.frameId = 1000 + mNextId;
    ++mNextId;
    preview.streamType = android::KO_STREAM_TYPE_PREVIEW;
    preview.width = pic.w;
    preview.height = pic.h;
    preview.data = const_cast<uint8_t*>(pic.bytes.data());
    preview.colorFormat = android::KO_COLOR_FORMAT_NV21;
    preview.planes = &planes;
    sp<android::KoFrameData> frame;
    mFactory.newFrame(&preview, frame);
    return frame;
  }

  // Adds a frame to the history and computes its statistics against the previous frame, as the
  // foreground does for every kept frame (the first frame of a history gets none).
  void add(sp<android::KoFrameData>& frame) {
    mHist.addFrameData(frame);
    if (mPrevious != nullptr) stats(frame, mPrevious);
    mPrevious = frame;
  }

  // The foreground's per-frame statistics: luma, Sobel, difference and histogram of the 2x
  // reduction of the analysis view.
  static void stats(sp<android::KoFrameData>& cur, sp<android::KoFrameData>& prev) {
    using android::DexFrameMetaData;
    const int sw = static_cast<int>(cur->mSmallWidth), sh = static_cast<int>(cur->mSmallHeight);
    uint8_t* curSmall = cur->mSmallImage->data();
    uint8_t* prevSmall = prev->mSmallImage->data();
    DexFrameMetaData::downScaleLuma2x(curSmall, cur->mAnalysisImage, static_cast<int>(cur->mWidth), sw, sh);
    DexFrameMetaData::downScaleLuma2x(prevSmall, prev->mAnalysisImage, static_cast<int>(prev->mWidth), sw, sh);
    android::KO_dataStats_t luma = {}, sobel = {}, diff = {};
    DexFrameMetaData::calcMeanStddev(curSmall, &luma, sw * sh);
    DexFrameMetaData::calcSobelFrame(curSmall, &sobel, sw, sh, 0,
                                     reinterpret_cast<int16_t*>(cur->mSobelBuffer1->data()),
                                     reinterpret_cast<int16_t*>(cur->mSobelBuffer2->data()));
    DexFrameMetaData::calcMFrameDiff(curSmall, prevSmall, &diff, sw * sh);
    cur->mLumaStats = luma;
    cur->mSobelStats = sobel;
    cur->mDiffStats = diff;
    cur->mStatsWidth = static_cast<uint32_t>(sw);
    cur->mStatsHeight = static_cast<uint32_t>(sh);
    DexFrameMetaData::genHistogramPow2(curSmall, cur->mHistogram, sw, sh, sw, static_cast<int>(cur->mHistogramBins));
    cur->setProcessedEvents(android::KoFrameData::EVENT_STATS);
  }

  // Face records arriving for a frame.
  void addFaces(uint32_t frameId, const std::vector<android::KO_cam_face_t>& faces) {
    android::KO_cam_face_detection_data_t record = {};
    record.frameId = frameId;
    record.numFaces = static_cast<uint32_t>(std::min<size_t>(faces.size(), android::KO_MAX_FACES));
    for (uint32_t k = 0; k < record.numFaces; ++k) record.faces[k] = faces[k];
    sp<android::KoFaceMetaData> meta;
    mFactory.newFaceData(&record, meta);
    mHist.addFaceData(frameId, meta);
  }

  // A ZSL buffer arriving for a frame (at most seven are lent at once).
  bool addZsl(uint32_t frameId) {
    android::KO_ZslFrameData_t zsl = {kovane_test::zslAddress(mZsl.size() + 1), frameId};
    sp<android::KoMemoryBuffer> memory;
    mFactory.newZslFrame(&zsl, memory);
    if (memory == nullptr) return false;
    mZsl.push_back(memory);
    mHist.addZslData(memory, &zsl, frameId);
    return true;
  }

  // A fresh snapshot of the history (owned here).
  android::KoFrameHistSnapshot* snapshot() {
    delete mSnapshot;
    mSnapshot = new android::KoFrameHistSnapshot(&mHist);
    return mSnapshot;
  }

  sp<android::KoFrameData> frame(size_t i) { return mHist.mHistory[i]->mFrameData; }
  android::KoFrameHist& hist() { return mHist; }

 private:
  kovane_test::TestEngineContext mEngine;
  android::KoFrameDataCreate mFactory;
  android::KoFrameHist mHist;
  android::KoFrameHistSnapshot* mSnapshot = nullptr;
  sp<android::KoFrameData> mPrevious;
  std::vector<sp<android::KoMemoryBuffer>> mZsl;
  int mNextId = 0;
};

// A capture sequence on a snapshot with the captured frame at `index`; the snapshot stays the
// caller's.
struct Job {
  android::KoSequenceData seq{};
  Job(android::KoFrameHistSnapshot* snapshot, int index) {
    seq.mSnapshot = snapshot;
    seq.mJobId = 7;
    seq.mCapturedFrameIndex = index;
    const android::KoFrameData* f = snapshot->mHistory[static_cast<size_t>(index)]->mFrameData.get();
    seq.mCapturedFrameId = static_cast<int32_t>(f->mFrameId);
    seq.mCapturedTsUs = f->mTimestamp;
  }
  ~Job() { seq.mSnapshot = nullptr; }
};

// A face record as the camera reports it, from the replay tool's face analysis.
inline android::KO_cam_face_t toCamFace(const kovane_replay::FaceRecord& r) {
  android::KO_cam_face_t o = {};
  o.id = r.id;
  o.score = static_cast<int8_t>(std::clamp(r.score, 0, 100));
  o.left = r.left, o.top = r.top, o.width = r.width, o.height = r.height;
  o.leftEyeX = r.leftEyeX, o.leftEyeY = r.leftEyeY, o.rightEyeX = r.rightEyeX, o.rightEyeY = r.rightEyeY;
  o.mouthX = r.mouthX, o.mouthY = r.mouthY;
  o.smileDegree = static_cast<uint8_t>(std::clamp(r.smile, 0, 100));
  o.smileConfidence = 80;
  o.leftBlink = static_cast<uint8_t>(std::clamp(r.leftBlink, 0, 100));
  o.rightBlink = static_cast<uint8_t>(std::clamp(r.rightBlink, 0, 100));
  o.blinkDetected = r.blinkDegree() >= 50 ? 1 : 0;
  return o;
}

// Frames first..last of a webcam clip at a 640x480 preview, with the faces dlib finds in them.
struct ClipStretch {
  std::vector<Nv21> pictures;                     // index 0 = frame `first`
  std::vector<std::vector<android::KO_cam_face_t>> faces;
  int first = 0;
};

// Loaded (face analysis included) once per stretch.
inline bool loadClipStretch(const std::string& name, int first, int last, ClipStretch& out) {
  static std::map<std::string, ClipStretch> cache;
  ClipStretch& c = cache[name + "/" + std::to_string(first) + "-" + std::to_string(last)];
  if (c.pictures.empty()) {
    kovane_replay::ClipFaceAnalysis::Options opt;
    opt.width = 640;
    opt.height = 480;
    kovane_replay::ClipFaces faces;
    std::string error;
    const std::string path = kovane_test::testDataPath(name);
    if (path.empty() || !kovane_replay::ClipFaceAnalysis::analyseRange(path, opt, first, last, faces, &error)) {
      return false;
    }
    c.first = first;
    kocore_test::forEachClipFrame(name, 640, 480, first, last, [&](const kovane_replay::ClipFrame& frame) {
      c.pictures.push_back(Nv21{frame.image.width, frame.image.height, frame.image.data});
      std::vector<android::KO_cam_face_t> recs;
      if (static_cast<size_t>(frame.index) < faces.size()) {
        for (const kovane_replay::FaceRecord& r : faces[frame.index]) recs.push_back(toCamFace(r));
      }
      c.faces.push_back(recs);
    });
  }
  out = c;
  return static_cast<int>(out.pictures.size()) == last - first + 1;
}

}  // namespace scoring_test
