#pragma once
// Real clips for the analysis-library tests: analysis views (the 640x360 view the engine
// analyses: the 2x reduction of a 1280x720 preview, or the central band of a 640x480 one),
// planar frames for the preview encoder, histories of frames holding the statistics of views, and
// a recorder of the encoder's completion reports.
#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ClipDecoder.h"
#include "DexFrameMetaData.h"
#include "KoFrameData.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KocoreTestImages.h"
#include "TestData.h"
#include "TestWait.h"

namespace kocore_test {

// Views of frames first..last of the clip decoded at previewW x previewH (1280x720 or
// 640x480); empty (with a test failure) when the clip cannot be read.
inline std::vector<Plane> clipViews(const std::string& name, int previewW, int previewH, int first, int last) {
  std::vector<Plane> out;
  const std::string path = kovane_test::testDataPath(name);
  if (path.empty()) return out;
  kovane_replay::ClipDecoder decoder;
  if (!decoder.open(path) || !decoder.setOutput(previewW, previewH, kovane_replay::ClipDecoder::FIT_CROP)) {
    ADD_FAILURE() << decoder.error();
    return out;
  }
  kovane_replay::ClipFrame frame;
  while (decoder.next(frame) && frame.index <= last) {
    if (frame.index < first) continue;
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
  }
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
  kovane_replay::ClipDecoder dec;
  if (!dec.open(kovane_test::testDataPath(name)) || !dec.setOutput(w, h, kovane_replay::ClipDecoder::FIT_CROP)) {
    ADD_FAILURE() << name << ": " << dec.error();
    return c;
  }
  const size_t luma = static_cast<size_t>(w) * h;
  kovane_replay::ClipFrame f;
  while (c.frames.size() < count && dec.next(f)) {
    std::vector<uint8_t> p(luma * 3 / 2);
    std::copy_n(f.image.y(), luma, p.begin());
    for (size_t i = 0; i < luma / 4; ++i) {  // V,U pairs to a U plane and a V plane
      p[luma + i] = f.image.vu()[2 * i + 1];
      p[luma + luma / 4 + i] = f.image.vu()[2 * i];
    }
    c.frames.push_back(std::move(p));
    c.ptsUs.push_back(f.ptsUs);
  }
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
